#define G_LOG_DOMAIN "RYX:x11:cursor"

#include "pointermonitorxcb.h"

#include <array>
#include <type_traits>
#include <xcb/xfixes.h>

#include "gdkdisplay.h"
#include "xcbreply.h"

static const guint cursor_update_interval_ms = 40;

struct _RyxPointerMonitorXcb
{
  RyxPointerMonitor parent_instance;

  guint cursor_update_timeout; /* 0: no timer is installed */
  gboolean xfixes_supported;   /* as the latest start found it */
  gboolean cursor_hidden;      /* a spell of hidden cursors is logged once */
};

/* GObject zero-fills instances and frees them: no C++ constructor or destructor would run. */
static_assert (std::is_trivial_v<RyxPointerMonitorXcb>);

G_DEFINE_DYNAMIC_TYPE (RyxPointerMonitorXcb, ryx_pointer_monitor_xcb, RYX_TYPE_POINTER_MONITOR)

static xcb_connection_t *
get_xcb_connection_or_warn (void)
{
  xcb_connection_t *conn = get_xcb_connection ();

  if (!conn)
    g_warning (get_default_xdisplay () ? "Could not get XCB connection" : "Could not get X11 Display connection");
  return conn;
}

static RyxCursorCache *
get_cursor_cache (RyxPointerMonitorXcb *monitor)
{
  RyxCursorCache *cursor_cache = ryx_pointer_monitor_get_cursor_cache (RYX_POINTER_MONITOR (monitor));

  g_assert (cursor_cache != NULL);
  return cursor_cache;
}

/* 255 / alpha in 16.16 fixed point, rounded up; without alpha 1, which leaves the colour alone. */
static constexpr std::array<guint32, 256> unpremultiply_scales = [] {
  std::array<guint32, 256> scales = { 1 << 16 };

  for (guint32 alpha = 1; alpha < 256; alpha++)
    scales[alpha] = ((255u << 16) + alpha - 1) / alpha;
  return scales;
}();

static constexpr bool
are_scales_exact ()
{
  for (guint32 alpha = 1; alpha < 256; alpha++)
    for (guint32 component = 0; component < 256; component++)
      if (component * unpremultiply_scales[alpha] >> 16 != component * 255 / alpha)
        return false;
  return true;
}

static_assert (are_scales_exact (), "a product is off or does not fit 32 bits");

static guint32
unpremultiply (guint32 pixel)
{
  const guint32 scale = unpremultiply_scales[pixel >> 24];
  const auto scaled = [=] (int shift) { return (((pixel >> shift & 0xff) * scale >> 16) & 0xff) << shift; };

  return (pixel & 0xff000000) | scaled (16) | scaled (8) | scaled (0);
}

/* Bytes A, R, G, B per pixel; free with g_free (). */
static guint32 *
cursor_image_pixels_to_argb (guint16 width, guint16 height, const guint32 *pixels)
{
  const gsize n_pixels = gsize (width) * height;
  guint32 *argb = g_new (guint32, n_pixels);

  for (gsize i = 0; i < n_pixels; i++)
    argb[i] = GUINT32_TO_BE (unpremultiply (pixels[i]));
  return argb;
}

/* NULL when the reply is shorter than the image that it announces. */
static const guint32 *
get_pixels (const xcb_xfixes_get_cursor_image_reply_t *image)
{
  const gsize n_pixels = gsize (image->width) * image->height;

  return image->length >= n_pixels ? xcb_xfixes_get_cursor_image_cursor_image (image) : nullptr;
}

static gboolean
is_hidden (const xcb_xfixes_get_cursor_image_reply_t *image)
{
  return image->xhot >= image->width || image->yhot >= image->height;
}

static void
note_hidden_cursor (RyxPointerMonitorXcb *monitor, const xcb_xfixes_get_cursor_image_reply_t *image)
{
  if (monitor->cursor_hidden)
    return;

  g_debug ("Cursor hidden: serial %u, size %u, %u, hotspot %ux%u", image->cursor_serial, image->width, image->height,
           image->xhot, image->yhot);
  monitor->cursor_hidden = TRUE;
}

static RyxCursor *
create_cursor (const xcb_xfixes_get_cursor_image_reply_t *image, const guint32 *pixels)
{
  guint32 *argb = cursor_image_pixels_to_argb (image->width, image->height, pixels);
  g_autoptr (GBytes) bytes = g_bytes_new_take (argb, gsize (image->width) * image->height * sizeof *argb);

  return ryx_cursor_new (image->cursor_serial, image->width, image->height, image->xhot, image->yhot, bytes);
}

/* A reference to the cursor that is shown; NULL when there is nothing to report. */
static RyxCursor *
get_cursor_from_cursor_image (RyxPointerMonitorXcb *monitor, const xcb_xfixes_get_cursor_image_reply_t *image,
                              gboolean *was_cached, guint64 *evicted_cursor)
{
  RyxCursorCache *cursor_cache = get_cursor_cache (monitor);

  *was_cached = FALSE;
  *evicted_cursor = 0;
  if (RyxCursor *known = ryx_cursor_cache_get (cursor_cache, image->cursor_serial))
    {
      monitor->cursor_hidden = FALSE;
      return ryx_cursor_ref (known);
    }

  if (is_hidden (image))
    {
      note_hidden_cursor (monitor, image);
      return nullptr;
    }

  const guint32 *pixels = get_pixels (image);
  if (!pixels)
    {
      g_warning ("Cannot get cursor pixels");
      return nullptr;
    }

  g_debug ("Cache miss for cursor: serial %u, size %u, %u, hotspot %ux%u", image->cursor_serial, image->width,
           image->height, image->xhot, image->yhot);
  RyxCursor *cursor = create_cursor (image, pixels);
  if (cursor)
    *evicted_cursor = ryx_cursor_cache_add (cursor_cache, cursor);
  *was_cached = TRUE;
  monitor->cursor_hidden = FALSE;
  return cursor;
}

