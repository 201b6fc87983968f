#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/randr.h>
#include <xcb/shm.h>

#include "capture.h"
#include "faultproxy.h"
#include "layout.h"
#include "logrecorder.h"

static const char domain[] = "RYX:x11:display";

static std::vector<XField>
position (int x, int y)
{
  return { X_FIELD (xcb_randr_get_crtc_info_reply_t, x, x), X_FIELD (xcb_randr_get_crtc_info_reply_t, y, y) };
}

/* The pixmap format for depth 24. */
static FaultRule
pixel_format (uint8_t bits, uint8_t scanline_pad = 32)
{
  return { .request = "Setup", .edit = [=] (Bytes &reply) {
            auto *setup = as<xcb_setup_t> (reply.data ());

            for (int i = 0; i < xcb_setup_pixmap_formats_length (setup); i++)
              if (xcb_setup_pixmap_formats (setup)[i].depth == 24)
                xcb_setup_pixmap_formats (setup)[i] = { 24, bits, scanline_pad, {} };
          } };
}

static const FaultKinds kinds = {
  { "of RANDR", hiding ("RANDR") },
  { "of XFIXES", hiding ("XFIXES") },
  { "old", { .patch = { X_FIELD (xcb_randr_query_version_reply_t, minor_version, 1) } } },
  { "outside", { .error = XCB_MATCH } },
  { "cut short", { .edit = [] (Bytes &reply) { reply.resize (32); } } },
  { "at 0,0", { .patch = position (0, 0) } },
  { "at -1280,100", { .patch = position (-1280, 100) } },
  { "at 100,50", { .patch = position (100, 50) } },
  { "at 2020,50", { .patch = position (2020, 50) } },
  { "unsent crtcs", { .patch = { X_FIELD (xcb_randr_get_screen_resources_reply_t, num_crtcs, 65535) } } },
  { "unsent name", { .patch = { X_FIELD (xcb_randr_get_output_info_reply_t, name_len, 65535) } } },
  { "unsent screens", { .patch = { X_FIELD (xcb_setup_t, roots_len, 255) } } },
  { "no pixmaps", { .patch = { X_FIELD (xcb_shm_query_version_reply_t, shared_pixmaps, 0) } } },
  { "other pixmaps", { .patch = { X_FIELD (xcb_shm_query_version_reply_t, pixmap_format, 1) } } },
  { "depth 16", { .patch = { X_FIELD (xcb_get_geometry_reply_t, depth, 16) } } },
  { "depth 29", { .patch = { X_FIELD (xcb_get_geometry_reply_t, depth, 29) } } },
  { "16 bits", pixel_format (16) },
  { "40 bits", pixel_format (40) },
  { "no pad", pixel_format (32, 0) },
};

struct EnumeratorCase
{
  const char *faults;
  const char *heads; /* or the failure; LEFT and RIGHT stand for the output ids */
  const char *warning = "";
};

#define VALUE_ERROR " (response_type: 0 error_code: 2)"
static const char whole_screen[] = "SCREEN:0 2560x1024+0+0";
static const char left_head[] = "OUTPUT-LEFT:LEFT 1280x1024+0+0", right_head[] = "OUTPUT-RIGHT:RIGHT 1280x1024+1280+0";
static const char both_heads[] = "OUTPUT-LEFT:LEFT 1280x1024+0+0, OUTPUT-RIGHT:RIGHT 1280x1024+1280+0";

/* The first two CRTCs are those with outputs, at 0,0 and 1280,0. */
static const EnumeratorCase enumerator_cases[] = {
  { "QueryExtension 0 of RANDR", whole_screen, "RandR extension not available" },
  { "RRQueryVersion 0 old", whole_screen, "RandR version is too old (1.1, 1.2 required)" },
  { "RRQueryVersion", whole_screen, "Failed to get RandR version" },
  { "RRGetScreenResources", "Failed to get screen resources" VALUE_ERROR },
  { "RRGetCrtcInfo 1 at -1280,100; RRGetCrtcInfo 2 at 0,0",
    "OUTPUT-LEFT:LEFT 1280x1024+0+100, OUTPUT-RIGHT:RIGHT 1280x1024+1280+0" },
  { "RRGetCrtcInfo 1 at 100,50; RRGetCrtcInfo 2 at 2020,50",
    "OUTPUT-LEFT:LEFT 1280x1024+100+50, OUTPUT-RIGHT:RIGHT 1280x1024+2020+50" },
  { "RRGetCrtcInfo 1", right_head },
  { "RRGetOutputInfo 2", left_head },
  { "RRGetScreenResources 0 unsent crtcs", both_heads },
  { "RRGetOutputInfo 0 unsent name", both_heads },
  { "RRGetOutputInfo 1 cut short", right_head },
  { "RRGetCrtcInfo", whole_screen },
  { "RRGetCrtcInfo; GetGeometry", "Cannot get screen geometry" VALUE_ERROR },
};

