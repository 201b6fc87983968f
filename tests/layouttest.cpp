#include <gtest/gtest.h>
#include <ryx/ryx.h>
#include <xcb/randr.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "capture.h"
#include "ctl.h"
#include "faultproxy.h"
#include "layout.h"
#include "logrecorder.h"
#include "xserver.h"

class LayoutTest : public testing::Test
{
protected:
  explicit LayoutTest (XServer::Kind kind = XServer::XORG_DUMMY) : server (kind) {}

  std::string
  request (const char *geometries)
  {
    std::string error = request_layout (geometries);
    EXPECT_TRUE (observer.look ()) << "The server is still grabbed?";
    return error;
  }

  XServer server;
  FaultProxy proxy{ server };
  GdkDisplayScope gdk{ proxy.display () };
  XcbClient client{ server.display () };
  LayoutObserver observer{ client };
  LogRecorder log;
};

/* "status": the request says that it failed, though the server has done it. */
static const FaultKinds kinds = {
  { "old", { .patch = { X_FIELD (xcb_randr_query_version_reply_t, minor_version, 1) } } },
  { "status", { .patch = { X_FIELD (xcb_randr_set_crtc_config_reply_t, status, XCB_RANDR_SET_CONFIG_FAILED) } } },
  { "no modes of its own", { .patch = { X_FIELD (xcb_randr_get_output_info_reply_t, num_modes, 0) } } },
  { "unsent modes", { .patch = { X_FIELD (xcb_randr_get_screen_resources_reply_t, num_modes, 65535) } } },
  { "no modes", { .patch = { X_FIELD (xcb_randr_get_screen_resources_reply_t, num_modes, 0) } } },
  { "no crtcs", { .patch = { X_FIELD (xcb_randr_get_screen_resources_reply_t, num_crtcs, 0) } } },
  { "unplugged", { .patch = { X_FIELD (xcb_randr_get_output_info_reply_t, connection, 1) } } },
  { "unsent outputs", { .patch = { X_FIELD (xcb_randr_get_crtc_info_reply_t, num_outputs, 65535) } } },
};

static const char domain[] = "RYX:x11:display";
static const char one[] = "1024x768+0+0";
static const char two[] = "1280x720+0+0 800x600+1280+0";
static const char two_heads[] = "2080x720: DUMMY0 1280x720+0+0, DUMMY1 800x600+1280+0";
static const char made[] = "1000x700+0+0 800x600+1000+0"; /* needs a new mode */
static const char made_heads[] = "1800x696: DUMMY0 1000x696+0+0, DUMMY1 800x600+1000+0";
static const char fallback_heads[] = "1800x696: DUMMY0 832x624+0+0, DUMMY1 800x600+1000+0";
static const char start_heads[] = "2560x1024: DUMMY0 1280x1024+0+0, DUMMY1 1280x1024+1280+0";
static const char only_second[] = "2080x720: DUMMY1 800x600+1280+0";
static const char rolled_back[] = "Rollback to previous layout";
static const char no_crtc_info[] = "Failed to get CRTC info for CRTC ";

struct RequestCase
{
  const char *before; /* NULL: what the server starts with */
  const char *request;
  const char *heads; /* afterwards; NULL: as before, mode by mode */
  const char *faults = "";
  const char *error = ""; /* its beginning; "": the request succeeds */
  const char *log = "";
};

class LayoutRequestTest : public LayoutTest, public testing::WithParamInterface<RequestCase>
{
};

TEST_P (LayoutRequestTest, LeavesWhatWasAskedForOrWhatWasThere)
{
  const auto &[before, geometries, heads, faults, error, logged] = GetParam ();

  ASSERT_EQ (before ? request (before) : "", "");
  const auto layout_before = std::pair (observer.heads, observer.mode_ids);
  log.clear ();
  proxy.add (faults, kinds);

  const std::string message = request (geometries);
  SCOPED_TRACE (testing::Message () << before << " -> " << geometries << ", " << faults);
  EXPECT_TRUE (message.starts_with (error) && message.empty () == !*error) << message;
  EXPECT_NE (log.dump ().find (logged), std::string::npos) << "Nothing was logged like: " << logged;
  if (heads)
    EXPECT_EQ (observer.heads, heads);
  else
    EXPECT_EQ (std::pair (observer.heads, observer.mode_ids), layout_before);
}

