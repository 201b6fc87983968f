#pragma once

#include <ryx/diffmap.h>

RyxDiffmap *ryx_diffmap_copy (RyxDiffmap *diffmap);

/* Marks what the other map has marked. FALSE when they are not maps over the same blocks. */
gboolean ryx_diffmap_merge (RyxDiffmap *diffmap, RyxDiffmap *other);
