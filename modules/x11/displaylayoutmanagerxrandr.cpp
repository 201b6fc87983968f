#define G_LOG_DOMAIN "RYX:x11:display"

#include "displaylayoutmanagerxrandr-private.h"

#include <utility>

#include "gdkdisplay.h"

static const uint32_t min_screen_width = 640;
static const uint32_t min_screen_height = 480;
static const uint32_t max_head_size = 4096; /* in each direction */
static const uint32_t size_granularity = 8;
static const double millimetres_per_inch = 25.4;
static const double assumed_dpi = 96.0;

struct _RyxDisplayLayoutManagerXrandr
{
  RyxDisplayLayoutManager parent_instance;
};

/* GObject zero-fills instances and frees them: no C++ constructor or destructor would run. */
static_assert (std::is_trivial_v<RyxDisplayLayoutManagerXrandr>);

static void ryx_display_layout_manager_xrandr_initable_iface_init (GInitableIface *iface);

G_DEFINE_DYNAMIC_TYPE_EXTENDED (RyxDisplayLayoutManagerXrandr, ryx_display_layout_manager_xrandr,
                                RYX_TYPE_DISPLAY_LAYOUT_MANAGER, 0,
                                G_IMPLEMENT_INTERFACE_DYNAMIC (G_TYPE_INITABLE,
                                                               ryx_display_layout_manager_xrandr_initable_iface_init))

/* One request, from the grab of the server to its release. */
struct LayoutRequest
{
  xcb_connection_t *conn;
  std::span<RyxDisplayHead *const> heads;
  xcb_screen_t *screen;

  XcbReply<ScreenResources> screen_resources_r;
  std::span<const xcb_randr_crtc_t> randr_crtcs; /* in screen_resources_r */
  guint num_monitors;

  RyxRect rollback_size; /* 0x0: unknown */
  gboolean has_rollback_list;
  std::vector<PhysicalMonitorInfo> rollback_list;
  gboolean enable_rollback; /* what is on the screen is no longer what the user had */

  std::vector<PhysicalMonitorInfo> desired_list;
  RyxRect screen_rect; /* around the desired monitors */
};

/* Asking and telling the server */

static std::span<const xcb_randr_output_t>
get_outputs (const ScreenResources *screen_resources_r)
{
  return get_list (screen_resources_r, xcb_randr_get_screen_resources_outputs (screen_resources_r),
                   screen_resources_r->num_outputs);
}

static std::span<const xcb_randr_mode_t>
get_output_modes (const OutputInfo *output_info_r)
{
  return get_list (output_info_r, xcb_randr_get_output_info_modes (output_info_r), output_info_r->num_modes);
}

static XcbReply<CrtcInfo>
get_crtc_info (xcb_connection_t *conn, xcb_randr_crtc_t randr_crtc, const gchar *purpose, GError **error)
{
  auto [reply, x_error]
    = await_reply (conn, xcb_randr_get_crtc_info (conn, randr_crtc, XCB_CURRENT_TIME), xcb_randr_get_crtc_info_reply);

  if (!reply)
    set_x_error (error, GENERIC_ERROR, x_error, "Failed to get CRTC info for CRTC %u%s", randr_crtc, purpose);
  return std::move (reply);
}

static XcbReply<OutputInfo>
get_output_info (xcb_connection_t *conn, xcb_randr_output_t randr_output)
{
  auto [reply, x_error] = await_reply (conn, xcb_randr_get_output_info (conn, randr_output, XCB_CURRENT_TIME),
                                       xcb_randr_get_output_info_reply);

  if (!reply)
    g_debug ("Cannot get output info for output %u, skipping it (response_type: %u error_code: %u)", randr_output,
             response_type_of (x_error), error_code_of (x_error));
  return std::move (reply);
}