static const RequestCase request_cases[] = {
  { nullptr, "1280x1024+0+0 1280x1024+1280+0", start_heads },
  { nullptr, "1600x1200+0+0 800x600+1600+0", "2400x1200: DUMMY0 1600x1200+0+0, DUMMY1 800x600+1600+0" },
  { nullptr, "1000x704+0+0 904x800+1000+0", "1904x800: DUMMY0 1000x704+0+0, DUMMY1 904x800+1000+0" },
  { nullptr, "5000x3005+0+0 800x600+0+3000", "4096x3600: DUMMY0 4096x3000+0+0, DUMMY1 800x600+0+3000" },
  { nullptr, "1366x768+0+0 800x600+1366+0", "2166x768: DUMMY0 1360x768+0+0, DUMMY1 800x600+1366+0" },
  { nullptr, "300x200+0+0 0x0+640+0", "1280x480: DUMMY0 640x480+0+0, DUMMY1 640x480+640+0" },
  { nullptr, "800x600+400+1500 640x480+3000+10", "3640x2100: DUMMY0 800x600+400+1500, DUMMY1 640x480+3000+10" },
  { nullptr, "800x600+640+0 640x480+0+0", "1440x600: DUMMY0 800x600+640+0, DUMMY1 640x480+0+0" },
  { two, one, "1024x768: DUMMY0 1024x768+0+0" },
  { one, "1920x1080+0+0 1920x1080+1920+0", "3840x1080: DUMMY0 1920x1080+0+0, DUMMY1 1920x1080+1920+0" },
  { two, "", "640x480:" },
  { "", two, two_heads },
  { two, "800x600+0+0 800x600+800+0 800x600+1600+0", nullptr, "",
    "Unsupported configuration (3 display heads requested, 2 monitors available)", rolled_back },
  { two, "800x600-100+0 800x600+700+0", nullptr, "", "Failed to enable CRTC 62 (", rolled_back },
  /* A new mode, or what there is in its place */
  { two, "1448x1056+0+0 800x600+1448+0", "2248x1056: DUMMY0 1400x1050+0+0, DUMMY1 800x600+1448+0", "RRCreateMode 1", "",
    "Failed to create mode 1448x1056_59.8" },
  { two, made, nullptr, "RRCreateMode 1; RRGetOutputInfo 1 no modes of its own",
    "Cannot find a mode for CRTC 62 to set the layout" },
  { two, made, fallback_heads, "RRAddOutputMode 1", "",
    "Failed to add output mode 1000x696_59.867443-78_ryx for CRTC" },
  { two, made, fallback_heads, "RRSetCrtcConfig 17", "", "(response_type: 0 error_code: 2)), trying fallback" },
  { two, made, fallback_heads, "RRSetCrtcConfig 17 status", "", "enable CRTC 62 (status 3)), trying fallback" },
  { two, made, nullptr, "RRSetCrtcConfig 17; RRSetCrtcConfig 18", "Failed to enable CRTC 62 (", rolled_back },
  { two, made, nullptr, "RRSetCrtcConfig 18; RRSetCrtcConfig 19", "Failed to enable CRTC 63 (", rolled_back },
  /* What is not there, or not any more */
  { two, made, "2080x720:", "RRGetScreenResources 1 no modes; RRSetScreenSize 1", "Failed to set the screen size",
    "Cannot find current mode id for CRTC 62 for rollback" },
  { one, two, nullptr, "RRGetOutputInfo 0 unplugged", "Unsupported configuration (2 " },
  { one, two, "2304x1024: DUMMY0 1024x768+0+0, DUMMY1 1280x1024+1024+0", "RRGetScreenResources 2 no crtcs",
    "Unsupported configuration (2 display heads requested, 0 ", "to previous screen size: Failed" },
  /* Lists that do not end where their replies do */
  { two, made, made_heads, "RRGetScreenResources 0 unsent modes" },
  { one, two, two_heads, "RRGetCrtcInfo 33 unsent outputs" },
  /* The size of the screen */
  { two, made, made_heads, "GetGeometry 1", "", "for rollback: Cannot get screen geometry (" },
  { two, made, nullptr, "RRSetScreenSize 1", "Failed to set the screen size 1800x696 (", rolled_back },
  { two, made, nullptr, "RRGetScreenSizeRange 1", "Unable to get screen size range (", rolled_back },
  { two, made, nullptr, "RRSetScreenSize 1; RRSetCrtcConfig 17", "Failed to set the s",
    "disable CRTCs for rollback: " },
  /* The CRTCs as they are */
  { two, made, nullptr, "RRGetScreenResources 1", "Failed to get screen resources (" },
  { two, made, nullptr, "RRGetCrtcInfo 1", no_crtc_info },
  { two, made, made_heads, "RRGetCrtcInfo 17", "", "for rollback (response_type: 0 error_code: 2)" },
  { two, made, "1000x696: DUMMY1 1000x696+0+0", "RRGetOutputInfo 1", "", "skipping" },
  { two, made, nullptr, "RRSetCrtcConfig 1", "Failed to disable CRTC (response_type: 0 error_code: 2)" },
  /* One more monitor: each output of this server goes with one CRTC only */
  { one, two, nullptr, "RRGetOutputInfo 1", "Unsupported configuration (2 display heads", "skipping" },
  { one, two, nullptr, "RRSetScreenSize 1", "Unsupported configuration (2 ",
    "screen size to 2304x1024 for new monitor (" },
  { one, two, nullptr, "RRSetCrtcConfig 1", "Unsupported configuration (2 ", "Cannot enable new monitor 63-79 (" },
  { one, two, nullptr, "RRSetCrtcConfig 0", "Unsupported configuration (2 ", "Cannot enable CRTC 62 for rollback (" },
  { one, two, nullptr, "RRGetScreenResources 2", "Failed to update screen resources (", rolled_back },
  { one, two, nullptr, "RRGetCrtcInfo 49", no_crtc_info, rolled_back },
  /* One less */
  { two, one, "1024x768: DUMMY1 1024x768+0+0", "RRSetCrtcConfig 1", "", "Cannot disable monitor with CRTC 63 (" },
  { two, one, nullptr, "RRSetCrtcConfig 1; RRSetCrtcConfig 2", "Unsupported configuration (1 display ", rolled_back },
  { two, one, nullptr, "RRSetCrtcConfig 2", "Failed to disable CRTC (", rolled_back },
  /* Modes of an earlier layout */
  { made, two, two_heads, "RRDeleteOutputMode 1", "", "Cannot delete old modes: Failed to remove mode 1000x696_59.8" },
  { made, two, two_heads, "RRDestroyMode 1", "", "Cannot delete old modes: Failed to delete mode 1000x696_59.8" },
  /* Not restored: the switch-off stopped half-way, ... */
  { two, made, only_second, "RRSetCrtcConfig 2", "Failed to disable CRTC (" },
  { two, made, only_second, "RRSetCrtcConfig 1 status", "Failed to disable CRTC (status 3)" },
  { two, "", "2080x720: DUMMY0 1280x720+0+0", "RRGetCrtcInfo 48", no_crtc_info, "Disabled monitor with CRTC 63" },
  /* ... what to restore is not known, ... */
  { two, made, only_second, "RRGetCrtcInfo 17; RRSetScreenSize 1", "Failed to set the screen size", rolled_back },
  { two, made, "2080x720:", "GetGeometry 1; RRSetScreenSize 1", "Failed to set the screen size" },
  /* ... or the server refuses that, too. */
  { two, made, "2080x720:", "RRSetScreenSize 0", "Failed to set the screen size", "to previous screen size: Failed" },
  { two, made, only_second, "RRSetScreenSize 1; RRSetCrtcConfig 33", "Failed to set ", "CRTC 62 for rollback (" },
};