TEST (EnumeratorFaultTest, ReportsWhatItCanOfAFaultyServer)
{
  XServer server (XServer::XORG_DUMMY);
  XcbClient client (server.display ());
  const std::string left = std::to_string (client.outputs ()[0]), right = std::to_string (client.outputs ()[1]);

  for (const auto &row : enumerator_cases)
    {
      SCOPED_TRACE (row.faults);
      LogRecorder log;
      FaultProxy proxy (server);
      GdkDisplayScope gdk (proxy.display ());
      proxy.add (row.faults, kinds);

      EXPECT_EQ (enumerate_heads (), replace_all (replace_all (row.heads, "LEFT", left), "RIGHT", right));
      EXPECT_TRUE (!*row.warning || log.contains (domain, G_LOG_LEVEL_WARNING, row.warning)) << log.dump ();
    }
}

/* What a host sees of a reader that sets up, configures and takes two frames, drawing in between. It configures when
 * it is told to, grabs again after everything else, and stops at the fourth failure in a row. */
static std::string
use_reader (TestReader &reader, Painter &painter)
{
  std::string story;
  const auto tell = [&] (const std::string &words) { story += (story.empty () ? "" : "; ") + words; };

  if (!reader.setup () || !reader.configure ())
    tell (reader.failure);
  bool needs_configuration = reader.failure.starts_with ("SHM_FAILED");
  if (reader.failure.starts_with ("FAILED_SETUP"))
    {
      EXPECT_FALSE (reader.grab ());
      EXPECT_EQ (reader.failure, "NEEDS_RECONFIGURE: Reader is not configured");
      return story.substr (0, story.find (" in reader 0x"));
    }

  int failures = 0;
  for (unsigned n_frames = 0; n_frames < 2 && failures < 4;)
    {
      if (needs_configuration && !reader.configure ())
        tell (reader.failure);
      const Frame frame = reader.grab_change ();
      needs_configuration = reader.failure.starts_with ("NEEDS_RECONFIGURE");
      if (!frame)
        {
          tell (reader.failure);
          failures++;
          continue;
        }

      const guint32 blocks = ryx_diffmap_get_count (ryx_captured_frame_get_diffmap (frame.get ()));
      const std::vector<uint8_t> pixels = pixels_of (frame.get ());
      const bool is_true = pixels == painter.image (0, 0, 96, 64), is_black = std::ranges::max (pixels) == 0;
      tell ((blocks == 24 ? "whole" : std::to_string (blocks)) + (is_true ? "" : is_black ? " black" : " wrong"));
      n_frames++;
      if (n_frames < 2)
        painter.fill (0, 0, 17, 1, 0x808080);
    }
  return story;
}

struct ReaderCase
{
  const char *faults, *story;
  const char *line = ""; /* logged, as a warning or as the set-up line */
  bool dirty_region = true, shm_pixmaps = true;
};

static const char plain_story[] = "whole; 2";
static const char whole_set_up[] = "screen test (0,0 96x64 - depth 24";
static const char no_shm_pixmap[] = "SHM: available, SHM Pixmap: not available";
#define NO_ATTACH "SHM_FAILED: Failed to attach shared memory; "