static gboolean
get_number_of_monitors (xcb_connection_t *conn, const ScreenResources *screen_resources_r, guint *num_monitors,
                        GError **error)
{
  guint n_linked = 0;

  for (const xcb_randr_crtc_t randr_crtc : get_crtcs (screen_resources_r))
    {
      const auto crtc_info_r = get_crtc_info (conn, randr_crtc, "", error);
      if (!crtc_info_r)
        return FALSE;

      const guint n_outputs = get_crtc_outputs (crtc_info_r.get ()).size ();
      g_debug ("Detected CRTC %u with %u linked outputs", randr_crtc, n_outputs);
      if (n_outputs > 0)
        n_linked++;
    }

  if (num_monitors)
    *num_monitors = n_linked;
  return TRUE;
}

static gboolean
disable_crtcs (xcb_connection_t *conn, std::span<const xcb_randr_crtc_t> randr_crtcs, GError **error)
{
  for (const xcb_randr_crtc_t randr_crtc : randr_crtcs)
    {
      const auto [reply, x_error]
        = await_reply (conn,
                       xcb_randr_set_crtc_config (conn, randr_crtc, XCB_CURRENT_TIME, XCB_CURRENT_TIME, 0, 0, XCB_NONE,
                                                  XCB_RANDR_ROTATION_ROTATE_0, 0, nullptr),
                       xcb_randr_set_crtc_config_reply);

      if (!reply)
        return set_x_error (error, GENERIC_ERROR, x_error, "Failed to disable CRTC");
      if (reply->status != XCB_RANDR_SET_CONFIG_SUCCESS)
        {
          g_set_error (error, GENERIC_ERROR, "Failed to disable CRTC (status %u)", reply->status);
          return FALSE;
        }
    }
  return TRUE;
}

static gboolean
enable_crtc (xcb_connection_t *conn, xcb_randr_crtc_t randr_crtc, uint32_t mode_id,
             const xcb_randr_output_t *randr_outputs, int16_t x, int16_t y, GError **error)
{
  const auto [reply, x_error]
    = await_reply (conn,
                   xcb_randr_set_crtc_config (conn, randr_crtc, XCB_CURRENT_TIME, XCB_CURRENT_TIME, x, y, mode_id,
                                              XCB_RANDR_ROTATION_ROTATE_0, 1, randr_outputs),
                   xcb_randr_set_crtc_config_reply);

  if (!reply)
    return set_x_error (error, GENERIC_ERROR, x_error, "Failed to enable CRTC %u", randr_crtc);
  if (reply->status != XCB_RANDR_SET_CONFIG_SUCCESS)
    {
      g_set_error (error, GENERIC_ERROR, "Failed to enable CRTC %u (status %u)", randr_crtc, reply->status);
      return FALSE;
    }
  return TRUE;
}

static gboolean
enable_monitor (xcb_connection_t *conn, xcb_randr_crtc_t randr_crtc, uint32_t mode_id,
                const PhysicalMonitorInfo &monitor, GError **error)
{
  return enable_crtc (conn, randr_crtc, mode_id, monitor.randr_outputs, static_cast<int16_t> (monitor.rect.x),
                      static_cast<int16_t> (monitor.rect.y), error);
}

static gboolean
get_screen_size (xcb_connection_t *conn, const xcb_screen_t *screen, RyxRect *screen_rect, GError **error)
{
  const auto [reply, x_error] = await_reply (conn, xcb_get_geometry (conn, screen->root), xcb_get_geometry_reply);

  if (!reply)
    return set_x_error (error, G_IO_ERROR, G_IO_ERROR_FAILED, x_error, "Cannot get screen geometry");

  screen_rect->width = reply->width;
  screen_rect->height = reply->height;
  return TRUE;
}

static uint32_t
px_to_mm (uint32_t pixels)
{
  return static_cast<uint32_t> (pixels * millimetres_per_inch / assumed_dpi);
}

/* The floor is ours and wins over the server's limits. */
static uint32_t
limit_screen_size (uint32_t wanted, uint32_t min, uint32_t max, uint32_t floor)
{
  return std::max (wanted <= max ? std::max (wanted, min) : max, floor);
}

