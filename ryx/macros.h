#pragma once

#include <glib-object.h>

/* Marks what libryx exports; everything else in it is hidden. */
#define RYX_API __attribute__ ((visibility ("default"))) extern