INSTANTIATE_TEST_SUITE_P (All, LayoutRequestTest, testing::ValuesIn (request_cases));

TEST_F (LayoutTest, AModeIsMadeOnceUsedAgainAndTakenAway)
{
  EXPECT_EQ (request (made), "");
  EXPECT_EQ (observer.own_modes, "1000x696_59.867443-78_ryx@DUMMY0 55750000: 1048 1144 1288, 699 709 723, 6\n");
  const XcbClient late (server.display ()); /* only a connection's set-up tells millimetres */
  EXPECT_EQ (late.screen->width_in_millimeters, 476);
  EXPECT_EQ (late.screen->height_in_millimeters, 184);

  const std::string mode_ids = observer.mode_ids;
  EXPECT_EQ (request ("1000x700+800+0 800x600+0+0"), "");
  EXPECT_EQ (observer.mode_ids, mode_ids);

  /* It is another output's. */
  EXPECT_EQ (request ("800x600+0+0 1000x700+800+0"), "");
  EXPECT_EQ (observer.own_modes, "1000x696_59.867443-79_ryx@DUMMY1 55750000: 1048 1144 1288, 699 709 723, 6\n");
  EXPECT_EQ (request ("1280x1024+0+0 1280x1024+1280+0"), "");
  EXPECT_EQ (observer.own_modes, "");
  EXPECT_TRUE (observer.mode_ids.starts_with (" 94 114 ")) << "Two modes of one list: " << observer.mode_ids;
}