static void
report_cursor_image (RyxPointerMonitorXcb *monitor, const xcb_xfixes_get_cursor_image_reply_t *image)
{
  gboolean was_cached;
  guint64 evicted_cursor;
  g_autoptr (RyxCursor) cursor = get_cursor_from_cursor_image (monitor, image, &was_cached, &evicted_cursor);
  if (!cursor)
    return;

  /* A listener may let go of the last reference but this one. */
  g_autoptr (RyxPointerMonitor) base = RYX_POINTER_MONITOR (g_object_ref (monitor));
  ryx_pointer_monitor_emit_cursor_moved (base, MAX (image->x, 0), MAX (image->y, 0));
  ryx_pointer_monitor_emit_cursor_changed (base, cursor, was_cached, evicted_cursor);
}

static gboolean
cursor_update_timeout (gpointer user_data)
{
  auto *monitor = static_cast<RyxPointerMonitorXcb *> (user_data);
  xcb_connection_t *conn = monitor->xfixes_supported ? get_xcb_connection_or_warn () : nullptr;

  if (!conn)
    {
      monitor->cursor_update_timeout = 0;
      return G_SOURCE_REMOVE;
    }

  auto [image, x_error] = await_reply (conn, xcb_xfixes_get_cursor_image (conn), xcb_xfixes_get_cursor_image_reply);
  if (image && image->cursor_serial == 0)
    g_debug ("Cursor serial for cursor image is 0, continuing");
  else if (image)
    report_cursor_image (monitor, image.get ());
  else if (x_error)
    g_warning ("Cannot get cursor image (response_type: %u error_code: %u)", response_type_of (x_error),
               error_code_of (x_error));
  else
    g_warning ("Cannot get cursor image");
  return G_SOURCE_CONTINUE;
}

static void
ryx_pointer_monitor_xcb_start (RyxPointerMonitor *base)
{
  RyxPointerMonitorXcb *monitor = RYX_POINTER_MONITOR_XCB (base);

  g_info ("Starting XCB pointer monitor");
  xcb_connection_t *conn = get_xcb_connection_or_warn ();
  if (!conn)
    return;

  /* Which version to speak was settled by GDK when it opened the display. */
  monitor->xfixes_supported = find_extension (conn, &xcb_xfixes_id) != nullptr;
  if (monitor->xfixes_supported)
    g_debug ("XFIXES extension is supported");
  else
    g_warning ("XFIXES extension not supported");

  ryx_pointer_monitor_emit_cursor_cache_invalidated (base);
  monitor->cursor_update_timeout = g_timeout_add (cursor_update_interval_ms, cursor_update_timeout, monitor);
}

static void
remove_timer (RyxPointerMonitorXcb *monitor)
{
  g_clear_handle_id (&monitor->cursor_update_timeout, g_source_remove);
}

static void
ryx_pointer_monitor_xcb_stop (RyxPointerMonitor *base)
{
  g_info ("Stopping XCB pointer monitor");
  remove_timer (RYX_POINTER_MONITOR_XCB (base));
}

static void
ryx_pointer_monitor_xcb_require_cursor (RyxPointerMonitor *base, guint64 cursor_id)
{
  RyxCursor *cursor = ryx_cursor_cache_get (get_cursor_cache (RYX_POINTER_MONITOR_XCB (base)), cursor_id);

  if (cursor)
    ryx_pointer_monitor_emit_cursor_retrieved (base, cursor);
  else
    g_info ("Cursor %" G_GUINT64_FORMAT " not available in the cursor cache, ignoring require", cursor_id);
}

static void
ryx_pointer_monitor_xcb_dispose (GObject *object)
{
  remove_timer (RYX_POINTER_MONITOR_XCB (object));
  G_OBJECT_CLASS (ryx_pointer_monitor_xcb_parent_class)->dispose (object);
}

static void
ryx_pointer_monitor_xcb_class_init (RyxPointerMonitorXcbClass *klass)
{
  RyxPointerMonitorClass *monitor_class = RYX_POINTER_MONITOR_CLASS (klass);

  G_OBJECT_CLASS (klass)->dispose = ryx_pointer_monitor_xcb_dispose;
  monitor_class->start = ryx_pointer_monitor_xcb_start;
  monitor_class->stop = ryx_pointer_monitor_xcb_stop;
  monitor_class->require_cursor = ryx_pointer_monitor_xcb_require_cursor;
}

static void
ryx_pointer_monitor_xcb_class_finalize (RyxPointerMonitorXcbClass *)
{
}

static void
ryx_pointer_monitor_xcb_init (RyxPointerMonitorXcb *)
{
}

void
ryx_pointer_monitor_xcb_register (GIOModule *module)
{
  ryx_pointer_monitor_xcb_register_type (G_TYPE_MODULE (module));
}
