#include <ryx/pointermonitor.h>

struct RyxPointerMonitorPrivate
{
  RyxCursorCache *cursor_cache;
};

G_DEFINE_ABSTRACT_TYPE_WITH_PRIVATE (RyxPointerMonitor, ryx_pointer_monitor, G_TYPE_OBJECT)

enum
{
  PROP_CURSOR_CACHE_SIZE = 1,
};

enum
{
  SIGNAL_CURSOR_MOVED,
  SIGNAL_CURSOR_CHANGED,
  SIGNAL_CURSOR_RETRIEVED,
  SIGNAL_CURSOR_CACHE_INVALIDATED,
  N_SIGNALS,
};

static guint signals[N_SIGNALS];

static RyxPointerMonitorPrivate *
private_of (RyxPointerMonitor *monitor)
{
  return static_cast<RyxPointerMonitorPrivate *> (ryx_pointer_monitor_get_instance_private (monitor));
}

static void
ryx_pointer_monitor_set_property (GObject *object, guint property_id, const GValue *value, GParamSpec *pspec)
{
  switch (property_id)
    {
    case PROP_CURSOR_CACHE_SIZE:
      private_of (RYX_POINTER_MONITOR (object))->cursor_cache = ryx_cursor_cache_new (g_value_get_uint (value));
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID (object, property_id, pspec);
    }
}

static void
ryx_pointer_monitor_finalize (GObject *object)
{
  g_clear_object (&private_of (RYX_POINTER_MONITOR (object))->cursor_cache);
  G_OBJECT_CLASS (ryx_pointer_monitor_parent_class)->finalize (object);
}

static void
ryx_pointer_monitor_class_init (RyxPointerMonitorClass *klass)
{
  GObjectClass *object_class = G_OBJECT_CLASS (klass);
  const GType type = G_TYPE_FROM_CLASS (klass);

  object_class->set_property = ryx_pointer_monitor_set_property;
  object_class->finalize = ryx_pointer_monitor_finalize;

  g_object_class_install_property (
    object_class, PROP_CURSOR_CACHE_SIZE,
    g_param_spec_uint ("cursor-cache-size", nullptr, "How many cursors are kept", 1, G_MAXUINT, 64,
                       static_cast<GParamFlags> (G_PARAM_WRITABLE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS)));

  signals[SIGNAL_CURSOR_MOVED] = g_signal_new ("cursor-moved", type, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr,
                                               G_TYPE_NONE, 2, G_TYPE_UINT, G_TYPE_UINT);
  signals[SIGNAL_CURSOR_CHANGED]
    = g_signal_new ("cursor-changed", type, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 3,
                    RYX_TYPE_CURSOR, G_TYPE_BOOLEAN, G_TYPE_UINT64);
  signals[SIGNAL_CURSOR_RETRIEVED] = g_signal_new ("cursor-retrieved", type, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr,
                                                   nullptr, G_TYPE_NONE, 1, RYX_TYPE_CURSOR);
  signals[SIGNAL_CURSOR_CACHE_INVALIDATED]
    = g_signal_new ("cursor-cache-invalidated", type, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 0);
}

static void
ryx_pointer_monitor_init (RyxPointerMonitor *)
{
}

void
ryx_pointer_monitor_start (RyxPointerMonitor *monitor)
{
  g_return_if_fail (RYX_IS_POINTER_MONITOR (monitor));
  RYX_POINTER_MONITOR_GET_CLASS (monitor)->start (monitor);
}

void
ryx_pointer_monitor_stop (RyxPointerMonitor *monitor)
{
  g_return_if_fail (RYX_IS_POINTER_MONITOR (monitor));
  RYX_POINTER_MONITOR_GET_CLASS (monitor)->stop (monitor);
}

void
ryx_pointer_monitor_require_cursor (RyxPointerMonitor *monitor, guint64 cursor_id)
{
  g_return_if_fail (RYX_IS_POINTER_MONITOR (monitor));
  RYX_POINTER_MONITOR_GET_CLASS (monitor)->require_cursor (monitor, cursor_id);
}

RyxCursorCache *
ryx_pointer_monitor_get_cursor_cache (RyxPointerMonitor *monitor)
{
  return private_of (monitor)->cursor_cache;
}

void
ryx_pointer_monitor_emit_cursor_moved (RyxPointerMonitor *monitor, guint32 x, guint32 y)
{
  g_signal_emit (monitor, signals[SIGNAL_CURSOR_MOVED], 0, x, y);
}

void
ryx_pointer_monitor_emit_cursor_changed (RyxPointerMonitor *monitor, RyxCursor *cursor, gboolean was_cached,
                                         guint64 evicted_cursor)
{
  g_signal_emit (monitor, signals[SIGNAL_CURSOR_CHANGED], 0, cursor, was_cached, evicted_cursor);
}

void
ryx_pointer_monitor_emit_cursor_retrieved (RyxPointerMonitor *monitor, RyxCursor *cursor)
{
  g_signal_emit (monitor, signals[SIGNAL_CURSOR_RETRIEVED], 0, cursor);
}

void
ryx_pointer_monitor_emit_cursor_cache_invalidated (RyxPointerMonitor *monitor)
{
  ryx_cursor_cache_clear (private_of (monitor)->cursor_cache);
  g_signal_emit (monitor, signals[SIGNAL_CURSOR_CACHE_INVALIDATED], 0);
}
