#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>
#include <xcb/randr.h>

#include "capture.h"
#include "ctl.h"
#include "faultproxy.h"

/* A directory of its own, gone with the test. */
class CtlTest : public testing::Test
{
protected:
  CtlTest () : directory (g_dir_make_tmp ("ryxctl-XXXXXX", nullptr)) {}
  ~CtlTest () override
  {
    std::error_code error;
    std::filesystem::remove_all (directory, error);
    g_free (directory);
  }

  std::string
  file (const char *name)
  {
    return std::string (directory) + "/" + name;
  }

  gchar *directory;
};

struct UsageCase
{
  const char *name;
  std::vector<std::string> arguments;
  bool has_display;
  int status;
  const char *words;
};

static const UsageCase usage_cases[] = {
  { "no_command", {}, true, 2, "ryxctl: a command is missing\n" },
  { "unknown_command", { "heds" }, true, 2, "ryxctl: unknown command \"heds\"\n" },
  { "unknown_option", { "heads", "--wach" }, true, 2, "ryxctl: heads: Unknown option --wach\n" },
  { "too_many_words", { "heads", "all" }, true, 2, "ryxctl: heads: unexpected argument \"all\"\n" },
  { "no_frames", { "capture", "--frames", "0" }, true, 2, "ryxctl: capture: --frames must be from 1 to " },
  { "negative_frames", { "capture", "--frames=-1" }, true, 2, "ryxctl: capture: --frames must be from 1 to " },
  { "no_blocks", { "capture", "--block-size=0" }, true, 2, "ryxctl: capture: --block-size must be from 1 to 65535" },
  { "no_time", { "capture", "--seconds=nan" }, true, 2, "ryxctl: capture: --seconds must be above 0" },
  { "negative_time", { "capture", "--seconds=-1" }, true, 2, "ryxctl: capture: --seconds must be above 0" },
  { "one_name_for_all", { "capture", "--frames=2", "--png=a.png" }, true, 2, "needs a %d for the frame's number" },
  { "map_of_nothing", { "capture", "--seconds=1", "--map" }, true, 2, "capture: --map tints pictures" },
  { "one_place_for_two", { "capture", "--png=-", "--y4m=-", "--frames=1" }, true, 2, "can't both be standard output" },
  { "unwritable_recording",
    { "capture", "--y4m=/nowhere/a" },
    true,
    1,
    "ryxctl: Cannot open /nowhere/a: No such file" },
  { "full_recording",
    { "capture", "--y4m=/dev/full", "--frames=1" },
    true,
    1,
    "ryxctl: Cannot write the recording: No" },
  { "no_key", { "key" }, true, 2, "ryxctl: key: a key is missing" },
  { "broken_key", { "key", "\xff" }, true, 2, "ryxctl: key: a combination is not valid UTF-8" },
  { "no_layout", { "layout" }, true, 2, "ryxctl: layout: no head was given (WxH+X+Y)\n" },
  { "no_position", { "layout", "800x600+0+0", "800x600" }, true, 2, "layout: \"800x600\" is not a head's geometry" },
  { "sign", { "layout", "800x+600+0+0" }, true, 2, "layout: \"800x+600+0+0\" is not a head's geometry (WxH+X+Y)" },
  { "overflow", { "layout", "4294968096x600+0+0" }, true, 2, "layout: \"4294968096x600+0+0\" is not a head's" },
  { "out_of_reach", { "layout", "800x600+32768+0" }, true, 2, "layout: \"800x600+32768+0\" is not a head's" },
  { "empty_head", { "layout", "800x0+0+0" }, true, 2, "layout: \"800x0+0+0\" is not a head's geometry (WxH+X+Y)" },
  { "more_behind", { "layout", "800x600+0+0," }, true, 2, "layout: \"800x600+0+0,\" is not a head's geometry" },
  { "too_many_heads", { "layout", "640x480+0+0", "640x480+640+0" }, true, 1, "ryxctl: Unsupported configuration (2 " },
  { "no_such_head", { "capture", "--output=4242" }, true, 1, "ryxctl: There is no head with the output id 4242" },
  { "no_text", { "type" }, true, 2, "ryxctl: type: a text is missing\n" },
  { "text_that_no_key_makes", { "type", "a\001" }, true, 2, "ryxctl: type: no key makes the control character U+0001" },
  { "broken_text", { "type", "a\xe2\x82" }, true, 2, "ryxctl: type: the text is not valid UTF-8 at byte 1\n" },
  { "no_such_key", { "key", "Control+Foo" }, true, 2, "ryxctl: key: unknown key \"Foo\" in \"Control+Foo\"\n" },
  { "half_a_combination", { "key", "Control+" }, true, 2, "ryxctl: key: unknown key \"\" in \"Control+\"\n" },
  { "half_a_position", { "motion", "-5" }, true, 2, "ryxctl: motion: needs X and Y\n" },
  { "both_ways", { "button", "1", "--up", "--down" }, true, 2, "ryxctl: button: --down and --up exclude" },
  { "unwritable", { "capture", "--png=/nowhere/a.png" }, true, 1, "/nowhere/a.png" },
  { "lines_and_pictures", { "cursor", "--watch", "--png=-" }, true, 2, "with --watch, --png needs a file" },
  { "no_display_named", { "heads" }, false, 3, "ryxctl: No display to open: DISPLAY is not set" },
  { "no_such_display", { "heads", "--display=:98765" }, false, 3, "ryxctl: Cannot open display \":98765\"\n" },
  { "no_modules", { "--module-dir=/nowhere", "heads" }, true, 3, "ryxctl: Error opening directory" },
};

