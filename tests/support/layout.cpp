#include "layout.h"

#include "capture.h"

#include <algorithm>
#include <map>
#include <span>

#include <gtest/gtest.h>
#include <xcb/randr.h>

#define LIST(what, reply) std::span (xcb_randr_get_##what (reply.get ()), xcb_randr_get_##what##_length (reply.get ()))

std::string
replace_all (std::string text, const std::string &from, const std::string &to)
{
  for (size_t at = 0; (at = text.find (from, at)) != std::string::npos; at += to.size ())
    text.replace (at, from.size (), to);
  return text;
}

static std::string
describe_layout (RyxDisplayLayout *layout)
{
  guint32 n_heads;
  RyxDisplayHead **heads = ryx_display_layout_get_heads (layout, &n_heads);
  std::string text;

  for (guint32 i = 0; i < n_heads; i++)
    {
      RyxRect rect;
      ryx_display_head_get_rect (heads[i], &rect);
      g_autofree gchar *head
        = g_strdup_printf ("%s:%u %ux%u+%u+%u", ryx_display_head_get_name (heads[i]),
                           ryx_display_head_get_output_id (heads[i]), rect.width, rect.height, rect.x, rect.y);
      text += (text.empty () ? "" : ", ") + std::string (head);
      EXPECT_FALSE (ryx_display_head_get_primary (heads[i]));
    }
  return text;
}

std::string
enumerate_heads ()
{
  load_module ();
  g_autoptr (GError) error = nullptr;
  g_autoptr (GObject) enumerator
    = G_OBJECT (ryx_host_create (RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT, "displayenumeratorxrandr", nullptr, nullptr));
  g_autoptr (RyxDisplayLayout) layout
    = ryx_display_enumerator_get_display_layout (RYX_DISPLAY_ENUMERATOR (enumerator), &error);

  EXPECT_TRUE (G_IS_INITABLE (enumerator));
  ryx_display_enumerator_log_gpu_adapter_list (RYX_DISPLAY_ENUMERATOR (enumerator)); /* there are none to tell of */
  EXPECT_TRUE (layout || error->domain == G_IO_ERROR);
  return layout ? describe_layout (layout) : error->message;
}

static std::vector<RyxRect>
parse_geometries (const char *geometries)
{
  std::vector<RyxRect> rects;
  int width, height, x, y, length;

  for (; sscanf (geometries, " %dx%d%d%d%n", &width, &height, &x, &y, &length) == 4; geometries += length)
    rects.push_back ({ guint (x), guint (y), guint (width), guint (height) });
  return rects;
}

std::string
request_layout (const char *geometries)
{
  g_autoptr (GError) error = nullptr;
  std::vector<RyxDisplayHead *> heads;

  load_module ();
  for (const RyxRect &rect : parse_geometries (geometries))
    heads.push_back (ryx_display_head_new ("head", &rect, FALSE));
  g_autoptr (RyxDisplayLayout) layout = ryx_display_layout_new (heads.size (), heads.data ());
  std::for_each (heads.begin (), heads.end (), ryx_display_head_unref);

  g_autoptr (RyxDisplayLayoutManager) manager = static_cast<RyxDisplayLayoutManager *> (
    ryx_host_create (RYX_DISPLAY_LAYOUT_MANAGER_EXTENSION_POINT, nullptr, &error, nullptr));
  const bool applied = manager && ryx_display_layout_manager_request_layout (manager, layout, &error);
  EXPECT_EQ (applied, error == nullptr);
  return error ? error->message : "";
}

template <typename... Values>
static std::string
text (const char *format, Values... values)
{
  g_autofree gchar *formatted = g_strdup_printf (format, values...);
  return formatted;
}

/* With the name of each, which stand in one block. */
template <typename Visit>
static void
for_each_mode (const XOwned<xcb_randr_get_screen_resources_current_reply_t> &screen, Visit visit)
{
  auto name = reinterpret_cast<const char *> (xcb_randr_get_screen_resources_current_names (screen.get ()));

  for (const auto &mode : LIST (screen_resources_current_modes, screen))
    {
      visit (mode, std::string (name, mode.name_len));
      name += mode.name_len;
    }
}