static gboolean
set_screen_size (xcb_connection_t *conn, const xcb_screen_t *screen, RyxRect screen_rect, GError **error)
{
  const auto [range, range_error]
    = await_reply (conn, xcb_randr_get_screen_size_range (conn, screen->root), xcb_randr_get_screen_size_range_reply);

  if (!range)
    return set_x_error (error, GENERIC_ERROR, range_error, "Unable to get screen size range");

  const uint32_t width = limit_screen_size (screen_rect.width, range->min_width, range->max_width, min_screen_width);
  const uint32_t height
    = limit_screen_size (screen_rect.height, range->min_height, range->max_height, min_screen_height);

  g_info ("Resize screen to size %ux%u", width, height);
  const XcbError x_error = await_check (
    conn, xcb_randr_set_screen_size_checked (conn, screen->root, width, height, px_to_mm (width), px_to_mm (height)));

  if (x_error)
    return set_x_error (error, GENERIC_ERROR, x_error, "Failed to set the screen size %ux%u", width, height);
  return TRUE;
}

/* Asks for the screen's resources and lets the server probe its outputs anew. On failure the request keeps what it
 * read before: ids of CRTCs don't change, so that is good enough to roll back with. */
static gboolean
read_screen_resources (LayoutRequest *request, const gchar *failure, GError **error)
{
  auto [reply, x_error]
    = await_reply (request->conn, xcb_randr_get_screen_resources (request->conn, request->screen->root),
                   xcb_randr_get_screen_resources_reply);

  if (!reply)
    return set_x_error (error, GENERIC_ERROR, x_error, "%s", failure);

  request->screen_resources_r = std::move (reply);
  request->randr_crtcs = get_crtcs (request->screen_resources_r.get ());
  return TRUE;
}

static gboolean
count_monitors (LayoutRequest *request, GError **error)
{
  if (!get_number_of_monitors (request->conn, request->screen_resources_r.get (), &request->num_monitors, error))
    return FALSE;

  g_info ("Detected %d monitors", request->num_monitors);
  return TRUE;
}

static PhysicalMonitorInfo
new_monitor_info (size_t crtc_index, XcbReply<CrtcInfo> crtc_info_r)
{
  const xcb_randr_output_t *randr_outputs = get_crtc_outputs (crtc_info_r.get ()).data ();

  return { .rect = {},
           .crtc_info_r = std::move (crtc_info_r),
           .randr_outputs = randr_outputs,
           .crtc_index = crtc_index,
           .mode_id = XCB_NONE,
           .fallback_mode_id = XCB_NONE };
}

/* What to go back to, and the way back */

static void
record_screen_size (LayoutRequest *request)
{
  g_autoptr (GError) error = nullptr;

  if (!get_screen_size (request->conn, request->screen, &request->rollback_size, &error))
    g_warning ("Cannot get screen size for rollback: %s", error->message);
}

/* By size, each mode once: 0 when there is none left. */
static uint32_t
find_current_mode (const LayoutRequest *request, const CrtcInfo *crtc_info_r)
{
  for (const xcb_randr_mode_info_t &mode : get_modes (request->screen_resources_r.get ()))
    if (mode.width == crtc_info_r->width && mode.height == crtc_info_r->height
        && !is_in_use (mode.id, request->rollback_list))
      return mode.id;
  return XCB_NONE;
}

static void
record_monitor (LayoutRequest *request, size_t crtc_index, XcbReply<CrtcInfo> crtc_info_r)
{
  PhysicalMonitorInfo monitor = new_monitor_info (crtc_index, std::move (crtc_info_r));
  const CrtcInfo *crtc = monitor.crtc_info_r.get ();

  monitor.rect = { .x = static_cast<guint32> (crtc->x),
                   .y = static_cast<guint32> (crtc->y),
                   .width = crtc->width,
                   .height = crtc->height };
  monitor.mode_id = find_current_mode (request, crtc);
  if (monitor.mode_id == XCB_NONE)
    g_info ("Cannot find current mode id for CRTC %u for rollback", request->randr_crtcs[crtc_index]);

  request->rollback_list.push_back (std::move (monitor));
}