TEST_F (LayoutTest, AForeignModeWithAnOwnNameIsNeitherUsedNorDeleted)
{
  xcb_randr_mode_info_t mode = {};
  mode.width = 1000;
  mode.height = 696;
  mode.name_len = strlen ("bogus_ryx");
  xcb_randr_create_mode (client.conn, client.root, mode, mode.name_len, "bogus_ryx");
  ASSERT_TRUE (client.round_trip ());

  EXPECT_EQ (request (made), "");
  EXPECT_EQ (observer.heads, made_heads);
  EXPECT_TRUE (log.contains (domain, G_LOG_LEVEL_INFO, "Cannot parse mode name bogus_ryx"));
  EXPECT_TRUE (log.contains (domain, G_LOG_LEVEL_WARNING, "old modes: Cannot parse mode name bogus_ryx"));
}

TEST_F (LayoutTest, AHundredLayoutsLeaveNothingBehindAndDisturbNobody)
{
  const char *const layouts[] = { made, two, made, "1365x768+0+0", "1366x768+0+0 1365x768+1366+0", "1920x1080+0+0" };
  std::atomic_bool done = false;
  std::atomic_int n_looks = 0;
  std::thread witness ([&] {
    XcbClient client (server.display ());
    for (LayoutObserver observer (client); !done; n_looks++)
      ASSERT_TRUE (observer.look ());
  });

  for (int i = 0; i < 100 && !HasFailure (); i++)
    {
      EXPECT_EQ (request (layouts[i % std::size (layouts)]), "") << i;
      EXPECT_TRUE (wait_until ([&] { return n_looks >= i; })) << "The witness starves";
    }
  done = true;
  witness.join ();
  EXPECT_FALSE (log.contains (nullptr, G_LOG_LEVEL_WARNING, ""));
  EXPECT_EQ (observer.heads, "1360x768: DUMMY0 1360x768+0+0");
  EXPECT_EQ (observer.own_modes, "1360x768_59.798992-78_ryx@DUMMY0 84750000: 1432 1568 1776, 771 781 798, 6\n");
}

