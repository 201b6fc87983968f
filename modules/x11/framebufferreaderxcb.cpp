#define G_LOG_DOMAIN "RYX:x11:display"

#include "framebufferreaderxcb.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <type_traits>
#include <utility>

#include <sys/ipc.h>
#include <sys/shm.h>
#include <xcb/damage.h>
#include <xcb/randr.h>
#include <xcb/shm.h>
#include <xcb/xfixes.h>

#include "xcbreply.h"

struct _RyxFrameBufferReaderXcb
{
  RyxFrameBufferReader parent_instance;

  xcb_connection_t *conn;
  xcb_window_t root;

  gboolean use_randr;
  uint8_t randr_event_base; /* 0: no such extension; likewise for Damage */

  gboolean use_damage; /* dirty-region mode, else compare mode */
  uint8_t damage_event_base;
  uint32_t damage;
  unsigned int damage_request; /* number of the request that made it, 0 once it is known whether it did */
  uint32_t damage_region;      /* where each grab moves the damage gathered since the last one */
  gboolean have_damage;

  gboolean use_shm;
  gboolean use_shm_pixmaps;
  xcb_shm_seg_t shm_segment;
  guint8 *shm_framebuffer; /* the reader's own attachment */
  xcb_drawable_t shm_pixmap;
  xcb_gcontext_t gc;
  gboolean shm_attached; /* by the server */

  gint64 frame_timestamp; /* monotonic, in microseconds */

  guint8 *framebuffer; /* for capture without shared memory */
  gsize framebuffer_size;

  gint64 sampling_interval; /* in microseconds */

  RyxRect rect; /* the captured area, in root-window coordinates */
  guint32 bytes_per_line;
  guint pixel_size; /* in bytes: 3 or 4, 0 until the reader is configured */

  RyxAllocator *allocator;
  RyxFrameData *prev_frame; /* NULL: the next frame is a full one */

  gboolean frame_is_up_to_date; /* the last frame data made has the pixels that the current buffer has */
};

static_assert (std::is_trivial_v<RyxFrameBufferReaderXcb>);

G_DEFINE_DYNAMIC_TYPE (RyxFrameBufferReaderXcb, ryx_frame_buffer_reader_xcb, RYX_TYPE_FRAME_BUFFER_READER)

enum GrabResult
{
  EMPTY = 0,
  GRABBED = 1,
  FAILED = 2,
};

/* What one capture found: the changed blocks, whether a look at the pixels may leave fewer of them, and whether it
 * wrote to the current buffer elsewhere too. */
struct Capture
{
  RyxDiffmap *diffmap = nullptr;
  gboolean refine = FALSE;
  gboolean wrote_elsewhere = FALSE;

  Capture () = default;
  ~Capture () { g_clear_pointer (&diffmap, ryx_diffmap_unref); }
  Capture (const Capture &) = delete;
  Capture &operator= (const Capture &) = delete;
};

/* Nothing else draws while the damage is taken and its pixels are copied: they belong together. */
class XcbServerGrab
{
public:
  explicit XcbServerGrab (xcb_connection_t *connection) : conn (connection) { xcb_grab_server (conn); }
  ~XcbServerGrab ()
  {
    xcb_ungrab_server (conn);
    xcb_flush (conn);
  }
  XcbServerGrab (const XcbServerGrab &) = delete;
  XcbServerGrab &operator= (const XcbServerGrab &) = delete;

private:
  xcb_connection_t *conn;
};

static void
drop_prev_frame (RyxFrameBufferReaderXcb *reader)
{
  g_clear_pointer (&reader->prev_frame, ryx_frame_data_unref);
}

static gpointer
address_of (RyxFrameBufferReaderXcb *reader)
{
  return reader;
}

G_GNUC_PRINTF (2, 3)
static gboolean
fail_setup (GError **error, const gchar *format, ...)
{
  va_list args;
  va_start (args, format);
  g_propagate_error (error, g_error_new_valist (RYX_FRAME_BUFFER_READER_ERROR,
                                                RYX_FRAME_BUFFER_READER_ERROR_FAILED_SETUP, format, args));
  va_end (args);
  return FALSE;
}

/* Setup */

/* What is sent to a server that has died is to be an error here, and not the end of a process that never asked for the
 * signal. GIO's sockets do the same. */
