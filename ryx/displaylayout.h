#pragma once

#include <ryx/displayhead.h>

G_BEGIN_DECLS

#define RYX_TYPE_DISPLAY_LAYOUT (ryx_display_layout_get_type ())

/**
 * RyxDisplayLayout:
 *
 * An ordered list of heads that never changes. Release it with g_object_unref().
 */
RYX_API
G_DECLARE_FINAL_TYPE (RyxDisplayLayout, ryx_display_layout, RYX, DISPLAY_LAYOUT, GObject)

/**
 * ryx_display_layout_new:
 * @n_heads: number of heads, 0 and up
 * @heads: (array length=n_heads): the heads; each is referenced
 *
 * Makes a layout.
 *
 * Returns: (transfer full): a new layout of these heads in this order.
 */
RYX_API RyxDisplayLayout *ryx_display_layout_new (guint32 n_heads, RyxDisplayHead **heads);

/**
 * ryx_display_layout_get_heads:
 * @layout: a layout
 * @n_heads: (out): the number of heads
 *
 * Gives the heads of a layout.
 *
 * Returns: (transfer none) (array length=n_heads): the heads in order, valid as long as @layout.
 */
RYX_API RyxDisplayHead **ryx_display_layout_get_heads (RyxDisplayLayout *layout, guint32 *n_heads);

G_END_DECLS
