#include <gtest/gtest.h>

#include "logrecorder.h"
#include "sweep.h"

#include <X11/Xcursor/Xcursor.h>
#include <X11/extensions/Xfixes.h>
#include <gdk/gdkx.h>
#include <xcb/xfixes.h>

using Pixels = std::vector<XcursorPixel>;
using Reply = xcb_xfixes_get_cursor_image_reply_t;
/* Position, id, width, height, hotspot, pixels, whether the cache has it only now, whom it evicted. */
using Report = std::tuple<guint, guint, guint64, guint, guint, guint, guint, std::vector<guint8>, bool, guint64>;

static const auto find_timer = g_main_context_find_source_by_user_data;

/* A started monitor, and what it says. */
struct Listener
{
  explicit Listener (guint cache_size = 64)
  {
    const auto moved = +[] (Listener *self, guint x, guint y) { self->x = x, self->y = y; };
    const auto changed = +[] (Listener *self, RyxCursor *it, gboolean is_new, guint64 evicted) {
      gsize size;
      const auto *bytes = static_cast<const guint8 *> (g_bytes_get_data (ryx_cursor_get_pixels (it), &size));
      self->reports.emplace_back (self->x, std::exchange (self->y, G_MAXUINT), ryx_cursor_get_id (it),
                                  ryx_cursor_get_width (it), ryx_cursor_get_height (it), ryx_cursor_get_hotspot_x (it),
                                  ryx_cursor_get_hotspot_y (it), std::vector (bytes, bytes + size), is_new, evicted);
    };
    const auto retrieved = +[] (Listener *self, RyxCursor *it) { self->answers.push_back (ryx_cursor_get_id (it)); };
    const auto invalidated = +[] (Listener *self) { self->answers.push_back (0); };

    load_module ();
    monitor = RYX_POINTER_MONITOR (ryx_host_create (RYX_POINTER_MONITOR_EXTENSION_POINT, "pointermonitorxcb", nullptr,
                                                    "cursor-cache-size", cache_size, nullptr));
    g_object_connect (monitor, "swapped-signal::cursor-moved", moved, this, "swapped-signal::cursor-changed", changed,
                      this, "swapped-signal::cursor-retrieved", retrieved, this,
                      "swapped-signal::cursor-cache-invalidated", invalidated, this, nullptr);
    ryx_pointer_monitor_start (monitor);
  }
  ~Listener () { g_clear_object (&monitor); }

  RyxPointerMonitor *monitor;
  guint x, y;
  std::vector<Report> reports;
  std::vector<guint64> answers; /* ids retrieved; 0: the cache was invalidated */
};

/* The monitor's connection leads through the proxy; the client, which shows cursors and asks XFixes, has its own. */
class CursorTest : public testing::TestWithParam<XServer::Kind>
{
protected:
  ~CursorTest () { XCloseDisplay (client); }

  Cursor
  create (guint width = 4, guint height = 4, Pixels pixels = Pixels (16))
  {
    XcursorImage image = { XCURSOR_IMAGE_VERSION, width, width, height, width - 1, height - 1, 0, pixels.data () };
    return XcursorImageLoadCursor (client, &image);
  }

  /* Shows a cursor, then expects what XFixes tells the client, or the pixels that it set. Returns the cursor's id. */
  guint64
  expect_report (Listener &listener, Cursor cursor, bool is_new = true, guint64 evicted = 0, int x = 1, int y = 1,
                 Pixels pixels = {})
  {
    XDefineCursor (client, DefaultRootWindow (client), cursor);
    XWarpPointer (client, None, DefaultRootWindow (client), 0, 0, 0, 0, x, y);
    std::unique_ptr<XFixesCursorImage, decltype (&XFree)> seen (XFixesGetCursorImage (client), XFree);
    if (pixels.empty ())
      pixels.assign (seen->pixels, seen->pixels + seen->width * seen->height);
    std::vector<guint8> argb;
    for (const guint32 pixel : pixels)
      for (const guint component : { pixel >> 24, pixel >> 16 & 0xff, pixel >> 8 & 0xff, pixel & 0xff })
        argb.push_back (argb.size () % 4 && pixel >> 24 ? component * 255 / (pixel >> 24) : component);
    listener.reports.clear ();
    wait_until ([&] { return !listener.reports.empty (); });
    EXPECT_EQ (listener.reports, std::vector (1, Report (seen->x, seen->y, seen->cursor_serial, seen->width,
                                                         seen->height, seen->xhot, seen->yhot, argb, is_new, evicted)));
    return seen->cursor_serial;
  }