static void
ignore_broken_pipes (void)
{
  struct sigaction action;

  if (sigaction (SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_DFL)
    signal (SIGPIPE, SIG_IGN);
}

static gboolean
open_connection (RyxFrameBufferReaderXcb *reader, GError **error)
{
  int screen_number = 0;

  ignore_broken_pipes ();
  g_clear_pointer (&reader->conn, xcb_disconnect); /* of a setup that failed */
  reader->conn = xcb_connect (nullptr, &screen_number);
  if (xcb_connection_has_error (reader->conn))
    return fail_setup (error, "Unable to open XCB connection in reader %p", address_of (reader));

  const xcb_screen_t *screen = get_screen (reader->conn, screen_number);
  if (!screen)
    return fail_setup (error, "Unable to get default screen in reader %p", address_of (reader));

  const uint32_t event_mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
  reader->root = screen->root;
  xcb_change_window_attributes (reader->conn, reader->root, XCB_CW_EVENT_MASK, &event_mask);
  return TRUE;
}

static gboolean
require_xfixes (RyxFrameBufferReaderXcb *reader, GError **error)
{
  if (!find_extension (reader->conn, &xcb_xfixes_id))
    return fail_setup (error, "XFIXES not available for XCB connection in reader %p", address_of (reader));

  const auto cookie = xcb_xfixes_query_version_unchecked (reader->conn, 5, 0);
  if (!await_reply (reader->conn, cookie, xcb_xfixes_query_version_reply).reply)
    return fail_setup (error, "Unsupported XFIXES version for XCB connection in reader %p", address_of (reader));
  return TRUE;
}

static void
probe_randr (RyxFrameBufferReaderXcb *reader)
{
  g_autoptr (GError) error = nullptr;

  if (const xcb_query_extension_reply_t *extension = find_extension (reader->conn, &xcb_randr_id))
    reader->randr_event_base = extension->first_event;
  if (!require_randr_1_2 (reader->conn, &error))
    {
      g_warning ("%s", error->message);
      return;
    }

  xcb_randr_select_input (reader->conn, reader->root, XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
  reader->use_randr = TRUE;
}

static void
probe_shm (RyxFrameBufferReaderXcb *reader)
{
  if (!find_extension (reader->conn, &xcb_shm_id))
    {
      g_warning ("SHM extension not available");
      return;
    }

  auto [version, x_error]
    = await_reply (reader->conn, xcb_shm_query_version (reader->conn), xcb_shm_query_version_reply);
  if (!version || x_error)
    {
      g_warning ("Failed to get SHM version");
      return;
    }

  g_autoptr (GSettings) settings = ryx_settings_new ("com.quorlane.ryx.display.linux");
  reader->shm_segment = xcb_generate_id (reader->conn);
  reader->use_shm = TRUE;
  reader->use_shm_pixmaps = g_settings_get_boolean (settings, "use-shm-pixmaps") && version->shared_pixmaps
                            && version->pixmap_format == XCB_IMAGE_FORMAT_Z_PIXMAP;
}

static void
probe_damage (RyxFrameBufferReaderXcb *reader, GSettings *settings)
{
  if (!g_settings_get_boolean (settings, "use-grabber-dirty-region"))
    {
      g_info ("Damage disabled by user");
      return;
    }

  const xcb_query_extension_reply_t *extension = find_extension (reader->conn, &xcb_damage_id);
  if (!extension)
    {
      g_warning ("Damage extension not available");
      return;
    }
  reader->damage_event_base = extension->first_event;

  auto [version, x_error]
    = await_reply (reader->conn, xcb_damage_query_version (reader->conn, 1, 1), xcb_damage_query_version_reply);
  if (!version || x_error)
    {
      g_warning ("Failed to get Damage version");
      return;
    }

  reader->damage = xcb_generate_id (reader->conn);
  reader->damage_request
    = xcb_damage_create_checked (reader->conn, reader->damage, reader->root, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY)
        .sequence;
  reader->damage_region = xcb_generate_id (reader->conn);
  xcb_xfixes_create_region (reader->conn, reader->damage_region, 0, nullptr);
  reader->use_damage = TRUE;
}

/* Sampling at twice the wanted rate keeps a change from waiting for nearly two frames. */
static gint64
get_sampling_interval (GSettings *settings)
{
  gint64 fps = g_settings_get_uint (settings, "grabber-target-fps");

  if (fps == 0)
    fps = g_settings_get_uint (settings, "target-fps");
  if (fps == 0)
    return 16666;
  return G_USEC_PER_SEC / CLAMP (2 * fps, 30, 60);
}

static const gchar *
describe_availability (gboolean available)
{
  return available ? "available" : "not available";
}

static gboolean
ryx_frame_buffer_reader_xcb_setup (RyxFrameBufferReader *base, GError **error)
{
  RyxFrameBufferReaderXcb *reader = RYX_FRAME_BUFFER_READER_XCB (base);

  g_assert (reader->prev_frame == NULL);

  if (!open_connection (reader, error) || !require_xfixes (reader, error))
    return FALSE;

  g_autoptr (GSettings) settings = ryx_settings_new ("com.quorlane.ryx.display");
  probe_randr (reader);
  probe_shm (reader);
  probe_damage (reader, settings);
  reader->sampling_interval = get_sampling_interval (settings);

  xcb_flush (reader->conn);
  g_info ("Framebuffer reader %p set up (RandR: %s, SHM: %s, SHM Pixmap: %s, Damage: %s)", address_of (reader),
          describe_availability (reader->use_randr), describe_availability (reader->use_shm),
          describe_availability (reader->use_shm_pixmaps), describe_availability (reader->use_damage));
  return TRUE;
}

/* Configuration */

static void
detach_shm (RyxFrameBufferReaderXcb *reader)
{
  if (reader->shm_attached)
    {
      xcb_shm_detach (reader->conn, reader->shm_segment);
      reader->shm_attached = FALSE;
    }
  if (reader->shm_framebuffer)
    {
      shmdt (reader->shm_framebuffer);
      reader->shm_framebuffer = nullptr;
    }
  if (reader->shm_pixmap)
    {
      xcb_free_pixmap (reader->conn, reader->shm_pixmap);
      reader->shm_pixmap = 0;
    }
}

static gboolean
get_format_for_depth (RyxFrameBufferReaderXcb *reader, guint8 depth, guint *bpp, guint *scanline_pad)
{
  const xcb_setup_t *setup = xcb_get_setup (reader->conn);
  const xcb_format_t *formats = xcb_setup_pixmap_formats (setup);

  for (int i = 0; i < xcb_setup_pixmap_formats_length (setup); i++)
    if (formats[i].depth == depth)
      {
        *bpp = formats[i].bits_per_pixel;
        *scanline_pad = formats[i].scanline_pad;
        return TRUE;
      }
  return FALSE;
}

static guint32
get_bytes_per_line (guint32 width, guint32 bpp, guint32 pad)
{
  return (bpp * width + pad - 1) / pad * pad / 8;
}

/* Whether the CRTC shows the reader's output, on the way naming all outputs that it shows. */
static gboolean
crtc_shows_output (RyxFrameBufferReaderXcb *reader, const xcb_randr_get_crtc_info_reply_t *crtc, guint32 output_id)
{
  for (const xcb_randr_output_t id : get_crtc_outputs (crtc))
    {
      const auto cookie = xcb_randr_get_output_info (reader->conn, id, XCB_CURRENT_TIME);
      auto output = await_reply (reader->conn, cookie, xcb_randr_get_output_info_reply).reply;
      if (!output)
        {
          g_debug ("No information about output 0x%x, skipping it", id);
          continue;
        }

      g_autofree gchar *name = get_output_name (output.get ());
      g_debug ("Detected output 0x%x %s (%d,%d %dx%d)", id, name, crtc->x, crtc->y, crtc->width, crtc->height);
      if (id != output_id)
        continue;

      g_info ("Found output 0x%x %s for reader %s (%p)", output_id, name,
              ryx_frame_buffer_reader_get_screen_name (RYX_FRAME_BUFFER_READER (reader)), address_of (reader));
      return TRUE;
    }
  return FALSE;
}

static gboolean
find_output_area (RyxFrameBufferReaderXcb *reader, RyxRect *area)
{
  RyxFrameBufferReader *base = RYX_FRAME_BUFFER_READER (reader);
  const guint32 output_id = ryx_frame_buffer_reader_get_output_id (base);

  if (output_id == 0)
    {
      g_debug ("Cannot get output identifier for display %s", ryx_frame_buffer_reader_get_screen_name (base));
      return FALSE;
    }

  auto resources = await_reply (reader->conn, xcb_randr_get_screen_resources (reader->conn, reader->root),
                                xcb_randr_get_screen_resources_reply)
                     .reply;
  if (!resources)
    return FALSE;

  const auto crtcs = get_crtcs (resources.get ());
  g_debug ("RandR: found %u CRTC", static_cast<guint> (crtcs.size ()));

  for (const xcb_randr_crtc_t id : crtcs)
    {
      const auto cookie = xcb_randr_get_crtc_info (reader->conn, id, XCB_CURRENT_TIME);
      auto crtc = await_reply (reader->conn, cookie, xcb_randr_get_crtc_info_reply).reply;

      if (crtc && crtc_shows_output (reader, crtc.get (), output_id))
        {
          *area = { static_cast<guint32> (crtc->x), static_cast<guint32> (crtc->y), crtc->width, crtc->height };
          return TRUE;
        }
    }
  return FALSE;
}

static RyxRect
choose_area (RyxFrameBufferReaderXcb *reader, const xcb_get_geometry_reply_t *geometry)
{
  RyxRect area = { 0, 0, geometry->width, geometry->height };

  if (!reader->use_randr || !find_output_area (reader, &area))
    g_debug ("Using entire screen (root window size %dx%d)", geometry->width, geometry->height);
  return area;
}

static gboolean
attach_segment (RyxFrameBufferReaderXcb *reader, GError **error)
{
  const gsize size = static_cast<gsize> (reader->rect.height) * reader->bytes_per_line;
  const int id = shmget (IPC_PRIVATE, size, IPC_CREAT | 0777);
  if (id < 0)
    {
      g_set_error (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_SHM_FAILED,
                   "Failed to get shared memory: %s", g_strerror (errno));
      reader->use_shm = FALSE;
      return FALSE;
    }

  /* A process that is killed while the server lets it wait leaves nothing behind: the system frees a segment with its
   * last attachment, and lets the server attach to one that is to go then. */
  void *address = shmat (id, nullptr, 0);
  const gboolean is_attached_here = reinterpret_cast<gintptr> (address) != -1;
  if (is_attached_here)
    shmctl (id, IPC_RMID, nullptr);

  const XcbError x_error
    = await_check (reader->conn, xcb_shm_attach_checked (reader->conn, reader->shm_segment, id, FALSE));
  if (!is_attached_here)
    shmctl (id, IPC_RMID, nullptr);
  if (x_error || xcb_connection_has_error (reader->conn))
    {
      g_set_error_literal (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_SHM_FAILED,
                           "Failed to attach shared memory");
      if (is_attached_here)
        shmdt (address);
      reader->use_shm = FALSE;
      return FALSE;
    }
  reader->shm_attached = TRUE;

  if (!is_attached_here)
    {
      g_set_error_literal (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_FAILED,
                           "Failed to get shm image data");
      return FALSE;
    }
  reader->shm_framebuffer = static_cast<guint8 *> (address);
  return TRUE;
}

static gboolean
create_shm_pixmap (RyxFrameBufferReaderXcb *reader, guint8 depth)
{
  const auto width = static_cast<uint16_t> (reader->rect.width);
  const auto height = static_cast<uint16_t> (reader->rect.height);

  reader->shm_pixmap = xcb_generate_id (reader->conn);
  XcbError x_error
    = await_check (reader->conn, xcb_shm_create_pixmap_checked (reader->conn, reader->shm_pixmap, reader->root, width,
                                                                height, depth, reader->shm_segment, 0));
  if (!x_error)
    return TRUE;

  g_warning ("Unable to create shm pixmap of %dx%d, falling back to shm get image (response_type: %u error_code: %u)",
             width, height, response_type_of (x_error), error_code_of (x_error));
  reader->shm_pixmap = 0;
  return FALSE;
}

static gboolean
ensure_gc (RyxFrameBufferReaderXcb *reader)
{
  const uint32_t values[] = { XCB_SUBWINDOW_MODE_INCLUDE_INFERIORS, 0 };
  const uint32_t mask = XCB_GC_SUBWINDOW_MODE | XCB_GC_GRAPHICS_EXPOSURES;

  if (reader->gc)
    return TRUE;

  reader->gc = xcb_generate_id (reader->conn);
  XcbError x_error
    = await_check (reader->conn, xcb_create_gc_checked (reader->conn, reader->gc, reader->root, mask, values));
  if (!x_error)
    return TRUE;

  g_warning ("Failed to create GC, falling back to shm get image (response_type: %u error_code: %u)",
             response_type_of (x_error), error_code_of (x_error));
  reader->gc = 0;
  return FALSE;
}

static gboolean
wrap_segment_in_pixmap (RyxFrameBufferReaderXcb *reader, guint8 depth)
{
  if (!create_shm_pixmap (reader, depth))
    return FALSE;
  if (ensure_gc (reader))
    return TRUE;

  xcb_free_pixmap (reader->conn, reader->shm_pixmap);
  reader->shm_pixmap = 0;
  return FALSE;
}

/* A reader without its Damage object would wait for ever. Later requests have been answered: this asks for nothing. */
static void
check_damage (RyxFrameBufferReaderXcb *reader)
{
  const xcb_void_cookie_t cookie = { std::exchange (reader->damage_request, 0) };
  const XcbError x_error = cookie.sequence != 0 ? await_check (reader->conn, cookie) : nullptr;

  if (!x_error)
    return;
  g_warning ("Failed to create damage (response_type: %u error_code: %u)", response_type_of (x_error),
             error_code_of (x_error));
  reader->use_damage = FALSE;
}

static gboolean
ryx_frame_buffer_reader_xcb_configure (RyxFrameBufferReader *base, GError **error)
{
  RyxFrameBufferReaderXcb *reader = RYX_FRAME_BUFFER_READER_XCB (base);
  guint bpp, scanline_pad;

  g_return_val_if_fail (reader->conn != NULL, FALSE);

  auto geometry
    = await_reply (reader->conn, xcb_get_geometry (reader->conn, reader->root), xcb_get_geometry_reply).reply;
  const guint8 depth = geometry ? geometry->depth : 0;

  check_damage (reader);
  if (depth < 24)
    return fail_setup (error, "Unsupported depth %d in reader %p", depth, address_of (reader));
  if (!get_format_for_depth (reader, depth, &bpp, &scanline_pad))
    return fail_setup (error, "Unable to get format for depth in reader %p", address_of (reader));
  if (bpp != 24 && bpp != 32)
    return fail_setup (error, "Unsupported bpp %d in reader %p", bpp, address_of (reader));
  if (scanline_pad != 8 && scanline_pad != 16 && scanline_pad != 32)
    return fail_setup (error, "Unsupported scanline pad %d in reader %p", scanline_pad, address_of (reader));

  reader->pixel_size = bpp / 8;
  reader->rect = choose_area (reader, geometry.get ());
  g_info ("Framebuffer reader %p configured for screen %s (%d,%d %dx%d - depth %d, bpp %d, scanline_pad %d)",
          address_of (reader), ryx_frame_buffer_reader_get_screen_name (base), static_cast<gint> (reader->rect.x),
          static_cast<gint> (reader->rect.y), reader->rect.width, reader->rect.height, depth, bpp, scanline_pad);
  drop_prev_frame (reader);

  if (!reader->use_shm)
    return TRUE;

  detach_shm (reader);
  reader->bytes_per_line = get_bytes_per_line (reader->rect.width, bpp, scanline_pad);
  g_debug ("Bytes per line %u", reader->bytes_per_line);

  if (!attach_segment (reader, error))
    return FALSE;
  if (reader->use_shm_pixmaps)
    reader->use_shm_pixmaps = wrap_segment_in_pixmap (reader, depth);
  return TRUE;
}

/* Grabbing */

static gboolean
uses_shared_pixmap (const RyxFrameBufferReaderXcb *reader)
{
  return reader->use_shm && reader->use_shm_pixmaps;
}

static guint8 *
current_framebuffer (RyxFrameBufferReaderXcb *reader)
{
  return reader->use_shm ? reader->shm_framebuffer : reader->framebuffer;
}

static void
set_error_from_xcb_error (GError **error, RyxFrameBufferReaderError code, const gchar *message, const XcbError &x_error)
{
  if (x_error)
    set_x_error (error, RYX_FRAME_BUFFER_READER_ERROR, code, x_error, "%s", message);
  else
    g_set_error_literal (error, RYX_FRAME_BUFFER_READER_ERROR, code, message);
}

static gboolean
report_closed_connection (GError **error)
{
  g_set_error_literal (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_FAILED,
                       "X connection closed");
  return FALSE;
}

static XcbEvent
get_next_event (RyxFrameBufferReaderXcb *reader, gboolean block)
{
  return XcbEvent (block ? xcb_wait_for_event (reader->conn) : xcb_poll_for_event (reader->conn));
}

/* Whether the event says that the screen changed. Damage is noted in the reader. */
static gboolean
process_event (RyxFrameBufferReaderXcb *reader, const xcb_generic_event_t *event)
{
  const guint8 type = event->response_type & ~0x80;

  if (type == 0)
    {
      const auto *x_error = reinterpret_cast<const xcb_generic_error_t *> (event);
      g_debug ("Ignoring X error %u of request %u.%u", x_error->error_code, x_error->major_code, x_error->minor_code);
      return FALSE;
    }

  if (reader->damage_event_base != 0 && type == reader->damage_event_base + XCB_DAMAGE_NOTIFY)
    {
      const auto *notify = reinterpret_cast<const xcb_damage_notify_event_t *> (event);
      if (notify->level == XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY)
        reader->have_damage = TRUE;
      return FALSE;
    }

  if (reader->randr_event_base != 0 && type == reader->randr_event_base + XCB_RANDR_NOTIFY)
    {
      g_debug ("received RandR notify");
      return TRUE;
    }
  if (reader->randr_event_base != 0 && type == reader->randr_event_base + XCB_RANDR_SCREEN_CHANGE_NOTIFY)
    {
      g_debug ("received RandR screen change notify");
      return TRUE;
    }
  if (type == XCB_CONFIGURE_NOTIFY)
    {
      g_debug ("received configure for the root window");
      return TRUE;
    }
  return FALSE;
}

static gboolean
process_events (RyxFrameBufferReaderXcb *reader, gboolean block, GError **error)
{
  gboolean reconfigured = FALSE;

  reader->have_damage = FALSE;
  while (XcbEvent event = get_next_event (reader, block))
    {
      if (process_event (reader, event.get ()))
        reconfigured = TRUE;
      if (reconfigured || reader->have_damage)
        block = FALSE;
    }

  if (xcb_connection_has_error (reader->conn))
    return report_closed_connection (error);
  if (reconfigured)
    {
      g_set_error_literal (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_NEEDS_RECONFIGURE,
                           "Root window reconfigured");
      return FALSE;
    }
  return TRUE;
}

/* The destination of a copy: where the area's pixel of that root-window position lies in the pixmap. */
static int16_t
pixmap_position (guint32 position, guint32 origin)
{
  return static_cast<int16_t> (position - origin);
}

static void
grab_rect (RyxFrameBufferReaderXcb *reader, const RyxRect *rect)
{
  g_assert (reader->use_shm && reader->use_shm_pixmaps);

  xcb_copy_area (reader->conn, reader->root, reader->shm_pixmap, reader->gc, rect->x, rect->y,
                 pixmap_position (rect->x, reader->rect.x), pixmap_position (rect->y, reader->rect.y), rect->width,
                 rect->height);
}

static gboolean
grab_rect_checked (RyxFrameBufferReaderXcb *reader, const RyxRect *rect, GError **error)
{
  g_assert (reader->use_shm && reader->use_shm_pixmaps);

  XcbError x_error = await_check (
    reader->conn, xcb_copy_area_checked (reader->conn, reader->root, reader->shm_pixmap, reader->gc, rect->x, rect->y,
                                         pixmap_position (rect->x, reader->rect.x),
                                         pixmap_position (rect->y, reader->rect.y), rect->width, rect->height));
  if (x_error)
    {
      set_error_from_xcb_error (error, RYX_FRAME_BUFFER_READER_ERROR_SHM_FAILED, "Failed to copy area", x_error);
      return FALSE;
    }

  /* A check that a broken connection left unanswered looks like success. */
  return xcb_connection_has_error (reader->conn) ? report_closed_connection (error) : TRUE;
}

static gboolean
grab_shm_image (RyxFrameBufferReaderXcb *reader, GError **error)
{
  auto [reply, x_error] = await_reply (reader->conn,
                                       xcb_shm_get_image (reader->conn, reader->root, reader->rect.x, reader->rect.y,
                                                          reader->rect.width, reader->rect.height, 0xFFFFFFFF,
                                                          XCB_IMAGE_FORMAT_Z_PIXMAP, reader->shm_segment, 0),
                                       xcb_shm_get_image_reply);

  if (!reply)
    {
      set_error_from_xcb_error (error, RYX_FRAME_BUFFER_READER_ERROR_SHM_FAILED, "Failed to get shm image", x_error);
      reader->use_shm = FALSE;
      drop_prev_frame (reader);
    }
  return reply != nullptr;
}

static gboolean
ensure_framebuffer (RyxFrameBufferReaderXcb *reader, gsize needed, GError **error)
{
  if (reader->framebuffer && needed <= reader->framebuffer_size)
    return TRUE;

  /* An area without pixels has a buffer too: no memory at all would look like a failure. */
  auto *grown = static_cast<guint8 *> (g_try_realloc (reader->framebuffer, MAX (needed, 1)));
  if (!grown)
    {
      g_set_error_literal (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_FAILED,
                           "Failed to allocate frame buffer");
      return FALSE;
    }
  reader->framebuffer = grown;
  reader->framebuffer_size = needed;
  return TRUE;
}

static gboolean
grab_image (RyxFrameBufferReaderXcb *reader, GError **error)
{
  const gsize needed = static_cast<gsize> (reader->rect.height) * reader->rect.width * reader->pixel_size;
  if (!ensure_framebuffer (reader, needed, error))
    return FALSE;

  auto [image, x_error]
    = await_reply (reader->conn,
                   xcb_get_image (reader->conn, XCB_IMAGE_FORMAT_Z_PIXMAP, reader->root, reader->rect.x, reader->rect.y,
                                  reader->rect.width, reader->rect.height, 0xFFFFFFFF),
                   xcb_get_image_reply);
  if (!image)
    {
      if (x_error && x_error->error_code == XCB_MATCH)
        set_error_from_xcb_error (error, RYX_FRAME_BUFFER_READER_ERROR_NEEDS_RECONFIGURE,
                                  "Failed to get image, needs reconfigure", x_error);
      else
        set_error_from_xcb_error (error, RYX_FRAME_BUFFER_READER_ERROR_FAILED, "Failed to get image", x_error);
      drop_prev_frame (reader);
      return FALSE;
    }

  const gsize length = MIN (static_cast<gsize> (MAX (xcb_get_image_data_length (image.get ()), 0)), needed);
  reader->bytes_per_line = reader->pixel_size * reader->rect.width;
  memcpy (reader->framebuffer, xcb_get_image_data (image.get ()), length);
  /* What was in that memory before is nobody else's business. */
  memset (reader->framebuffer + length, 0, needed - length);
  return TRUE;
}

static gboolean
grab_screen (RyxFrameBufferReaderXcb *reader, GError **error)
{
  if (uses_shared_pixmap (reader))
    return grab_rect_checked (reader, &reader->rect, error);
  if (reader->use_shm)
    return grab_shm_image (reader, error);
  return grab_image (reader, error);
}

static GrabResult
capture_by_comparison (RyxFrameBufferReaderXcb *reader, guint32 block_size, Capture *capture, GError **error)
{
  if (!grab_screen (reader, error))
    return FAILED;

  if (!reader->prev_frame)
    {
      capture->diffmap = ryx_diffmap_new_all_set (reader->rect.width, reader->rect.height, block_size);
      return GRABBED;
    }

  guint32 n_changed = 0;
  capture->diffmap = ryx_diffmap_new_from_images (
    ryx_frame_data_get_data (reader->prev_frame), current_framebuffer (reader), reader->rect.width, reader->rect.height,
    reader->rect.width, reader->bytes_per_line / reader->pixel_size, block_size, &n_changed);
  return n_changed != 0 ? GRABBED : EMPTY;
}

static guint32
mark_damage (RyxFrameBufferReaderXcb *reader, RyxDiffmap *diffmap, RyxRect rect)
{
  if (!ryx_rect_intersection (&rect, &reader->rect, &rect))
    return 0;

  rect.x -= reader->rect.x;
  rect.y -= reader->rect.y;
  return ryx_diffmap_set_image_rect (diffmap, &rect, 1);
}

/* Marks all damaged rectangles and, with a shared pixmap, copies them. The server handles the copies in
 * order, so the check of the last one answers for all. */
static GrabResult
take_damage (RyxFrameBufferReaderXcb *reader, const xcb_xfixes_fetch_region_reply_t *region, RyxDiffmap *diffmap,
             guint32 *n_dirty, GError **error)
{
  const xcb_rectangle_t *rectangles = xcb_xfixes_fetch_region_rectangles (region);
  const int n_rectangles = xcb_xfixes_fetch_region_rectangles_length (region);

  for (int i = 0; i < n_rectangles; i++)
    {
      const RyxRect rect = { static_cast<guint32> (rectangles[i].x), static_cast<guint32> (rectangles[i].y),
                             rectangles[i].width, rectangles[i].height };

      if (uses_shared_pixmap (reader) && i < n_rectangles - 1)
        grab_rect (reader, &rect);
      else if (uses_shared_pixmap (reader) && !grab_rect_checked (reader, &rect, error))
        return FAILED;
      *n_dirty += mark_damage (reader, diffmap, rect);
    }

  if (*n_dirty == 0)
    return EMPTY;
  if (!uses_shared_pixmap (reader) && !grab_screen (reader, error))
    return FAILED;
  return GRABBED;
}

static GrabResult
capture_damage (RyxFrameBufferReaderXcb *reader, guint32 block_size, Capture *capture, GError **error)
{
  XcbServerGrab grab (reader->conn);
  xcb_damage_subtract (reader->conn, reader->damage, XCB_NONE, reader->damage_region);

  if (!reader->prev_frame)
    {
      capture->diffmap = ryx_diffmap_new_all_set (reader->rect.width, reader->rect.height, block_size);
      return grab_screen (reader, error) ? GRABBED : FAILED;
    }

  capture->diffmap = ryx_diffmap_new_all_zero (reader->rect.width, reader->rect.height, block_size);
  if (!reader->have_damage)
    return EMPTY;

  auto region = await_reply (reader->conn, xcb_xfixes_fetch_region (reader->conn, reader->damage_region),
                             xcb_xfixes_fetch_region_reply)
                  .reply;
  if (!region)
    return EMPTY;

  /* An image of the whole area may have what no damage told of. */
  capture->wrote_elsewhere = !uses_shared_pixmap (reader);

  guint32 n_dirty = 0;
  const GrabResult result = take_damage (reader, region.get (), capture->diffmap, &n_dirty, error);
  const gint32 threshold = ryx_frame_buffer_reader_get_diffmap_refine_threshold (RYX_FRAME_BUFFER_READER (reader));
  capture->refine = result == GRABBED && threshold >= 0 && n_dirty > static_cast<guint32> (threshold);
  return result;
}

static guint32
refine_diffmap (RyxFrameBufferReaderXcb *reader, RyxDiffmap *diffmap, RyxFrameData *frame_data)
{
  const gint32 stride = reader->bytes_per_line / 4;
  guint32 n_changed = 0;

  g_assert (reader->use_damage);
  g_assert (reader->prev_frame != NULL);

  ryx_diffmap_refine_from_images (diffmap, ryx_frame_data_get_data (reader->prev_frame),
                                  ryx_frame_data_get_data (frame_data), reader->rect.width, reader->rect.height, stride,
                                  stride, &n_changed);
  return n_changed;
}

static RyxCapturedFrame *
report_empty_frame (GError **error)
{
  g_set_error_literal (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_EMPTY_FRAME, "Empty frame");
  return nullptr;
}

static RyxCapturedFrame *
make_frame (RyxFrameBufferReaderXcb *reader, const Capture *capture, GError **error)
{
  const RyxPixelFormat format = reader->pixel_size == 4 ? RYX_PIXEL_FORMAT_BGRA : RYX_PIXEL_FORMAT_BGR;

  if (reader->frame_is_up_to_date && !capture->wrote_elsewhere)
    ryx_allocator_expect_changes (reader->allocator, capture->diffmap);
  g_autoptr (RyxFrameData) frame_data
    = ryx_frame_data_new_with_stride (reader->allocator, current_framebuffer (reader), reader->bytes_per_line,
                                      reader->rect.width, reader->rect.height, format);

  reader->frame_is_up_to_date = frame_data != NULL;
  if (!frame_data)
    {
      g_set_error_literal (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_FAILED,
                           "Failed to allocate frame buffer");
      return nullptr;
    }
  if (capture->refine && reader->pixel_size == 4 && refine_diffmap (reader, capture->diffmap, frame_data) == 0)
    return report_empty_frame (error);

  RyxCapturedFrame *frame
    = ryx_captured_frame_new (ryx_frame_buffer_reader_get_screen_id (RYX_FRAME_BUFFER_READER (reader)), frame_data,
                              capture->diffmap, reader->frame_timestamp);
  drop_prev_frame (reader);
  reader->prev_frame = g_steal_pointer (&frame_data);
  return frame;
}

static gboolean
is_configured (const RyxFrameBufferReaderXcb *reader)
{
  return reader->pixel_size != 0 && (!reader->use_shm || reader->shm_framebuffer);
}

static void
wait_for_sampling_interval (const RyxFrameBufferReaderXcb *reader)
{
  const gint64 elapsed = g_get_monotonic_time () - reader->frame_timestamp;

  if (elapsed < reader->sampling_interval)
    g_usleep (reader->sampling_interval - elapsed);
}

static RyxCapturedFrame *
ryx_frame_buffer_reader_xcb_grab_frame (RyxFrameBufferReader *base, GError **error)
{
  RyxFrameBufferReaderXcb *reader = RYX_FRAME_BUFFER_READER_XCB (base);
  const guint32 block_size = ryx_frame_buffer_reader_get_block_size (base);

  g_assert (block_size != 0);

  if (!is_configured (reader))
    {
      g_set_error_literal (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_NEEDS_RECONFIGURE,
                           "Reader is not configured");
      return nullptr;
    }

  wait_for_sampling_interval (reader);
  if (!process_events (reader, reader->use_damage && reader->prev_frame, error))
    return nullptr;
  reader->frame_timestamp = g_get_monotonic_time ();

  Capture capture;
  const GrabResult result = reader->use_damage ? capture_damage (reader, block_size, &capture, error)
                                               : capture_by_comparison (reader, block_size, &capture, error);
  switch (result)
    {
    case EMPTY:
      return report_empty_frame (error);
    case FAILED:
      reader->frame_is_up_to_date = FALSE; /* some of the damage may have been copied */
      return nullptr;
    case GRABBED:
      return make_frame (reader, &capture, error);
    }
  g_assert_not_reached ();
}

/* Life */

static void
ryx_frame_buffer_reader_xcb_finalize (GObject *object)
{
  RyxFrameBufferReaderXcb *reader = RYX_FRAME_BUFFER_READER_XCB (object);

  g_free (reader->framebuffer);
  detach_shm (reader);
  if (reader->gc)
    xcb_free_gc (reader->conn, reader->gc);
  g_clear_pointer (&reader->conn, xcb_disconnect); /* takes Damage and the region along */
  drop_prev_frame (reader);
  g_clear_pointer (&reader->allocator, ryx_allocator_unref);
  G_OBJECT_CLASS (ryx_frame_buffer_reader_xcb_parent_class)->finalize (object);
}

static void
ryx_frame_buffer_reader_xcb_class_init (RyxFrameBufferReaderXcbClass *klass)
{
  RyxFrameBufferReaderClass *reader_class = RYX_FRAME_BUFFER_READER_CLASS (klass);

  G_OBJECT_CLASS (klass)->finalize = ryx_frame_buffer_reader_xcb_finalize;
  reader_class->setup = ryx_frame_buffer_reader_xcb_setup;
  reader_class->configure = ryx_frame_buffer_reader_xcb_configure;
  reader_class->grab_frame = ryx_frame_buffer_reader_xcb_grab_frame;
}

static void
ryx_frame_buffer_reader_xcb_class_finalize (RyxFrameBufferReaderXcbClass *)
{
}

static void
ryx_frame_buffer_reader_xcb_init (RyxFrameBufferReaderXcb *reader)
{
  reader->allocator = ryx_allocator_new ();
}

void
ryx_frame_buffer_reader_xcb_register (GIOModule *module)
{
  ryx_frame_buffer_reader_xcb_register_type (G_TYPE_MODULE (module));
}