TEST_F (LayoutTest, WorksUnderOneGrabAndPutsANewMonitorToTheRight)
{
  const unsigned right_of_one
    = proxy.add ({ .request = "RRSetCrtcConfig", .when = [] (const Bytes &request) {
                    return as<xcb_randr_set_crtc_config_request_t> (request.data ())->x == 1024;
                  } });

  EXPECT_EQ (request (one), "");
  const auto trace = proxy.record ([&] { request (made); });
  EXPECT_EQ (std::ranges::count (trace, "GrabServer") + std::ranges::count (trace, "UngrabServer"), 2);
  EXPECT_EQ (trace[0] + " " + trace[1] + " " + trace.back (), "RRQueryVersion GrabServer UngrabServer");
  EXPECT_EQ (proxy.hits (right_of_one), 1u);
}

TEST_F (LayoutTest, AnInterruptedProgramFinishesTheLayout)
{
  std::atomic<CtlRun *> started = nullptr;

  proxy.add ({ .request = "RRSetScreenSize", .when = [&] (const Bytes &) {
                while (!started)
                  g_thread_yield ();
                started.load ()->interrupt ();
                return false;
              } });
  CtlRun run (proxy.display (), { "layout", "1024x768+0+0" });
  started = &run;
  EXPECT_EQ (run.status (), -1);
  EXPECT_TRUE (observer.look ());
  EXPECT_EQ (observer.heads, "1024x768: DUMMY0 1024x768+0+0");
}

TEST_F (LayoutTest, NeedsRandR12)
{
  proxy.add ("RRQueryVersion 0 old", kinds);
  EXPECT_EQ (request (one), "RandR version is too old (1.1, 1.2 required)");
  proxy.add ("RRQueryVersion 1");
  EXPECT_EQ (request (one), "Failed to get RandR version");
  const GdkDisplayScope fresh (proxy.display ()); /* a connection that has not asked for the extension yet */
  proxy.add (hiding ("RANDR"));
  EXPECT_EQ (request (one), "RandR extension not available");
  EXPECT_EQ (observer.heads, start_heads);
}

TEST_F (LayoutTest, ResizesTheScreenWhereThereAreNoCrtcs)
{
  const auto take_crtcs = [] (Bytes &reply) {
    auto &n_crtcs = as<xcb_randr_get_screen_resources_reply_t> (reply.data ())->num_crtcs;
    reply.erase (reply.begin () + 32, reply.begin () + 32 + 4 * n_crtcs);
    n_crtcs = 0;
  };

  EXPECT_EQ (request (""), "");
  proxy.add ({ .request = "RRGetScreenResources", .edit = take_crtcs });
  EXPECT_EQ (request ("1366x767+50+60"), "");
  EXPECT_EQ (observer.heads, "1360x760:");
  EXPECT_EQ (request (two), "Unsupported configuration (2 display heads requested but no CRTCs available)");
  proxy.add ("RRSetScreenSize 1");
  EXPECT_EQ (request (one), "Failed to set the screen size 1024x768 (response_type: 0 error_code: 2)");
  EXPECT_TRUE (log.contains (domain, G_LOG_LEVEL_INFO, "Rollback to previous screen size"));
  EXPECT_EQ (observer.heads, "1360x760:");
}

class XvfbLayoutTest : public LayoutTest
{
protected:
  XvfbLayoutTest () : LayoutTest (XServer::XVFB) {}
};

TEST_F (XvfbLayoutTest, DoesWhatAServerOfOneModeCan)
{
  if (!XServer::stand_in ().empty ())
    GTEST_SKIP () << "other servers have more than one mode";
  static const struct
  {
    const char *request, *error, *heads;
  } cases[] = {
    { "1280x1024+0+0", "", "1280x1024: screen 1280x1024+0+0" },
    { "900x600+0+0", "", "896x600: screen 896x600+0+0" },
    { two, "Unsupported configuration (2 display heads requested, 1 monitors available)",
      "896x600: screen 896x600+0+0" },
    { "1366x768+0+0", "Cannot find a mode for CRTC 59 to set the layout", "896x600: screen 896x600+0+0" },
    { "2000x1500+0+0", "", "1280x1024: screen 1280x1024+0+0" }, /* the largest that it has */
  };

  for (const auto &[geometries, error, heads] : cases)
    {
      EXPECT_EQ (request (geometries), error);
      EXPECT_EQ (observer.heads, heads) << geometries;
    }
}