TEST_F (CtlTest, TellsWhatIsWrongAndExitsAccordingly)
{
  XServer server (XServer::XVFB);

  for (const auto &row : usage_cases)
    {
      SCOPED_TRACE (row.name);
      CtlRun run (row.has_display ? server.display () : nullptr, row.arguments);
      EXPECT_EQ (run.status (), row.status);
      EXPECT_NE (run.err.find (row.words), std::string::npos) << run.err;
      EXPECT_EQ (run.out, "");
    }
}

TEST_F (CtlTest, DoesEachThingAndTellsItsResult)
{
  static const std::pair<std::vector<std::string>, const char *> rows[] = {
    { { "--version" }, "ryxctl " },
    { { "implementations", "--json" }, "\"fbreaderxcb\"" },
    { { "capture", "--frames=1", "--map", "--png=-" }, "PNG" },
    { { "capture", "--seconds=0.2", "--debug" }, "1 frame of 640x480" },
    { { "motion", "600", "400" }, "" },
    { { "motion", "--relative", "-1", "2" }, "" },
    { { "cursor", "--json" }, "\"y\" : 402" },
    { { "button", "1", "--down" }, "" },
    { { "button", "1", "--up" }, "" },
    { { "wheel", "--horizontal", "2" }, "" },
  };
  XServer server (XServer::XVFB, { "-screen", "0", "640x480x24" });

  for (const auto &[arguments, words] : rows)
    {
      CtlRun run (server.display (), arguments);
      EXPECT_EQ (run.status (), 0) << run.err;
      EXPECT_NE (run.out.find (words), std::string::npos) << words << ": " << run.out.substr (0, 500) << run.err;
    }
}

TEST_F (CtlTest, FailsWhenItsResultsAreLost)
{
  XServer server (XServer::XVFB, { "-screen", "0", "8x8x24" });
  const std::vector<std::string> rows[] = { { "heads", "--json" }, { "capture", "--png=-" } };

  for (const auto &arguments : rows)
    {
      SCOPED_TRACE (arguments[0]);
      CtlRun run (server.display (), arguments, "/dev/full");
      EXPECT_EQ (run.status (), 1);
      EXPECT_TRUE (run.err.starts_with ("ryxctl: Cannot write to standard output")) << run.err;
    }
}