bool
LayoutObserver::look ()
{
  if (!client.round_trip ())
    return false;

  const auto size = X_REPLY (client.conn, get_geometry, client.root);
  const auto screen = X_REPLY (client.conn, randr_get_screen_resources_current, client.root);
  if (!size || !screen)
    return false;

  std::map<uint32_t, std::string> names, outputs_of_modes;
  for (const auto id : LIST (screen_resources_current_outputs, screen))
    {
      const auto output = X_REPLY (client.conn, randr_get_output_info, id, 0);
      if (!output)
        return false;
      for (const auto letter : LIST (output_info_name, output))
        names[id] += letter;
      for (const auto mode : LIST (output_info_modes, output))
        outputs_of_modes[mode] += "@" + names[id];
    }

  heads = text ("%ux%u:", size->width, size->height);
  mode_ids = own_modes = "";
  for (const auto id : LIST (screen_resources_current_crtcs, screen))
    {
      const auto crtc = X_REPLY (client.conn, randr_get_crtc_info, id, 0);
      if (!crtc)
        return false;
      for (const auto output : LIST (crtc_info_outputs, crtc))
        heads += text ("%s %s %ux%u%+d%+d", heads.ends_with (":") ? "" : ",", names[output].c_str (), crtc->width,
                       crtc->height, crtc->x, crtc->y);
      mode_ids += text (" %u", crtc->mode);
    }

  for_each_mode (screen, [&] (const auto &mode, const std::string &name) {
    if (name.ends_with ("_ryx"))
      own_modes += name + outputs_of_modes[mode.id]
                   + text (" %u: %u %u %u, %u %u %u, %u\n", mode.dot_clock, mode.hsync_start, mode.hsync_end,
                           mode.htotal, mode.vsync_start, mode.vsync_end, mode.vtotal, mode.mode_flags);
  });
  return true;
}

void
LayoutObserver::arrange (const char *geometries)
{
  const auto screen = X_REPLY (client.conn, randr_get_screen_resources_current, client.root);
  const auto crtcs = LIST (screen_resources_current_crtcs, screen);
  const auto outputs = LIST (screen_resources_current_outputs, screen);
  const std::vector<RyxRect> rects = parse_geometries (geometries);
  const auto set_crtc = [&] (size_t i, const RyxRect &rect, uint32_t mode, uint32_t n_outputs) {
    X_REPLY (client.conn, randr_set_crtc_config, crtcs[i], 0, 0, rect.x, rect.y, mode, XCB_RANDR_ROTATION_ROTATE_0,
             n_outputs, &outputs[i]);
  };
  RyxRect box = {};

  xcb_grab_server (client.conn); /* who looks in between sees no monitor, and GDK loses a list then */
  for (size_t i = 0; i < crtcs.size (); i++)
    set_crtc (i, {}, XCB_NONE, 0);
  for (const RyxRect &rect : rects)
    ryx_rect_union (&box, &rect, &box);
  xcb_randr_set_screen_size (client.conn, client.root, box.width, box.height, box.width / 4, box.height / 4);

  std::map<std::pair<guint32, guint32>, uint32_t> modes;
  for_each_mode (screen, [&] (const auto &mode, const std::string &name) {
    if (!name.ends_with ("_ryx"))
      modes.emplace (std::pair (mode.width, mode.height), mode.id);
    for (size_t i = 0; name.ends_with ("_ryx") && i < outputs.size (); i++)
      xcb_randr_delete_output_mode (client.conn, outputs[i], mode.id);
    if (name.ends_with ("_ryx"))
      xcb_randr_destroy_mode (client.conn, mode.id);
  });
  for (size_t i = 0; i < rects.size (); i++)
    set_crtc (i, rects[i], modes.at ({ rects[i].width, rects[i].height }), 1);
  xcb_ungrab_server (client.conn);
  client.round_trip ();
}