static const ReaderCase reader_cases[] = {
  { "RRQueryVersion", plain_story, "Failed to get RandR version" },
  { "ShmQueryVersion", plain_story, "Failed to get SHM version" },
  { "DamageQueryVersion", plain_story, "Failed to get Damage version" },
  { "DamageCreate", plain_story, "Failed to create damage" VALUE_ERROR },
  { "Setup", "FAILED_SETUP: Unable to open XCB connection" },
  { "QueryExtension 0 of XFIXES", "FAILED_SETUP: XFIXES not available for XCB connection" },
  { "XFixesQueryVersion", "FAILED_SETUP: Unsupported XFIXES version for XCB connection" },
  { "ShmQueryVersion 0 no pixmaps", plain_story, no_shm_pixmap },
  { "ShmQueryVersion 0 other pixmaps", plain_story, no_shm_pixmap },
  { "ShmAttach", NO_ATTACH "whole; 2" },
  { "ShmAttach", NO_ATTACH "whole; 2", "", false },
  { "ShmCreatePixmap", plain_story, "create shm pixmap of 96x64, falling back to shm get image" VALUE_ERROR },
  { "CreateGC", plain_story, "Failed to create GC, falling back to shm get image" VALUE_ERROR },
  { "ShmGetImage 1", "SHM_FAILED: Failed to get shm image" VALUE_ERROR "; whole; 2", "", true, false },
  { "ShmGetImage 2", "whole; SHM_FAILED: Failed to get shm image" VALUE_ERROR "; whole", "", true, false },
  { "CopyArea 1", "SHM_FAILED: Failed to copy area" VALUE_ERROR "; whole; 2" },
  { "ShmAttach; GetImage 1 outside",
    NO_ATTACH "NEEDS_RECONFIGURE: Failed to get image, needs reconfigure (response_type: 0 error_code: 8); whole; 2" },
  { "ShmAttach; GetImage 1", NO_ATTACH "FAILED: Failed to get image" VALUE_ERROR "; whole; 2" },
  { "RRGetOutputInfo", plain_story, whole_set_up },
  { "GetGeometry 1", "FAILED_SETUP: Unsupported depth 0" },
  { "ShmAttach; GetImage 1 cut short", NO_ATTACH "whole black; 2" },
  { "Setup 0 16 bits", "FAILED_SETUP: Unsupported bpp 16" },
  { "Setup 0 40 bits", "FAILED_SETUP: Unsupported bpp 40" },
  { "Setup 0 no pad", "FAILED_SETUP: Unsupported scanline pad 0" },
  { "Setup 0 unsent screens", "FAILED_SETUP: Unable to get default screen" },
  { "GetGeometry 0 depth 16", "FAILED_SETUP: Unsupported depth 16" },
  { "GetGeometry 0 depth 29", "FAILED_SETUP: Unable to get format for depth" },
};

class ReaderFaultTest : public testing::Test
{
protected:
  XServer server{ XServer::XVFB, { "-screen", "0", "96x64x24" } };
  FaultProxy proxy{ server };
  Painter painter{ server.display () };
};

TEST_F (ReaderFaultTest, FallsBackAndTellsTheHostWhatToDo)
{
  const xcb_randr_output_t output = painter.outputs ()[0]; /* shows the whole screen */

  for (const auto &row : reader_cases)
    {
      SCOPED_TRACE (row.faults);
      MeansScope means (row.dirty_region, row.shm_pixmaps);
      LogRecorder log;
      proxy.clear ();
      proxy.add (row.faults, kinds);

      painter.fill (0, 0, 96, 64, 0x102030);
      TestReader reader (proxy.display (), output);
      EXPECT_EQ (use_reader (reader, painter), row.story);
      EXPECT_TRUE (!*row.line || log.contains (domain, G_LOG_LEVEL_WARNING, row.line)
                   || log.contains (domain, G_LOG_LEVEL_INFO, row.line))
        << log.dump ();
    }
}

TEST_F (ReaderFaultTest, ShowsInTheNextFrameWhatAFailedGrabHadCopied)
{
  TestReader reader (proxy.display ());

  ASSERT_TRUE (reader.setup () && reader.configure () && reader.grab ()) << reader.failure;
  for (uint32_t colour : { 1, 2, 3 }) /* so that storage is used again */
    {
      painter.fill (0, 60, 1, 1, colour);
      ASSERT_TRUE (reader.grab_change ()) << reader.failure;
    }

  proxy.add ("CopyArea 2");
  painter.fill (0, 0, 20, 10, 0x336699);
  painter.fill (50, 40, 20, 10, 0x336699);
  EXPECT_FALSE (reader.grab_change ());
  EXPECT_TRUE (reader.failure.starts_with ("SHM_FAILED")) << reader.failure;

  painter.fill (50, 40, 20, 10, 0x996633);
  const Frame frame = reader.grab_change ();
  ASSERT_TRUE (frame) << reader.failure;
  EXPECT_EQ (pixels_of (frame.get ()), painter.image (0, 0, 96, 64));
}

TEST_F (ReaderFaultTest, TakesAnAreaThatBeginsLeftOfTheScreen)
{
  TestReader reader (proxy.display (), painter.outputs ()[0]);

  painter.fill_with_noise ();
  proxy.add ({ .request = "RRGetCrtcInfo", .patch = position (-32, 16) });
  ASSERT_TRUE (reader.setup () && reader.configure ()) << reader.failure;
  for (const char *blocks : { "", "2,0" })
    {
      const Frame frame = reader.grab_change ();
      ASSERT_TRUE (frame) << reader.failure;
      EXPECT_TRUE (!*blocks || blocks_of (frame.get ()) == blocks) << blocks_of (frame.get ());

      /* What lies on the screen: 64 columns behind 32 others, and all but 16 rows. */
      const std::vector<uint8_t> pixels = pixels_of (frame.get ()), seen = painter.image (0, 16, 64, 48);
      for (int y = 0; y < 48; y++)
        EXPECT_EQ (memcmp (&pixels[(y * 96 + 32) * 4], &seen[y * 64 * 4], 64 * 4), 0) << "row " << y;
      painter.fill (0, 20, 3, 3, 0x654321);
    }
}