static void
record_monitors (LayoutRequest *request)
{
  request->has_rollback_list = request->num_monitors > 0;
  if (!request->has_rollback_list)
    return;

  for (size_t i = 0; i < request->randr_crtcs.size (); i++)
    {
      g_autoptr (GError) error = nullptr;
      auto crtc_info_r = get_crtc_info (request->conn, request->randr_crtcs[i], " for rollback", &error);

      if (!crtc_info_r)
        g_warning ("%s", error->message);
      else if (!get_crtc_outputs (crtc_info_r.get ()).empty ())
        record_monitor (request, i, std::move (crtc_info_r));
    }
}

static void
roll_back_monitor (const LayoutRequest *request, const PhysicalMonitorInfo &monitor)
{
  g_autoptr (GError) error = nullptr;

  if (monitor.crtc_index >= request->randr_crtcs.size ())
    return;

  const xcb_randr_crtc_t randr_crtc = request->randr_crtcs[monitor.crtc_index];
  g_debug ("Enabling CRTC %u for rollback", randr_crtc);
  if (!enable_monitor (request->conn, randr_crtc, monitor.mode_id, monitor, &error))
    g_warning ("Cannot enable CRTC %u for rollback (%s)", randr_crtc, error->message);
}

/* The server refuses a screen size that an active CRTC sticks out of, so everything goes off first; but where no
 * monitor was on before, there is no layout to go back to, and what the request switched on stays. */
static void
roll_back (const LayoutRequest *request)
{
  g_autoptr (GError) error = nullptr;

  if (request->has_rollback_list)
    {
      g_info ("Disabling CRTCs fo rollback");
      if (!disable_crtcs (request->conn, request->randr_crtcs, &error))
        g_warning ("Cannot disable CRTCs for rollback: %s", error->message);
      g_clear_error (&error);
    }

  if (request->rollback_size.width == 0 || request->rollback_size.height == 0)
    return;

  g_info ("Rollback to previous screen size");
  if (!set_screen_size (request->conn, request->screen, request->rollback_size, &error))
    {
      g_warning ("Cannot rollback to previous screen size: %s", error->message);
      return;
    }

  if (!request->has_rollback_list)
    return;

  g_info ("Rollback to previous layout");
  for (const PhysicalMonitorInfo &monitor : request->rollback_list)
    roll_back_monitor (request, monitor);
}

/* The number of monitors */

/* Which CRTCs drive nothing, and which outputs are driven. */
static gboolean
classify_crtcs (const LayoutRequest *request, std::vector<xcb_randr_crtc_t> *unlinked_crtcs,
                std::vector<xcb_randr_output_t> *linked_outputs, GError **error)
{
  for (const xcb_randr_crtc_t randr_crtc : request->randr_crtcs)
    {
      const auto crtc_info_r = get_crtc_info (request->conn, randr_crtc, "", error);
      if (!crtc_info_r)
        return FALSE;

      const auto outputs = get_crtc_outputs (crtc_info_r.get ());
      if (outputs.empty ())
        {
          g_debug ("Detected CRTC %u with 0 linked outputs", randr_crtc);
          unlinked_crtcs->push_back (randr_crtc);
        }
      for (const xcb_randr_output_t output : outputs)
        {
          g_debug ("Output %u is linked to CRTC %u", output, randr_crtc);
          linked_outputs->push_back (output);
        }
    }
  return TRUE;
}

static std::vector<xcb_randr_output_t>
find_unlinked_outputs (std::span<const xcb_randr_output_t> outputs, std::span<const xcb_randr_output_t> linked_outputs)
{
  std::vector<xcb_randr_output_t> unlinked_outputs;

  for (const xcb_randr_output_t output : outputs)
    if (!contains (linked_outputs, output))
      {
        g_debug ("Detected unlinked output %u", output);
        unlinked_outputs.push_back (output);
      }
  return unlinked_outputs;
}