  XServer server{ GetParam () };
  FaultProxy proxy{ server };
  GdkDisplayScope scope{ proxy.display () };
  LogRecorder log;
  Display *const client = XOpenDisplay (server.display ());
};
INSTANTIATE_TEST_SUITE_P (Servers, CursorTest, testing::Values (XServer::XVFB, XServer::XORG_DUMMY));

TEST_P (CursorTest, ReportsTheClientsCursorsInARoundTripEach)
{
  Listener listener;

  for (auto [width, height] : { std::pair (1, 1), { 24, 24 }, { 64, 64 }, { 300, 5 }, { 256, 256 }, { 512, 512 } })
    {
      Pixels pixels;
      for (int i = 0, alpha = 0; i < width * height; alpha = ++i / width % 256)
        pixels.push_back (alpha << 24 | MIN (i % width, alpha) << 16 | alpha / 2);
      expect_report (listener, create (width, height, pixels), true, 0, width, height, pixels);
    }

  const Cursor arrow = XCreateFontCursor (client, 68);
  expect_report (listener, arrow, true, 0, 5000, 5000);
  /* The server goes on to answer with the cursor that it no longer draws. */
  XFixesHideCursor (client, DefaultRootWindow (client));
  const auto requests = proxy.record ([&] { expect_report (listener, arrow, false, 0, 5000, 5000); });
  EXPECT_EQ (requests, std::vector<std::string>{ "XFixesGetCursorImage" });
}

TEST_P (CursorTest, MonitorsComeAndGoWithTheirCaches)
{
  const Cursor cursors[] = { create (), create (), create () };
  Listener listener (2), other;
  void *const monitor = listener.monitor;

  const guint64 first = expect_report (listener, cursors[0]), second = expect_report (listener, cursors[1]);
  expect_report (listener, cursors[0], false);
  expect_report (listener, cursors[2], true, second);
  expect_report (listener, cursors[1], true, first);
  for (const guint64 id : { first, second, G_MAXUINT64 })
    ryx_pointer_monitor_require_cursor (listener.monitor, id);
  EXPECT_EQ (log.count (nullptr, G_LOG_LEVEL_INFO, "not available in the cursor cache, ignoring require"), 2u);

  ryx_pointer_monitor_stop (listener.monitor);
  ryx_pointer_monitor_stop (listener.monitor);
  EXPECT_FALSE (find_timer (nullptr, monitor));
  ryx_pointer_monitor_start (listener.monitor);
  EXPECT_EQ (listener.answers, (std::vector<guint64>{ 0, second, 0 }));
  expect_report (listener, cursors[1]);
  g_signal_connect_swapped (monitor, "cursor-moved", G_CALLBACK (g_object_unref),
                            std::exchange (listener.monitor, nullptr));
  EXPECT_TRUE (wait_until ([&] { return !find_timer (nullptr, monitor); }) && listener.reports.size () == 2);
  expect_report (other, cursors[0], false);
}