TEST_F (CtlTest, ListsImplementationsAndHeads)
{
  XServer server (XServer::XORG_DUMMY);

  CtlRun implementations (nullptr, { "implementations" });
  EXPECT_EQ (implementations.status (), 0) << implementations.err;
  EXPECT_NE (implementations.out.find ("RyxFrameBufferReaderXcb"), std::string::npos) << implementations.out;

  CtlRun heads (server.display (), { "heads", "--json" });
  EXPECT_EQ (heads.status (), 0) << heads.err;
  g_autoptr (JsonNode) root = json_from_string (heads.out.c_str (), nullptr);
  ASSERT_TRUE (root && JSON_NODE_HOLDS_ARRAY (root)) << heads.out;
  JsonArray *array = json_node_get_array (root);
  ASSERT_EQ (json_array_get_length (array), 2u);
  JsonObject *right = json_array_get_object_element (array, 1);
  EXPECT_EQ (json_object_get_size (right), 7u);
  EXPECT_EQ (json_object_get_int_member (right, "x"), 1280);
  EXPECT_EQ (json_object_get_int_member (right, "width"), 1280);
  EXPECT_FALSE (json_object_get_boolean_member (right, "primary"));
}

TEST_F (CtlTest, WatchesTheHeadsUntilInterrupted)
{
  XServer server (XServer::XORG_DUMMY);
  CtlRun watch (server.display (), { "heads", "--watch" });

  ASSERT_TRUE (watch.wait_for_lines (3));
  EXPECT_EQ (CtlRun (server.display (), { "layout", "--json", "800x600+0+0" }).status (), 0);
  EXPECT_TRUE (watch.wait_for_lines (6)) << watch.out;
  watch.interrupt ();
  EXPECT_EQ (watch.status (), 0) << watch.err;
}

TEST_F (CtlTest, WritesThePixelsOfTheScreen)
{
  XServer server (XServer::XVFB, { "-screen", "0", "301x201x24" });
  Painter painter (server.display ());
  const std::string png = file ("screen.png"), y4m = file ("screen.y4m");

  painter.fill_with_noise ();
  CtlRun run (server.display (), { "capture", "--png", png, "--y4m", y4m, "--frames=1", "--json" });
  ASSERT_EQ (run.status (), 0) << run.err;
  g_autoptr (JsonNode) summary = json_from_string (run.out.c_str (), nullptr);
  EXPECT_EQ (json_object_get_int_member (json_node_get_object (summary), "frames"), 1);
  EXPECT_EQ (json_object_get_int_member (json_node_get_object (summary), "changed_blocks"), 5 * 4);

  g_autoptr (GdkPixbuf) picture = gdk_pixbuf_new_from_file (png.c_str (), nullptr);
  ASSERT_TRUE (picture);
  const std::vector<uint8_t> screen = painter.image (0, 0, 301, 201);
  unsigned differences = 0;
  for (int y = 0; y < 201; y++)
    for (int x = 0; x < 301; x++)
      for (int channel = 0; channel < 3; channel++)
        differences += gdk_pixbuf_get_pixels (picture)[y * gdk_pixbuf_get_rowstride (picture) + x * 3 + channel]
                       != screen[(y * 301 + x) * 4 + 2 - channel];
  EXPECT_EQ (differences, 0u);

  std::stringstream recording;
  recording << std::ifstream (y4m, std::ios::binary).rdbuf ();
  const std::string header = "YUV4MPEG2 W301 H201 F25:1 Ip A1:1 C444\n";
  EXPECT_EQ (recording.str ().substr (0, header.size ()), header);
  EXPECT_EQ ((recording.str ().size () - header.size ()) % (6 + 3 * 301 * 201), 0u);
  EXPECT_GT (recording.str ().size (), header.size ());
}

TEST_F (CtlTest, EndsWithItsSummaryWhenInterruptedOnAnIdleScreen)
{
  XServer server (XServer::XVFB);
  const std::string png = file ("0.png");
  CtlRun run (server.display (), { "capture", "--seconds=1000", "--png", file ("%d.png") });

  ASSERT_TRUE (wait_until ([&] { return g_file_test (png.c_str (), G_FILE_TEST_EXISTS); }));
  run.interrupt ();
  EXPECT_EQ (run.status (), 0) << run.err;
  EXPECT_TRUE (run.out.starts_with ("1 frame of 1280x1024 in ")) << run.out;
}