/* The first mode that the output lists and the screen knows. */
static const xcb_randr_mode_info_t *
find_output_mode (std::span<const xcb_randr_mode_t> output_modes, std::span<const xcb_randr_mode_info_t> modes)
{
  for (const xcb_randr_mode_t id : output_modes)
    for (const xcb_randr_mode_info_t &mode : modes)
      if (mode.id == id)
        return &mode;
  return nullptr;
}

/* The mode to switch an undriven output on with; NULL when it can't be. */
static const xcb_randr_mode_info_t *
find_mode_of_spare_output (const LayoutRequest *request, xcb_randr_crtc_t randr_crtc, xcb_randr_output_t output)
{
  const auto output_info_r = get_output_info (request->conn, output);
  if (!output_info_r)
    return nullptr;

  const xcb_randr_mode_info_t *mode
    = find_output_mode (get_output_modes (output_info_r.get ()), get_modes (request->screen_resources_r.get ()));
  if (!mode)
    {
      g_info ("Cannot find mode id to enable CRTC %u with output %u", randr_crtc, output);
      return nullptr;
    }

  g_debug ("Output %u informations: status %u, CRTC %u, connection %u", output, output_info_r->status,
           output_info_r->crtc, output_info_r->connection);
  if (output_info_r->connection != XCB_RANDR_CONNECTION_CONNECTED)
    return nullptr;

  g_debug ("Found output %u to be linked to CRTC %u and mode %u", output, randr_crtc, mode->id);
  return mode;
}

static void
make_room_for_monitor (const LayoutRequest *request, const xcb_randr_mode_info_t *mode)
{
  g_autoptr (GError) error = nullptr;
  const RyxRect size = { .x = 0,
                         .y = 0,
                         .width = request->rollback_size.width + mode->width,
                         .height = std::max<guint32> (request->rollback_size.height, mode->height) };

  g_info ("Set screen size to %ux%u for new monitor", size.width, size.height);
  if (!set_screen_size (request->conn, request->screen, size, &error))
    g_info ("Cannot set screen size to %ux%u for new monitor (%s)", size.width, size.height, error->message);
}

/* A new monitor goes to the right edge of the screen as it was. */
static gboolean
enable_spare_crtc (const LayoutRequest *request, xcb_randr_crtc_t randr_crtc, xcb_randr_output_t output)
{
  g_autoptr (GError) error = nullptr;
  const xcb_randr_mode_info_t *mode = find_mode_of_spare_output (request, randr_crtc, output);
  if (!mode)
    return FALSE;

  make_room_for_monitor (request, mode);
  if (!enable_crtc (request->conn, randr_crtc, mode->id, &output, static_cast<int16_t> (request->rollback_size.width),
                    0, &error))
    {
      g_info ("Cannot enable new monitor %u-%u (%s)", randr_crtc, output, error->message);
      return FALSE;
    }

  g_info ("Enabled new monitor from output %u, CRTC %u and mode %u", output, randr_crtc, mode->id);
  return TRUE;
}

/* An output that does not go with one CRTC is tried again with the next. */
static void
pair_crtcs_with_outputs (const LayoutRequest *request, guint delta, std::span<const xcb_randr_crtc_t> unlinked_crtcs,
                         std::vector<xcb_randr_output_t> unlinked_outputs)
{
  guint n_enabled = 0;

  for (size_t i = 0; i < unlinked_crtcs.size () && n_enabled < delta; i++)
    for (xcb_randr_output_t &output : unlinked_outputs)
      if (enable_spare_crtc (request, unlinked_crtcs[i], output))
        {
          output = unlinked_outputs.back ();
          unlinked_outputs.pop_back ();
          n_enabled++;
          break;
        }
}