TEST_P (CursorTest, CopesWithAnyAnswer)
{
  const XField serial = X_FIELD (Reply, cursor_serial, 4242), no_size = { offsetof (Reply, width), 4, 0 };
  const std::tuple<FaultRule, GLogLevelFlags, unsigned, const char *> cases[] = {
    { { .patch = { X_FIELD (Reply, cursor_serial, 0) } }, G_LOG_LEVEL_DEBUG, 3, "cursor image is 0, continuing" },
    { { .patch = { serial, X_FIELD (Reply, xhot, 4) } }, G_LOG_LEVEL_DEBUG, 1, "size 4, 4, hotspot 4x3" },
    { { .patch = { serial, no_size } }, G_LOG_LEVEL_DEBUG, 1, "size 0, 0, hotspot 3x3" },
    { { .patch = { serial, X_FIELD (Reply, height, 5) } }, G_LOG_LEVEL_WARNING, 3, "Cannot get cursor pixels" },
    { { .error = XCB_ALLOC }, G_LOG_LEVEL_WARNING, 3, "cursor image (response_type: 0 error_code: 11)" },
  };
  const Cursor visible = create ();
  Listener listener;

  for (const auto &[rule, level, n_messages, message] : cases)
    {
      expect_report (listener, visible, listener.reports.empty ());
      const unsigned polls = proxy.add (rule);
      log.clear ();
      EXPECT_TRUE (wait_until ([&] { return proxy.hits (polls) == 3; }) && listener.reports.size () == 1) << message;
      EXPECT_EQ (log.count (nullptr, level, message), n_messages) << log.dump ();
      proxy.clear ();
    }

  std::vector<guint8> argb = { 0x00, 0x12, 0x34, 0x56, 0x01, 0x01, 0xfe, 0x80 };
  argb.resize (4 * 4 * 4);
  const XField outside = { offsetof (Reply, x), 4, 0xfff9fffb };
  proxy.add ({ .patch = { serial, outside, { 32, 4, 0x00123456 }, { 36, 4, 0x01ff0280 } } });
  listener.reports.clear ();
  wait_until ([&] { return !listener.reports.empty (); });
  EXPECT_EQ (listener.reports, std::vector (1, Report (0, 0, 4242, 4, 4, 3, 3, argb, true, 0)));
}

struct CursorSubject : SweepSubject, Listener
{
  void
  use () override
  {
    EXPECT_TRUE (wait_until ([this, n = reports.size () + 2] { return reports.size () >= n; }));
  }
};

static const SweepScenario cursor_scenario
  = { .name = "cursor", .make = [] (auto &) { return std::make_unique<CursorSubject> (); }, .on_gdk = true };

TEST (CursorServerTest, MayFailAnyRequest)
{
  sweep (cursor_scenario);
}

TEST (CursorServerTest, FuzzedRepliesAreNotBelieved)
{
  fuzz_replies (cursor_scenario, { { "XFixesGetCursorImage" } }, 25);
}

TEST (CursorServerTest, MayHaveNothingToWatch)
{
  LogRecorder log;
  XServer server (XServer::XVFB, { "-extension", "XFIXES" });
  EXPECT_FALSE (find_timer (nullptr, Listener ().monitor));
  EXPECT_EQ (log.count (nullptr, G_LOG_LEVEL_WARNING, "Could not get X11 Display connection"), 1u);

  GdkDisplayScope scope (server.display ());
  Listener listener;
  EXPECT_EQ (listener.answers.size (), 1u);
  EXPECT_TRUE (wait_until ([&] { return !find_timer (nullptr, listener.monitor); }));
  EXPECT_EQ (log.count (nullptr, G_LOG_LEVEL_WARNING, "XFIXES extension not supported"), 1u);
}

TEST (CursorServerTest, MayDie)
{
  const auto lose_the_server = [] {
    XServer server (XServer::XVFB);
    GdkDisplayScope scope (server.display ());
    Listener listener;
    /* GDK's handler would end the process. */
    XSetIOErrorHandler ([] (Display *) { return 0; });
    XSetIOErrorExitHandler (
      GDK_DISPLAY_XDISPLAY (scope.display), [] (auto...) {}, nullptr);
    server.kill ();
    _exit (wait_until ([&] { return !find_timer (nullptr, listener.monitor); }) ? 0 : 1);
  };
  EXPECT_EXIT (lose_the_server (), testing::ExitedWithCode (0), "Could not get XCB connection");
}