TEST_F (ReaderFaultTest, GoesOnWithoutSharedMemoryInAnAreaWithoutPixels)
{
  static const XField extents[]
    = { X_FIELD (xcb_randr_get_crtc_info_reply_t, width, 0), X_FIELD (xcb_randr_get_crtc_info_reply_t, height, 0) };
  const xcb_randr_output_t output = painter.outputs ()[0];

  for (const XField &extent : extents)
    {
      LogRecorder log;
      proxy.clear ();
      proxy.add ({ .request = "RRGetCrtcInfo", .patch = { extent } });
      TestReader reader (proxy.display (), output);

      EXPECT_FALSE (reader.setup () && reader.configure ());
      EXPECT_TRUE (reader.failure.starts_with ("SHM_FAILED: Failed to get shared memory: ")) << reader.failure;
      ASSERT_TRUE (reader.configure ()) << reader.failure;
      const Frame frame = reader.grab ();
      ASSERT_TRUE (frame) << reader.failure;
      EXPECT_TRUE (pixels_of (frame.get ()).empty () && blocks_of (frame.get ()).empty ());
      EXPECT_FALSE (log.contains (nullptr, G_LOG_LEVEL_CRITICAL, "")) << log.dump ();
    }
}

TEST_F (ReaderFaultTest, IsWokenByAConfigureNotifyAndNotByAnXError)
{
  const uint8_t randr_event = xcb_get_extension_data (painter.conn, &xcb_randr_id)->first_event;

  for (const bool waits : { true, false })
    {
      SCOPED_TRACE (waits);
      /* Without Damage and RandR their event bases are 0, as is the type of an X error. */
      LogRecorder log;
      proxy.clear ();
      for (const char *extension : { "DAMAGE", "RANDR" })
        if (!waits)
          proxy.add (hiding (extension));
      proxy.add ("ChangeWindowAttributes");

      TestReader reader (proxy.display ());
      ASSERT_TRUE (reader.setup () && reader.configure ()) << reader.failure;
      ASSERT_TRUE (reader.grab ()) << reader.failure;
      EXPECT_TRUE (log.contains (domain, G_LOG_LEVEL_DEBUG, "Ignoring X error 2")) << log.dump ();

      for (const uint8_t type : { XCB_CONFIGURE_NOTIFY, int (randr_event) })
        if (waits)
          {
            const uint8_t client_message[32] = { XCB_CLIENT_MESSAGE }, event[32] = { uint8_t (type | 0x80) };
            proxy.insert (client_message);
            proxy.insert (event);
            EXPECT_FALSE (reader.grab ());
            EXPECT_EQ (reader.failure, "NEEDS_RECONFIGURE: Root window reconfigured");
          }
    }
}

#ifndef __SANITIZE_ADDRESS__ /* whose memory no limit can be set to */
TEST (ReaderMemoryTest, TellsThatThereIsNoMemory)
{
  static const std::tuple<bool, bool, const char *> rows[] = {
    { true, false, "FAILED: Failed to get shm image data" },
    { true, true, "FAILED: Failed to allocate frame buffer" },
    { false, true, "FAILED: Failed to allocate frame buffer" },
  };
  XServer server (XServer::XVFB, { "-screen", "0", "4000x4000x24" });

  for (const auto &[has_shm, is_configured, failure] : rows)
    {
      LogRecorder log (G_LOG_LEVEL_ERROR);
      FaultProxy proxy (server);
      if (!has_shm)
        proxy.add (hiding ("MIT-SHM"));
      TestReader reader (proxy.display ());
      ASSERT_TRUE (reader.setup () && (!is_configured || reader.configure ())) << reader.failure;

      gsize n_pages = 0;
      std::ifstream ("/proc/self/statm") >> n_pages;
      rlimit before;
      getrlimit (RLIMIT_AS, &before);
      const rlimit limit = { n_pages * sysconf (_SC_PAGESIZE) + (32 << 20), before.rlim_max };
      setrlimit (RLIMIT_AS, &limit);
      EXPECT_FALSE ((is_configured || reader.configure ()) && reader.grab ());
      setrlimit (RLIMIT_AS, &before);
      EXPECT_EQ (reader.failure, failure);
      EXPECT_TRUE (reader.configure () && reader.grab ()) << reader.failure;
    }
}
#endif