static gboolean
enable_monitors (const LayoutRequest *request, guint delta, GError **error)
{
  std::vector<xcb_randr_crtc_t> unlinked_crtcs;
  std::vector<xcb_randr_output_t> linked_outputs;

  g_info ("Enabling %u monitors", delta);
  if (!classify_crtcs (request, &unlinked_crtcs, &linked_outputs, error))
    return FALSE;

  std::vector<xcb_randr_output_t> unlinked_outputs
    = find_unlinked_outputs (get_outputs (request->screen_resources_r.get ()), linked_outputs);
  if (unlinked_outputs.size () < delta || unlinked_crtcs.size () < delta)
    {
      g_set_error (error, GENERIC_ERROR,
                   "Cannot enable %u monitors: there are only %u unlinked crtcs and %u unlinked outputs", delta,
                   guint (unlinked_crtcs.size ()), guint (unlinked_outputs.size ()));
      return FALSE;
    }

  pair_crtcs_with_outputs (request, delta, unlinked_crtcs, std::move (unlinked_outputs));
  return TRUE;
}

static gboolean
disable_monitor (xcb_connection_t *conn, xcb_randr_crtc_t randr_crtc)
{
  g_autoptr (GError) error = nullptr;

  if (!disable_crtcs (conn, std::span (&randr_crtc, 1), &error))
    {
      g_info ("Cannot disable monitor with CRTC %u (%s)", randr_crtc, error->message);
      return FALSE;
    }

  g_info ("Disabled monitor with CRTC %u", randr_crtc);
  return TRUE;
}

/* From the end of the list, so that the first monitors stay. */
static gboolean
disable_monitors (const LayoutRequest *request, guint delta, GError **error)
{
  guint n_disabled = 0;

  g_info ("Disabling %u monitors", delta);
  for (size_t i = request->randr_crtcs.size (); i > 0 && n_disabled < delta; i--)
    {
      const xcb_randr_crtc_t randr_crtc = request->randr_crtcs[i - 1];
      const auto crtc_info_r = get_crtc_info (request->conn, randr_crtc, "", error);

      if (!crtc_info_r)
        return FALSE;
      if (!get_crtc_outputs (crtc_info_r.get ()).empty () && disable_monitor (request->conn, randr_crtc))
        n_disabled++;
    }
  return TRUE;
}

static gboolean
has_crtc_and_output_for_each_head (const LayoutRequest *request)
{
  const guint n_crtcs = request->randr_crtcs.size ();
  const guint n_outputs = get_outputs (request->screen_resources_r.get ()).size ();

  g_debug ("Detected %u CRTCs and %u outputs", n_crtcs, n_outputs);
  if (n_crtcs >= request->heads.size () && n_outputs >= request->heads.size ())
    return TRUE;

  g_warning ("Cannot enable %u monitors, there are only %u CRTCs and %u outputs",
             guint (request->heads.size ()) - request->num_monitors, n_crtcs, n_outputs);
  return FALSE;
}

/* Brings the number of monitors towards that of the heads. Whether it got there is the caller's to check. */
static gboolean
adjust_number_of_monitors (LayoutRequest *request, GError **error)
{
  const guint n_heads = request->heads.size ();
  const guint num_monitors = request->num_monitors;

  if (n_heads == num_monitors || (n_heads > num_monitors && !has_crtc_and_output_for_each_head (request)))
    return TRUE;

  if (!(n_heads > num_monitors ? enable_monitors (request, n_heads - num_monitors, error)
                               : disable_monitors (request, num_monitors - n_heads, error)))
    return FALSE;

  request->enable_rollback = TRUE;
  return read_screen_resources (request, "Failed to update screen resources", error) && count_monitors (request, error);
}

static gboolean
check_number_of_monitors (const LayoutRequest *request, GError **error)
{
  if (request->heads.size () == request->num_monitors)
    return TRUE;

  g_set_error (error, GENERIC_ERROR, "Unsupported configuration (%u display heads requested, %u monitors available)",
               guint (request->heads.size ()), request->num_monitors);
  return FALSE;
}

/* The layout itself */

static uint32_t
round_head_size (uint32_t size)
{
  const uint32_t capped = std::min (size, max_head_size);

  return capped - capped % size_granularity;
}

