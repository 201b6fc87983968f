#pragma once

#include <ryx/macros.h>

G_BEGIN_DECLS

#define RYX_TYPE_CURSOR (ryx_cursor_get_type ())

/**
 * RyxCursor:
 *
 * A cursor's shape. It never changes, so any thread may read it; references are counted atomically.
 */
typedef struct _RyxCursor RyxCursor;

/**
 * ryx_cursor_get_type:
 *
 * Returns: the boxed type of cursors.
 */
RYX_API GType ryx_cursor_get_type (void);

/**
 * ryx_cursor_new:
 * @id: what the cursor is cached under; never 0
 * @width: width in pixels
 * @height: height in pixels
 * @hotspot_x: the pointing pixel, from the left
 * @hotspot_y: the pointing pixel, from the top
 * @pixels: width × height pixels of 4 bytes: alpha, red, green, blue, not premultiplied, rows top to
 *   bottom without a gap; referenced
 *
 * Makes a cursor, for implementations of #RyxPointerMonitor.
 *
 * Returns: (transfer full): a new cursor.
 */
RYX_API RyxCursor *ryx_cursor_new (guint64 id, guint32 width, guint32 height, guint32 hotspot_x, guint32 hotspot_y,
                                   GBytes *pixels);

/**
 * ryx_cursor_ref:
 * @cursor: a cursor
 *
 * Takes a reference.
 *
 * Returns: (transfer full): @cursor, with one more reference.
 */
RYX_API RyxCursor *ryx_cursor_ref (RyxCursor *cursor);

/**
 * ryx_cursor_unref:
 * @cursor: (transfer full): a cursor
 *
 * Drops a reference.
 */
RYX_API void ryx_cursor_unref (RyxCursor *cursor);

/**
 * ryx_cursor_get_id:
 * @cursor: a cursor
 *
 * Tells what a cursor is cached under.
 *
 * Returns: its id.
 */
RYX_API guint64 ryx_cursor_get_id (RyxCursor *cursor);

/**
 * ryx_cursor_get_width:
 * @cursor: a cursor
 *
 * Tells how wide a cursor is.
 *
 * Returns: its width in pixels.
 */
RYX_API guint32 ryx_cursor_get_width (RyxCursor *cursor);

/**
 * ryx_cursor_get_height:
 * @cursor: a cursor
 *
 * Tells how high a cursor is.
 *
 * Returns: its height in pixels.
 */
RYX_API guint32 ryx_cursor_get_height (RyxCursor *cursor);

/**
 * ryx_cursor_get_hotspot_x:
 * @cursor: a cursor
 *
 * Tells which column of a cursor points.
 *
 * Returns: the pointing pixel's distance from the left edge.
 */
RYX_API guint32 ryx_cursor_get_hotspot_x (RyxCursor *cursor);

/**
 * ryx_cursor_get_hotspot_y:
 * @cursor: a cursor
 *
 * Tells which row of a cursor points.
 *
 * Returns: the pointing pixel's distance from the top edge.
 */
RYX_API guint32 ryx_cursor_get_hotspot_y (RyxCursor *cursor);

/**
 * ryx_cursor_get_pixels:
 * @cursor: a cursor
 *
 * Gives the picture of a cursor.
 *
 * Returns: (transfer none): its pixels as ryx_cursor_new() describes them, valid as long as @cursor.
 */
RYX_API GBytes *ryx_cursor_get_pixels (RyxCursor *cursor);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (RyxCursor, ryx_cursor_unref)

G_END_DECLS
