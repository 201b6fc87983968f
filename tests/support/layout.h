#pragma once

#include <string>

#include <ryx/ryx.h>

/* Heads in the notation "NAME:ID WxH+X+Y, …". None of them may be primary. */
std::string describe_layout (RyxDisplayLayout *layout);

/* The heads that the module's enumerator tells, or its error's message. */
std::string enumerate_heads ();