/* Adds the CRTC's record to the desired list; it gets the first head that has none. */
static gboolean
add_desired_monitor (LayoutRequest *request, std::span<const NamedMode> modes, size_t crtc_index,
                     XcbReply<CrtcInfo> crtc_info_r, GError **error)
{
  PhysicalMonitorInfo monitor = new_monitor_info (crtc_index, std::move (crtc_info_r));
  ryx_display_head_get_rect (request->heads[request->desired_list.size ()], &monitor.rect);
  monitor.rect.width = std::max (round_head_size (monitor.rect.width), min_screen_width);
  monitor.rect.height = std::max (round_head_size (monitor.rect.height), min_screen_height);

  const ModeTarget target = { .randr_crtc = request->randr_crtcs[crtc_index],
                              .randr_output = monitor.randr_outputs[0],
                              .width = monitor.rect.width,
                              .height = monitor.rect.height };
  g_debug ("Looking for mode %ux%u for CRTC %u", target.width, target.height, target.randr_crtc);

  const auto output_info_r = get_output_info (request->conn, target.randr_output);
  if (!output_info_r)
    return TRUE;

  const ModeMatch match = find_mode (modes, target, get_output_modes (output_info_r.get ()), request->desired_list);
  monitor.mode_id = match.mode_id;
  monitor.fallback_mode_id = match.fallback_mode_id;
  if (match.mode_id == XCB_NONE && !create_mode (request->conn, request->screen, target, &monitor.mode_id))
    monitor.mode_id = match.fallback_mode_id;
  if (monitor.mode_id == XCB_NONE)
    {
      g_set_error (error, GENERIC_ERROR, "Cannot find a mode for CRTC %u to set the layout", target.randr_crtc);
      return FALSE;
    }

  ryx_rect_union (&request->screen_rect, &monitor.rect, &request->screen_rect);
  g_debug ("Setup CRTC %u: %ux%u %d,%d (mode %u, fallback %u)", target.randr_crtc, monitor.rect.width,
           monitor.rect.height, monitor.rect.x, monitor.rect.y, monitor.mode_id, monitor.fallback_mode_id);
  request->desired_list.push_back (std::move (monitor));
  return TRUE;
}

static gboolean
build_desired_list (LayoutRequest *request, GError **error)
{
  const std::vector<NamedMode> modes = get_named_modes (request->screen_resources_r.get ());

  for (size_t i = 0; i < request->randr_crtcs.size (); i++)
    {
      auto crtc_info_r = get_crtc_info (request->conn, request->randr_crtcs[i], "", error);
      if (!crtc_info_r)
        return FALSE;

      if (!get_crtc_outputs (crtc_info_r.get ()).empty () && request->desired_list.size () < request->heads.size ()
          && !add_desired_monitor (request, modes, i, std::move (crtc_info_r), error))
        return FALSE;
    }
  return TRUE;
}

static gboolean
enable_desired_monitor (const LayoutRequest *request, const PhysicalMonitorInfo &monitor, GError **error)
{
  const xcb_randr_crtc_t randr_crtc = request->randr_crtcs[monitor.crtc_index];
  g_autoptr (GError) mode_error = nullptr;

  g_debug ("Enabling CRTC %u", randr_crtc);
  if (enable_monitor (request->conn, randr_crtc, monitor.mode_id, monitor, &mode_error))
    return TRUE;

  g_info ("Cannot enable CRTC %u (%s), trying fallback", randr_crtc, mode_error->message);
  return enable_monitor (request->conn, randr_crtc, monitor.fallback_mode_id, monitor, error);
}

static gboolean
apply_desired_list (LayoutRequest *request, GError **error)
{
  if (!disable_crtcs (request->conn, request->randr_crtcs, error))
    return FALSE;

  request->enable_rollback = TRUE;
  if (!set_screen_size (request->conn, request->screen, request->screen_rect, error))
    return FALSE;
  for (const PhysicalMonitorInfo &monitor : request->desired_list)
    if (!enable_desired_monitor (request, monitor, error))
      return FALSE;

  g_autoptr (GError) cleanup_error = nullptr;
  if (!delete_old_modes (request->conn, request->screen_resources_r.get (), request->desired_list, &cleanup_error))
    g_warning ("Cannot delete old modes: %s", cleanup_error->message);

  g_info ("Display layout applied");
  return TRUE;
}

