#pragma once

#include <ryx/cursorcache.h>

G_BEGIN_DECLS

/**
 * RYX_POINTER_MONITOR_EXTENSION_POINT:
 *
 * The extension point of #RyxPointerMonitor implementations.
 */
#define RYX_POINTER_MONITOR_EXTENSION_POINT "ryx-pointer-monitor-extension-point"

#define RYX_TYPE_POINTER_MONITOR (ryx_pointer_monitor_get_type ())

/**
 * RyxPointerMonitor:
 *
 * Watches the pointer's position and shape. Used from the thread that owns the display, whose default
 * main context must run; the signals are emitted there.
 */
RYX_API
G_DECLARE_DERIVABLE_TYPE (RyxPointerMonitor, ryx_pointer_monitor, RYX, POINTER_MONITOR, GObject)

/**
 * RyxPointerMonitor:cursor-cache-size:
 *
 * How many cursors are kept, 1 and up.
 */

/**
 * RyxPointerMonitor::cursor-moved:
 * @monitor: the monitor
 * @x: position in pixels of the whole screen
 * @y: position in pixels of the whole screen
 *
 * Tells where the pointer is, at every look at it, moved or not.
 */

/**
 * RyxPointerMonitor::cursor-changed:
 * @monitor: the monitor
 * @cursor: the current shape
 * @was_cached: %TRUE when it was added to the cache just now, so that its pixels are new to the listener
 * @evicted: the id that the cache gave up for it, 0 for none
 *
 * Tells what the pointer looks like, at every look at it, changed or not.
 */

/**
 * RyxPointerMonitor::cursor-retrieved:
 * @monitor: the monitor
 * @cursor: the cursor that was required
 *
 * Answers ryx_pointer_monitor_require_cursor().
 */

/**
 * RyxPointerMonitor::cursor-cache-invalidated:
 * @monitor: the monitor
 *
 * Says that the cursor ids announced so far no longer hold.
 */

/**
 * RyxPointerMonitorClass:
 * @parent_class: the parent class
 * @start: see ryx_pointer_monitor_start()
 * @stop: see ryx_pointer_monitor_stop()
 * @require_cursor: see ryx_pointer_monitor_require_cursor()
 *
 * What an implementation fills in.
 */
struct _RyxPointerMonitorClass
{
  GObjectClass parent_class;

  void (*start) (RyxPointerMonitor *monitor);
  void (*stop) (RyxPointerMonitor *monitor);
  void (*require_cursor) (RyxPointerMonitor *monitor, guint64 cursor_id);
};

/**
 * ryx_pointer_monitor_start:
 * @monitor: a monitor that is not started
 *
 * Begins to watch the pointer.
 */
RYX_API void ryx_pointer_monitor_start (RyxPointerMonitor *monitor);

/**
 * ryx_pointer_monitor_stop:
 * @monitor: a started monitor
 *
 * Stops watching the pointer.
 */
RYX_API void ryx_pointer_monitor_stop (RyxPointerMonitor *monitor);

/**
 * ryx_pointer_monitor_require_cursor:
 * @monitor: a monitor
 * @cursor_id: the id of a cursor that was announced
 *
 * Has a cursor announced again, through `cursor-retrieved`, if it is still cached.
 */
RYX_API void ryx_pointer_monitor_require_cursor (RyxPointerMonitor *monitor, guint64 cursor_id);

/**
 * ryx_pointer_monitor_get_cursor_cache:
 * @monitor: a monitor
 *
 * Gives the cursors that are known by their ids.
 *
 * Returns: (transfer none): the monitor's cursor cache.
 */
RYX_API RyxCursorCache *ryx_pointer_monitor_get_cursor_cache (RyxPointerMonitor *monitor);

/**
 * ryx_pointer_monitor_emit_cursor_moved:
 * @monitor: a monitor
 * @x: position in pixels of the whole screen
 * @y: position in pixels of the whole screen
 *
 * For implementations: emits `cursor-moved`.
 */
RYX_API void ryx_pointer_monitor_emit_cursor_moved (RyxPointerMonitor *monitor, guint32 x, guint32 y);

/**
 * ryx_pointer_monitor_emit_cursor_changed:
 * @monitor: a monitor
 * @cursor: the current cursor
 * @was_cached: whether it was added to the cache just now
 * @evicted_cursor: the id that the cache evicted for it, 0 for none
 *
 * For implementations: emits `cursor-changed`.
 */
RYX_API void ryx_pointer_monitor_emit_cursor_changed (RyxPointerMonitor *monitor, RyxCursor *cursor,
                                                      gboolean was_cached, guint64 evicted_cursor);

/**
 * ryx_pointer_monitor_emit_cursor_retrieved:
 * @monitor: a monitor
 * @cursor: the cursor that was required
 *
 * For implementations: emits `cursor-retrieved`.
 */
RYX_API void ryx_pointer_monitor_emit_cursor_retrieved (RyxPointerMonitor *monitor, RyxCursor *cursor);

/**
 * ryx_pointer_monitor_emit_cursor_cache_invalidated:
 * @monitor: a monitor
 *
 * For implementations: empties the cache and emits `cursor-cache-invalidated`.
 */
RYX_API void ryx_pointer_monitor_emit_cursor_cache_invalidated (RyxPointerMonitor *monitor);

G_END_DECLS
