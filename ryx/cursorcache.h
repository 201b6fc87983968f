#pragma once

#include <ryx/cursor.h>

G_BEGIN_DECLS

#define RYX_TYPE_CURSOR_CACHE (ryx_cursor_cache_get_type ())

/**
 * RyxCursorCache:
 *
 * The cursors that a pointer monitor has announced, by id. A full cache evicts the cursor that was
 * used least recently. Used from one thread.
 */
RYX_API
G_DECLARE_FINAL_TYPE (RyxCursorCache, ryx_cursor_cache, RYX, CURSOR_CACHE, GObject)

/**
 * ryx_cursor_cache_new:
 * @size: how many cursors it holds at most, 1 and up
 *
 * Makes a cache.
 *
 * Returns: (transfer full): a new, empty cache.
 */
RYX_API RyxCursorCache *ryx_cursor_cache_new (guint size);

/**
 * ryx_cursor_cache_get:
 * @cache: a cache
 * @id: a cursor id
 *
 * Looks a cursor up. This counts as a use of the cursor.
 *
 * Returns: (transfer none) (nullable): the cursor with that id, valid as long as it is cached; %NULL when
 *   there is none.
 */
RYX_API RyxCursor *ryx_cursor_cache_get (RyxCursorCache *cache, guint64 id);

/**
 * ryx_cursor_cache_add:
 * @cache: a cache
 * @cursor: a cursor; referenced
 *
 * Stores a cursor under its id, in place of one with the same id.
 *
 * Returns: the id of the cursor that was evicted to make room, 0 when none was.
 */
RYX_API guint64 ryx_cursor_cache_add (RyxCursorCache *cache, RyxCursor *cursor);

/**
 * ryx_cursor_cache_clear:
 * @cache: a cache
 *
 * Forgets every cursor.
 */
RYX_API void ryx_cursor_cache_clear (RyxCursorCache *cache);

G_END_DECLS