static gboolean
resize_screen_directly (LayoutRequest *request, GError **error)
{
  RyxRect size;

  g_info ("There are no CRTCs enabled on this system, resize the screen directly");
  if (request->heads.size () != 1)
    {
      g_set_error (error, GENERIC_ERROR,
                   "Unsupported configuration (%u display heads requested but no CRTCs available)",
                   guint (request->heads.size ()));
      return FALSE;
    }

  ryx_display_head_get_rect (request->heads[0], &size);
  size.width = round_head_size (size.width);
  size.height = round_head_size (size.height);

  request->enable_rollback = TRUE;
  if (!set_screen_size (request->conn, request->screen, size, error))
    return FALSE;

  g_info ("Display layout applied");
  return TRUE;
}

static gboolean
change_layout (LayoutRequest *request, GError **error)
{
  record_screen_size (request);
  if (request->randr_crtcs.empty ())
    return resize_screen_directly (request, error);

  if (!count_monitors (request, error))
    return FALSE;
  record_monitors (request);

  return adjust_number_of_monitors (request, error) && check_number_of_monitors (request, error)
         && build_desired_list (request, error) && apply_desired_list (request, error);
}

static gboolean
read_screen (LayoutRequest *request, GError **error)
{
  request->screen = get_screen (request->conn, gdk_screen_get_number (gdk_screen_get_default ()));
  if (!request->screen)
    {
      g_set_error_literal (error, GENERIC_ERROR, "Could not get the screen");
      return FALSE;
    }
  return read_screen_resources (request, "Failed to get screen resources", error);
}

static gboolean
ryx_display_layout_manager_xrandr_request_layout (RyxDisplayLayoutManager *, RyxDisplayLayout *layout, GError **error)
{
  xcb_connection_t *conn = get_xcb_connection ();
  gboolean result;

  if (!conn)
    {
      g_set_error_literal (error, GENERIC_ERROR, "Could not get the X connection");
      return FALSE;
    }

  {
    const ServerGrab grab;
    LayoutRequest request = {};
    guint32 n_heads;
    RyxDisplayHead **heads = ryx_display_layout_get_heads (layout, &n_heads);

    request.conn = conn;
    request.heads = { heads, n_heads };
    if (!read_screen (&request, error))
      return FALSE;

    result = change_layout (&request, error);
    if (!result && request.enable_rollback)
      roll_back (&request);
  }

  g_debug ("Handle layout request completed");
  return result;
}

/* Life */

static gboolean
ryx_display_layout_manager_xrandr_initable_init (GInitable *, GCancellable *, GError **error)
{
  xcb_connection_t *conn = get_xcb_connection ();
  if (!conn)
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "Could not get the X connection");
      return FALSE;
    }

  return require_randr_1_2 (conn, error);
}

static void
ryx_display_layout_manager_xrandr_initable_iface_init (GInitableIface *iface)
{
  iface->init = ryx_display_layout_manager_xrandr_initable_init;
}

static void
ryx_display_layout_manager_xrandr_class_init (RyxDisplayLayoutManagerXrandrClass *klass)
{
  RYX_DISPLAY_LAYOUT_MANAGER_CLASS (klass)->request_layout = ryx_display_layout_manager_xrandr_request_layout;
}

static void
ryx_display_layout_manager_xrandr_class_finalize (RyxDisplayLayoutManagerXrandrClass *)
{
}

static void
ryx_display_layout_manager_xrandr_init (RyxDisplayLayoutManagerXrandr *)
{
}

void
ryx_display_layout_manager_xrandr_register (GIOModule *module)
{
  ryx_display_layout_manager_xrandr_register_type (G_TYPE_MODULE (module));
}
