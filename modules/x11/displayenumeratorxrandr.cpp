#define G_LOG_DOMAIN "RYX:x11:display"

#include "displayenumeratorxrandr.h"

#include <type_traits>
#include <xcb/randr.h>

#include "gdkdisplay.h"
#include "xcbreply.h"

struct _RyxDisplayEnumeratorXrandr
{
  GObject parent_instance;

  gboolean use_randr; /* decided once, when the instance is made */
};

static_assert (std::is_trivial_v<RyxDisplayEnumeratorXrandr>);

/* One output that shows a part of the screen. */
struct DisplayInfo
{
  guint width;
  guint height;
  gchar *display_name;
  gint x;
  gint y;
  gboolean primary;
  guint32 output_id;
};

static void ryx_display_enumerator_xrandr_iface_init (RyxDisplayEnumeratorInterface *iface);
static void ryx_display_enumerator_xrandr_initable_iface_init (GInitableIface *iface);

G_DEFINE_DYNAMIC_TYPE_EXTENDED (
  RyxDisplayEnumeratorXrandr, ryx_display_enumerator_xrandr, G_TYPE_OBJECT, static_cast<GTypeFlags> (0),
  G_IMPLEMENT_INTERFACE (RYX_TYPE_DISPLAY_ENUMERATOR, ryx_display_enumerator_xrandr_iface_init)
    G_IMPLEMENT_INTERFACE (G_TYPE_INITABLE, ryx_display_enumerator_xrandr_initable_iface_init))

static gboolean
probe_randr (xcb_connection_t *conn)
{
  g_autoptr (GError) error = nullptr;

  if (require_randr_1_2 (conn, &error))
    return TRUE;

  g_warning ("%s", error->message);
  return FALSE;
}

static void
add_display_info (xcb_connection_t *conn, const xcb_randr_get_crtc_info_reply_t *crtc, xcb_randr_output_t output,
                  GArray *displays)
{
  auto output_info = await_reply (conn, xcb_randr_get_output_info (conn, output, 0), xcb_randr_get_output_info_reply);
  if (!output_info.reply)
    {
      g_debug ("No information about output 0x%x, skipping it", output);
      return;
    }

  g_autofree gchar *name = get_output_name (output_info.reply.get ());
  g_debug ("Detected output 0x%x %s (%d,%d %ux%u)", output, name, crtc->x, crtc->y, crtc->width, crtc->height);

  const DisplayInfo display = {
    .width = crtc->width,
    .height = crtc->height,
    .display_name = g_strdup_printf ("OUTPUT-%d", static_cast<gint> (output)),
    .x = crtc->x,
    .y = crtc->y,
    .primary = FALSE,
    .output_id = output,
  };
  g_array_append_val (displays, display);
}

static void
clear_display_info (gpointer display)
{
  g_free (static_cast<DisplayInfo *> (display)->display_name);
}

/* Heads are told in coordinates from 0 on: what lies left of or above the origin moves all of them. */
static void
add_heads (const GArray *displays, GPtrArray *heads)
{
  gint x_offset = 0, y_offset = 0;

  for (guint i = 0; i < displays->len; i++)
    {
      const auto &display = g_array_index (displays, DisplayInfo, i);
      x_offset = MIN (x_offset, display.x);
      y_offset = MIN (y_offset, display.y);
    }

  for (guint i = 0; i < displays->len; i++)
    {
      const auto &display = g_array_index (displays, DisplayInfo, i);
      const RyxRect rect = { static_cast<guint32> (display.x - x_offset), static_cast<guint32> (display.y - y_offset),
                             display.width, display.height };
      RyxDisplayHead *head = ryx_display_head_new (display.display_name, &rect, display.primary);

      ryx_display_head_set_output_id (head, display.output_id);
      g_ptr_array_add (heads, head);
    }
}

