#include <cstring>
#include <random>
#include <thread>

#include <gtest/gtest.h>
#include <xcb/randr.h>

#include "capture.h"
#include "logrecorder.h"

static const char domain[] = "RYX:x11:display";

/* An odd width and edges that no block size divides. */
static const std::vector<std::string> odd_screen = { "-screen", "0", "501x301x24" };

class CaptureMeansTest : public testing::TestWithParam<Means>
{
protected:
  static bool
  misses (const char *extension)
  {
    return strcmp (GetParam ().missing_extension, extension) == 0;
  }

  const bool waits_for_damage = GetParam ().dirty_region && !misses ("DAMAGE");
  const MeansScope means{ GetParam ().dirty_region, GetParam ().shm_pixmaps };
  XServer server{ XServer::XVFB, { "-screen", "0", "501x301x24", "-extension", GetParam ().missing_extension } };
  Painter painter{ server.display () };
};

TEST_P (CaptureMeansTest, DeliversTheScreenByteForByteAndMarksWhatChanged)
{
  LogRecorder log;
  TestReader reader (server.display ());

  painter.fill_with_noise ();
  ASSERT_TRUE (reader.setup () && reader.configure ()) << reader.failure;
  const auto told = [] (const char *what, bool available) {
    return what + std::string (available ? ": available" : ": not available");
  };
  const std::string availability = told ("(RandR", !misses ("RANDR")) + told (", SHM", !misses ("MIT-SHM"))
                                   + told (", SHM Pixmap", GetParam ().shm_pixmaps && !misses ("MIT-SHM"))
                                   + told (", Damage", waits_for_damage);
  EXPECT_TRUE (log.contains (domain, G_LOG_LEVEL_INFO, availability.c_str ())) << log.dump ();

  Frame whole = reader.grab ();
  ASSERT_TRUE (whole) << reader.failure;
  EXPECT_EQ (pixels_of (whole.get ()), painter.image (0, 0, 501, 301));
  EXPECT_EQ (ryx_diffmap_get_count (ryx_captured_frame_get_diffmap (whole.get ())), 32u * 19u);
  EXPECT_EQ (ryx_captured_frame_get_screen_id (whole.get ()), 7u);
  EXPECT_EQ (ryx_frame_data_get_format (ryx_captured_frame_get_frame_data (whole.get ())), RYX_PIXEL_FORMAT_BGRA);

  painter.fill (15, 31, 2, 1, 0x123456);
  painter.fill (500, 300, 1, 1, 0xfedcba);
  Frame change = reader.grab_change ();
  ASSERT_TRUE (change) << reader.failure;
  EXPECT_EQ (pixels_of (change.get ()), painter.image (0, 0, 501, 301));
  EXPECT_EQ (blocks_of (change.get ()), "0,1 1,1 31,18");

  /* The frame before is still what it was. */
  EXPECT_NE (pixels_of (whole.get ()), pixels_of (change.get ()));
}

TEST_P (CaptureMeansTest, StaysTrueWhileTheHostKeepsFrames)
{
  TestReader reader (server.display ());
  std::minstd_rand random (1);
  std::vector<std::pair<Frame, std::vector<uint8_t>>> kept;

  painter.fill_with_noise ();
  ASSERT_TRUE (reader.setup () && reader.configure ()) << reader.failure;
  for (int i = 0; i < 20; i++)
    {
      kept.emplace_back (reader.grab_change (), painter.image (0, 0, 501, 301));
      ASSERT_TRUE (kept.back ().first) << reader.failure;
      for (const auto &[frame, pixels] : kept)
        ASSERT_EQ (pixels_of (frame.get ()), pixels) << i;
      while (kept.size () > random () % 4)
        kept.erase (kept.begin () + int (random () % kept.size ()));
      for (int n = 0; n < 3; n++)
        painter.fill (int (random () % 500), int (random () % 300), 1 + random () % 90, 1 + random () % 90,
                      uint32_t (0x1000 * i + 0x10 * n + 1));
    }
}