TEST_F (CtlTest, EndsAtASecondInterruptWhenTheServerHangs)
{
  XServer server (XServer::XVFB);
  const std::string png = file ("0.png");
  CtlRun run (server.display (), { "capture", "--seconds=1000", "--png", file ("%d.png") });
  const pid_t pid = run.pid ();
  std::atomic<bool> has_ended = false;

  ASSERT_TRUE (wait_until ([&] { return g_file_test (png.c_str (), G_FILE_TEST_EXISTS); }));
  kill (server.pid (), SIGSTOP);
  std::thread user ([&] {
    for (; !has_ended; g_usleep (5000))
      kill (pid, SIGINT);
  });
  EXPECT_EQ (run.status (), -1);
  has_ended = true;
  user.join ();
}

TEST_F (CtlTest, StartsNoCaptureThatItCouldNotStop)
{
  XServer server (XServer::XVFB);
  FaultProxy proxy (server);

  /* After GDK's connection and the reader's: the one that would wake the reader. */
  proxy.add ({ .request = "Setup", .nth = 3, .error = XCB_ALLOC });
  const std::string y4m = file ("earlier.y4m");
  std::ofstream (y4m) << "earlier";
  CtlRun run (proxy.display (), { "capture", "--y4m", y4m, "--seconds=5" });
  EXPECT_EQ (run.status (), 1);
  EXPECT_TRUE (run.err.ends_with ("ryxctl: Cannot open a second connection to the display\n")) << run.err;
  EXPECT_EQ (std::filesystem::file_size (y4m), strlen ("earlier"));
}

TEST_F (CtlTest, GoesOnAfterAResizeButKeepsARecordingOfWhatWasBefore)
{
  XServer server (XServer::XORG_DUMMY);
  XcbClient client (server.display ());
  const std::string png = file ("0.png"), y4m = file ("screen.y4m");
  CtlRun run (server.display (), { "capture", "--png", file ("%d.png"), "--y4m", y4m });

  ASSERT_TRUE (wait_until ([&] { return g_file_test (png.c_str (), G_FILE_TEST_EXISTS); }));
  const auto resources = X_REPLY (client.conn, randr_get_screen_resources, client.root);
  xcb_randr_set_crtc_config_unchecked (client.conn, xcb_randr_get_screen_resources_crtcs (resources.get ())[1], 0, 0, 0,
                                       0, XCB_NONE, XCB_RANDR_ROTATION_ROTATE_0, 0, nullptr);
  xcb_randr_set_screen_size (client.conn, client.root, 1280, 1024, 339, 271);
  ASSERT_TRUE (client.round_trip ());
  EXPECT_EQ (run.status (), 1);
  EXPECT_NE (run.err.find ("The picture changed from 2560x1024 to 1280x1024"), std::string::npos) << run.err;
  EXPECT_GT (std::filesystem::file_size (y4m), 3u * 2560 * 1024);
}

TEST_F (CtlTest, PrintsALinePerChangeOfTheCursor)
{
  XServer server (XServer::XVFB);
  XcbClient client (server.display ());
  CtlRun watch (server.display (), { "cursor", "--watch" });

  ASSERT_TRUE (watch.wait_for_lines (2));
  xcb_warp_pointer (client.conn, XCB_NONE, client.root, 0, 0, 0, 0, 7, 9);
  ASSERT_TRUE (client.round_trip () && watch.wait_for_lines (3));
  CtlRun once (server.display (), { "cursor", "--png", "-" }); /* takes the time of several polls */
  EXPECT_TRUE (once.status () == 0 && once.out.starts_with ("\x89PNG")) << once.err;
  watch.interrupt ();
  EXPECT_EQ (watch.status (), 0) << watch.err;
  EXPECT_EQ (std::count (watch.out.begin (), watch.out.end (), '\n'), 3) << watch.out;
}

TEST_F (CtlTest, GivesUpOnAServerThatNeverGivesAFrame)
{
  XServer server (XServer::XVFB);
  FaultProxy proxy (server.display ());
  proxy.add ({ .request = "CopyArea", .error = XCB_ALLOC });

  CtlRun run (proxy.display (), { "capture" });
  EXPECT_EQ (run.status (), 1);
  EXPECT_EQ (run.err, "ryxctl: Failed to copy area (response_type: 0 error_code: 11)\n");
}
