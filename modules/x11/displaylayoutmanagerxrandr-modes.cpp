#define G_LOG_DOMAIN "RYX:x11:display"

#include "displaylayoutmanagerxrandr-private.h"

#include <locale.h>
#include <stdio.h>
#include <string.h>

#include "cvt.h"

/* Marks the modes that this module made. They name their output, and serve no other. */
#define OWN_MODE_SUFFIX "_ryx"
#define OWN_MODE_FORMAT "%ux%u_%f-%u" OWN_MODE_SUFFIX

/* The names stand in one block, one after another and not terminated. */
std::vector<NamedMode>
get_named_modes (const ScreenResources *screen_resources_r)
{
  auto names = get_list (screen_resources_r, xcb_randr_get_screen_resources_names (screen_resources_r),
                         screen_resources_r->names_len);
  std::vector<NamedMode> modes;

  for (const xcb_randr_mode_info_t &info : get_modes (screen_resources_r))
    {
      const auto name = names.first (std::min<size_t> (info.name_len, names.size ()));

      modes.push_back ({ &info, std::string (name.begin (), name.end ()) });
      names = names.subspan (name.size ());
    }
  return modes;
}

gboolean
is_in_use (uint32_t mode_id, std::span<const PhysicalMonitorInfo> monitors)
{
  return std::any_of (monitors.begin (), monitors.end (), [=] (const PhysicalMonitorInfo &monitor) {
    return mode_id == monitor.mode_id || mode_id == monitor.fallback_mode_id;
  });
}

/* Modes outlive the session that made them, and its language: their names have a decimal point in any locale. */
class CLocale
{
public:
  CLocale () : previous (uselocale (get ())) {}
  ~CLocale () { uselocale (previous); }
  CLocale (const CLocale &) = delete;
  CLocale &operator= (const CLocale &) = delete;

private:
  static locale_t
  get (void)
  {
    static const locale_t locale = newlocale (LC_ALL_MASK, "C", nullptr);
    return locale;
  }

  const locale_t previous;
};

static gchar *
create_mode_name (const DisplayModeRec *mode, xcb_randr_output_t output)
{
  const CLocale c_locale;

  return g_strdup_printf (OWN_MODE_FORMAT, mode->HDisplay, mode->VDisplay, mode->VRefresh, output);
}

static gboolean
parse_mode_name (const gchar *mode_name, xcb_randr_output_t *output)
{
  const CLocale c_locale;
  guint width, height, output_id;
  float refresh;

  if (sscanf (mode_name, OWN_MODE_FORMAT, &width, &height, &refresh, &output_id) != 4)
    return FALSE;

  *output = output_id;
  return TRUE;
}

static gboolean
is_own_mode (const NamedMode &mode)
{
  return g_str_has_suffix (mode.name.c_str (), OWN_MODE_SUFFIX);
}

/* An own mode belongs to the output that it names, whether or not that output lists it. */
static gboolean
belongs_to_output (const NamedMode &mode, xcb_randr_output_t output, std::span<const xcb_randr_mode_t> output_modes)
{
  xcb_randr_output_t named_output = XCB_NONE;

  if (!is_own_mode (mode))
    return contains (output_modes, mode.info->id);

  if (!parse_mode_name (mode.name.c_str (), &named_output))
    g_info ("Cannot parse mode name %s", mode.name.c_str ());
  return named_output == output;
}

/* In Hz; 0 for the modes of servers that have no timings. */
static float
get_refresh (const xcb_randr_mode_info_t *mode)
{
  const float n_pixels = static_cast<float> (mode->htotal) * mode->vtotal;

  return n_pixels > 0 ? mode->dot_clock / n_pixels : 0;
}

/* A mode serves at most one CRTC of a layout: those of the earlier monitors are passed over. */
ModeMatch
find_mode (std::span<const NamedMode> modes, const ModeTarget &target, std::span<const xcb_randr_mode_t> output_modes,
           std::span<const PhysicalMonitorInfo> earlier)
{
  ModeMatch match = {};
  uint32_t fallback_area = 0;

  for (const NamedMode &mode : modes)
    {
      const uint32_t id = mode.info->id, width = mode.info->width, height = mode.info->height;

      if (!belongs_to_output (mode, target.randr_output, output_modes))
        continue;
      g_debug ("Detected mode %d %ux%u@%.2f %s for output %u", id, width, height, get_refresh (mode.info),
               mode.name.c_str (), target.randr_output);
      if (is_in_use (id, earlier))
        continue;

      if (width == target.width && height == target.height)
        {
          g_info ("Reusing mode %u for CRTC %u", id, target.randr_crtc);
          match.mode_id = id;
          break;
        }
      if (!is_own_mode (mode) && width <= target.width && height <= target.height && width * height > fallback_area)
        {
          match.fallback_mode_id = id;
          fallback_area = width * height;
        }
    }
  return match;
}