TEST_P (CaptureMeansTest, CostsNothingUntilSomethingIsDrawn)
{
  TestReader reader (server.display ());

  ASSERT_TRUE (reader.setup () && reader.configure () && reader.grab ()) << reader.failure;
  if (!waits_for_damage)
    {
      EXPECT_FALSE (reader.grab ());
      EXPECT_EQ (reader.failure, "EMPTY_FRAME: Empty frame");
      return;
    }

  gint64 drawn_at = 0;
  std::thread artist ([&] {
    /* Long after the grab has begun to wait: many of its sampling intervals later. */
    wait_until ([] { return false; }, 300);
    drawn_at = g_get_monotonic_time ();
    painter.fill (40, 40, 1, 1, 0xabcdef);
  });
  Frame frame = reader.grab ();
  artist.join ();
  ASSERT_TRUE (frame) << reader.failure;
  EXPECT_GE (ryx_captured_frame_get_timestamp (frame.get ()), drawn_at);
  EXPECT_EQ (blocks_of (frame.get ()), "2,2");
}

TEST_P (CaptureMeansTest, AsksForConfigurationWhenTheScreenIsResized)
{
  TestReader reader (server.display ());
  ASSERT_TRUE (reader.setup () && reader.configure () && reader.grab ()) << reader.failure;
  if (misses ("RANDR") || XServer::stand_in () == "xephyr")
    GTEST_SKIP () << "nobody can resize a screen without RandR, and Xephyr keeps the size of its root window";

  /* No screen is smaller than a CRTC that shows it. */
  const auto resources = X_REPLY (painter.conn, randr_get_screen_resources, painter.root);
  xcb_randr_set_crtc_config_unchecked (painter.conn, *xcb_randr_get_screen_resources_crtcs (resources.get ()), 0, 0, 0,
                                       0, XCB_NONE, XCB_RANDR_ROTATION_ROTATE_0, 0, nullptr);
  xcb_randr_set_screen_size (painter.conn, painter.root, 320, 200, 85, 53);
  ASSERT_TRUE (painter.round_trip ());
  EXPECT_FALSE (reader.grab_change ());
  EXPECT_EQ (reader.failure, "NEEDS_RECONFIGURE: Root window reconfigured");

  painter.fill (0, 0, 320, 200, 0x335577);
  ASSERT_TRUE (reader.configure ()) << reader.failure;
  Frame frame = reader.grab_change ();
  ASSERT_TRUE (frame) << reader.failure;
  EXPECT_EQ (pixels_of (frame.get ()), painter.image (0, 0, 320, 200));
  EXPECT_EQ (ryx_diffmap_get_count (ryx_captured_frame_get_diffmap (frame.get ())), 20u * 13u);
}

TEST_P (CaptureMeansTest, TellsOfAServerThatDies)
{
  {
    TestReader reader (server.display ());
    ASSERT_TRUE (reader.setup () && reader.configure () && reader.grab ()) << reader.failure;

    std::thread killer ([&] { server.kill (); });
    EXPECT_FALSE (reader.grab_change ());
    killer.join ();
    EXPECT_TRUE (reader.failure.starts_with ("FAILED: X connection closed")
                 || reader.failure.starts_with ("FAILED: Failed to get image")
                 || reader.failure.starts_with ("SHM_FAILED: Failed to get shm image"))
      << reader.failure;
    EXPECT_FALSE (reader.grab ());
    EXPECT_EQ (reader.failure, "FAILED: X connection closed");
  }
  EXPECT_EQ (count_segments (), 0u);
}

INSTANTIATE_TEST_SUITE_P (By, CaptureMeansTest, testing::ValuesIn (all_means),
                          [] (const auto &info) { return std::string (info.param.name); });