TEST_F (ReaderFaultTest, LeavesNeitherGrabNorSegmentWhenItsProcessIsKilled)
{
  for (const char *request : { "ShmAttach", "DamageSubtract", "CopyArea" })
    {
      SCOPED_TRACE (request);
      std::atomic<pid_t> child = 0;
      const unsigned rule = proxy.add (
        { .request = request, .when = [&child] (const Bytes &) { return child != 0 && kill (child, SIGKILL) == 0; } });
      child = fork ();
      if (child == 0)
        {
          TestReader reader (proxy.display ());
          _exit (reader.setup () && reader.configure () && reader.grab ());
        }

      int status = 0;
      waitpid (child, &status, 0);
      EXPECT_TRUE (WIFSIGNALED (status) && WTERMSIG (status) == SIGKILL) << "status " << status;
      EXPECT_GE (proxy.hits (rule), 1u);
      EXPECT_TRUE (wait_until ([&] { return painter.round_trip (1000) && count_segments (child) == 0; }));
      proxy.clear ();
    }
}

TEST (ReaderDepthTest, TakesADepthOf30AsItComes)
{
  if (!XServer::stand_in ().empty ())
    GTEST_SKIP () << "other servers may have no screen of depth 30";
  XServer server (XServer::XVFB, { "-screen", "0", "96x64x30" });
  Painter painter (server.display ());
  TestReader reader (server.display ());

  painter.fill (0, 0, 96, 64, 0x3fffffff);
  EXPECT_EQ (use_reader (reader, painter), plain_story);
}

/* A server with 3-byte pixels, whose rows of 1001 pixels end with a byte of padding, so that no stride in pixels says
 * how long they are. The segment fills its pages: one byte read behind it ends the process. */
class PackedPixelsTest : public testing::Test
{
protected:
  static constexpr unsigned width = 1001, height = 1024, bytes_per_line = 3004;

  PackedPixelsTest ()
  {
    proxy.add (pixel_format (24));
    proxy.add ({ .request = "ShmAttach", .when = [this] (const Bytes &request) {
                  segment = static_cast<uint8_t *> (
                    shmat (as<xcb_shm_attach_request_t> (request.data ())->shmid, nullptr, 0));
                  return false;
                } });
    proxy.add ({ .request = "ShmGetImage", .answer = [this] (const Bytes &) {
                  for (unsigned y = 0; y < height; y++)
                    memcpy (segment + y * bytes_per_line, &screen[y * width * 3], width * 3);
                  return Bytes (32);
                } });
    proxy.add ({ .request = "GetImage", .answer = [this] (const Bytes &) {
                  Bytes reply (32 + (screen.size () + 3) / 4 * 4);
                  std::copy (screen.begin (), screen.end (), reply.begin () + 32);
                  return reply;
                } });
    for (size_t i = 0; i < screen.size (); i++)
      screen[i] = i % 251;
  }
  ~PackedPixelsTest () override
  {
    if (segment)
      shmdt (segment);
  }

  MeansScope by_shm_image{ false, false };
  XServer server{ XServer::XVFB, { "-screen", "0", "1001x1024x24" } };
  FaultProxy proxy{ server.display () };
  uint8_t *segment = nullptr;
  std::vector<uint8_t> screen = std::vector<uint8_t> (width * height * 3);
};

TEST_F (PackedPixelsTest, ReachTheHostAsBgrAndAreComparedToTheLastByte)
{
  for (const bool has_shm : { true, false })
    {
      SCOPED_TRACE (has_shm);
      if (!has_shm)
        proxy.add (hiding ("MIT-SHM"));
      TestReader reader (proxy.display (), 0, 64);
      ASSERT_TRUE (reader.setup () && reader.configure ()) << reader.failure;

      Frame frame = reader.grab ();
      ASSERT_TRUE (frame) << reader.failure;
      EXPECT_EQ (ryx_frame_data_get_format (ryx_captured_frame_get_frame_data (frame.get ())), RYX_PIXEL_FORMAT_BGR);
      EXPECT_EQ (pixels_of (frame.get ()), screen);

      EXPECT_FALSE (reader.grab ());
      EXPECT_EQ (reader.failure, "EMPTY_FRAME: Empty frame");

      screen.back () ^= 0xff;
      screen[3 * 64] ^= 0xff;
      frame = reader.grab ();
      ASSERT_TRUE (frame) << reader.failure;
      EXPECT_EQ (blocks_of (frame.get ()), "1,0 15,15");
      EXPECT_EQ (pixels_of (frame.get ()), screen);
    }
}