static gboolean
add_output_heads (xcb_connection_t *conn, xcb_window_t root, GPtrArray *heads, GError **error)
{
  auto [resources, x_error]
    = await_reply (conn, xcb_randr_get_screen_resources (conn, root), xcb_randr_get_screen_resources_reply);
  if (!resources)
    return set_x_error (error, G_IO_ERROR, G_IO_ERROR_FAILED, x_error, "Failed to get screen resources");

  const auto crtcs = get_crtcs (resources.get ());
  g_debug ("Detected %u CRTCs", static_cast<guint> (crtcs.size ()));

  g_autoptr (GArray) displays = g_array_new (FALSE, FALSE, sizeof (DisplayInfo));
  g_array_set_clear_func (displays, clear_display_info);

  for (const xcb_randr_crtc_t id : crtcs)
    {
      auto crtc = await_reply (conn, xcb_randr_get_crtc_info (conn, id, 0), xcb_randr_get_crtc_info_reply).reply;
      if (!crtc)
        continue;

      for (const xcb_randr_output_t output : get_crtc_outputs (crtc.get ()))
        add_display_info (conn, crtc.get (), output, displays);
    }

  add_heads (displays, heads);
  return TRUE;
}

static gboolean
add_screen_head (xcb_connection_t *conn, xcb_window_t root, GPtrArray *heads, GError **error)
{
  auto [geometry, x_error] = await_reply (conn, xcb_get_geometry (conn, root), xcb_get_geometry_reply);
  if (!geometry)
    return set_x_error (error, G_IO_ERROR, G_IO_ERROR_FAILED, x_error, "Cannot get screen geometry");

  const RyxRect rect = { 0, 0, geometry->width, geometry->height };
  g_ptr_array_add (heads, ryx_display_head_new ("SCREEN", &rect, FALSE));
  return TRUE;
}

static RyxDisplayLayout *
ryx_display_enumerator_xrandr_get_display_layout (RyxDisplayEnumerator *object, GError **error)
{
  const auto *enumerator = RYX_DISPLAY_ENUMERATOR_XRANDR (object);
  xcb_connection_t *conn = get_xcb_connection ();
  xcb_screen_t *screen = conn ? get_screen (conn, gdk_screen_get_number (gdk_screen_get_default ())) : nullptr;

  if (!screen)
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "Could not get the screen");
      return nullptr;
    }

  g_autoptr (GPtrArray) heads
    = g_ptr_array_new_with_free_func (reinterpret_cast<GDestroyNotify> (ryx_display_head_unref));

  if (enumerator->use_randr && !add_output_heads (conn, screen->root, heads, error))
    return nullptr;
  if (heads->len == 0 && !add_screen_head (conn, screen->root, heads, error))
    return nullptr;
  if (heads->len == 0)
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "Unable to enumerate monitors");
      return nullptr;
    }

  return ryx_display_layout_new (heads->len, reinterpret_cast<RyxDisplayHead **> (heads->pdata));
}

static void
ryx_display_enumerator_xrandr_log_gpu_adapter_list (RyxDisplayEnumerator *)
{
}

static gboolean
ryx_display_enumerator_xrandr_initable_init (GInitable *, GCancellable *, GError **)
{
  return TRUE;
}

static void
ryx_display_enumerator_xrandr_iface_init (RyxDisplayEnumeratorInterface *iface)
{
  iface->get_display_layout = ryx_display_enumerator_xrandr_get_display_layout;
  iface->log_gpu_adapter_list = ryx_display_enumerator_xrandr_log_gpu_adapter_list;
}

static void
ryx_display_enumerator_xrandr_initable_iface_init (GInitableIface *iface)
{
  iface->init = ryx_display_enumerator_xrandr_initable_init;
}

static void
ryx_display_enumerator_xrandr_class_init (RyxDisplayEnumeratorXrandrClass *)
{
}

static void
ryx_display_enumerator_xrandr_class_finalize (RyxDisplayEnumeratorXrandrClass *)
{
}

static void
ryx_display_enumerator_xrandr_init (RyxDisplayEnumeratorXrandr *enumerator)
{
  enumerator->use_randr = probe_randr (get_xcb_connection ());
}

void
ryx_display_enumerator_xrandr_register (GIOModule *module)
{
  ryx_display_enumerator_xrandr_register_type (G_TYPE_MODULE (module));
}