TEST (CaptureTest, CapturesOneOutputAndIgnoresDamageElsewhere)
{
  XServer server (XServer::XORG_DUMMY);
  Painter painter (server.display ());
  TestReader reader (server.display (), painter.outputs ()[1], 64);

  painter.fill_with_noise ();
  ASSERT_TRUE (reader.setup () && reader.configure ()) << reader.failure;
  Frame frame = reader.grab ();
  ASSERT_TRUE (frame) << reader.failure;
  EXPECT_EQ (pixels_of (frame.get ()), painter.image (1280, 0, 1280, 1024));

  painter.fill (10, 10, 10, 10, 0x111111);
  EXPECT_FALSE (reader.grab ());
  EXPECT_EQ (reader.failure, "EMPTY_FRAME: Empty frame");

  painter.fill (1270, 100, 20, 1, 0x222222);
  frame = reader.grab_change ();
  ASSERT_TRUE (frame) << reader.failure;
  EXPECT_EQ (pixels_of (frame.get ()), painter.image (1280, 0, 1280, 1024));
  EXPECT_EQ (blocks_of (frame.get ()), "0,1");

  /* An output that shows nothing: the whole screen. */
  TestReader whole (server.display (), 12345);
  ASSERT_TRUE (whole.setup () && whole.configure ()) << whole.failure;
  frame = whole.grab ();
  ASSERT_TRUE (frame) << whole.failure;
  EXPECT_EQ (ryx_frame_data_get_width (ryx_captured_frame_get_frame_data (frame.get ())), 2560u);
}

TEST (CaptureTest, RefinesTheMapWhenMoreBlocksThanTheThresholdWereDrawn)
{
  XServer server (XServer::XVFB, odd_screen);
  Painter painter (server.display ());

  painter.fill (0, 0, 501, 301, 0x404040);
  for (const int threshold : { -1, 0, 1, 2 })
    {
      SCOPED_TRACE (threshold);
      TestReader reader (server.display (), 0, 16, threshold);
      ASSERT_TRUE (reader.setup () && reader.configure () && reader.grab ()) << reader.failure;

      /* Two blocks drawn as they were. */
      painter.fill (0, 0, 32, 1, 0x404040);
      Frame frame = reader.grab ();
      const bool is_refined = threshold >= 0 && 2 > threshold;
      EXPECT_EQ (frame ? blocks_of (frame.get ()) : reader.failure,
                 is_refined ? "EMPTY_FRAME: Empty frame" : "0,0 1,0");
    }
}

TEST (CaptureTest, GrabsNoFasterThanTheSettingsWant)
{
  static const struct
  {
    guint grabber_fps, target_fps;
    gint64 interval;
  } rows[] = { { 0, 25, 20000 }, { 10, 60, 33333 }, { 0, 20, 25000 }, { 0, 0, 16666 }, { 60, 1, 16666 } };
  XServer server (XServer::XVFB, odd_screen);
  Painter painter (server.display ());

  for (const auto &row : rows)
    {
      SCOPED_TRACE (row.interval);
      SettingsScope grabber ("com.quorlane.ryx.display", "grabber-target-fps", g_variant_new_uint32 (row.grabber_fps));
      SettingsScope target ("com.quorlane.ryx.display", "target-fps", g_variant_new_uint32 (row.target_fps));
      TestReader reader (server.display ());
      ASSERT_TRUE (reader.setup () && reader.configure ()) << reader.failure;

      gint64 least = G_MAXINT64, last = 0;
      for (uint32_t i = 0; i < 20 && least >= row.interval + 3000; i++)
        {
          painter.fill (0, 0, 1, 1, i);
          Frame frame = reader.grab_change ();
          ASSERT_TRUE (frame) << reader.failure;
          least = MIN (least, ryx_captured_frame_get_timestamp (frame.get ()) - last);
          last = ryx_captured_frame_get_timestamp (frame.get ());
        }
      EXPECT_GE (least, row.interval);
      EXPECT_LT (least, row.interval + 3000);
    }
}