static xcb_randr_mode_info_t
get_mode_info (const DisplayModeRec *mode, const gchar *name)
{
  xcb_randr_mode_info_t info = {};

  info.width = mode->HDisplay;
  info.height = mode->VDisplay;
  info.dot_clock = mode->Clock * 1000;
  info.hsync_start = mode->HSyncStart;
  info.hsync_end = mode->HSyncEnd;
  info.htotal = mode->HTotal;
  info.hskew = mode->HSkew;
  info.vsync_start = mode->VSyncStart;
  info.vsync_end = mode->VSyncEnd;
  info.vtotal = mode->VTotal;
  info.name_len = strlen (name);
  info.mode_flags = mode->Flags;
  return info;
}

/* Creates a mode and adds it to its output. A failure is logged only: there may be a mode to fall back to. */
gboolean
create_mode (xcb_connection_t *conn, const xcb_screen_t *screen, const ModeTarget &target, uint32_t *mode_id)
{
  g_autofree DisplayModePtr mode = xf86CVTMode (target.width, target.height, 0.0f, FALSE, FALSE);
  g_autofree gchar *name = create_mode_name (mode, target.randr_output);
  const xcb_randr_mode_info_t info = get_mode_info (mode, name);
  const float refresh = get_refresh (&info);

  if (refresh < 10.0f || refresh > 1000.0f)
    g_warning ("Refresh rate has an anormal value: %f Hz", refresh);

  const auto [reply, create_error] = await_reply (
    conn, xcb_randr_create_mode (conn, screen->root, info, info.name_len, name), xcb_randr_create_mode_reply);
  if (!reply)
    {
      g_warning ("Failed to create mode %s for CRTC %u (response_type: %u error_code: %u)", name, target.randr_crtc,
                 response_type_of (create_error), error_code_of (create_error));
      return FALSE;
    }

  const XcbError add_error
    = await_check (conn, xcb_randr_add_output_mode_checked (conn, target.randr_output, reply->mode));
  if (add_error)
    {
      g_warning ("Failed to add output mode %s for CRTC %u (response_type: %u error_code: %u)", name, target.randr_crtc,
                 response_type_of (add_error), error_code_of (add_error));
      return FALSE;
    }

  g_info ("Added new mode %s, id %u for CRTC %u", name, reply->mode, target.randr_crtc);
  *mode_id = reply->mode;
  return TRUE;
}

static gboolean
delete_mode (xcb_connection_t *conn, const NamedMode &mode, GError **error)
{
  const gchar *name = mode.name.c_str ();
  xcb_randr_output_t output;

  g_debug ("Deleting mode %u %s", mode.info->id, name);
  if (!parse_mode_name (name, &output))
    {
      g_set_error (error, GENERIC_ERROR, "Cannot parse mode name %s", name);
      return FALSE;
    }

  if (const auto x_error = await_check (conn, xcb_randr_delete_output_mode_checked (conn, output, mode.info->id)))
    return set_x_error (error, GENERIC_ERROR, x_error, "Failed to remove mode %s from output %u", name, output);
  if (const auto x_error = await_check (conn, xcb_randr_destroy_mode_checked (conn, mode.info->id)))
    return set_x_error (error, GENERIC_ERROR, x_error, "Failed to delete mode %s", name);
  return TRUE;
}

gboolean
delete_old_modes (xcb_connection_t *conn, const ScreenResources *screen_resources_r,
                  std::span<const PhysicalMonitorInfo> desired_layout, GError **error)
{
  for (const NamedMode &mode : get_named_modes (screen_resources_r))
    if (is_own_mode (mode) && !is_in_use (mode.info->id, desired_layout) && !delete_mode (conn, mode, error))
      return FALSE;
  return TRUE;
}
