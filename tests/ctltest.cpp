#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>
#include <xcb/damage.h>

#include "capture.h"
#include "ctl.h"
#include "faultproxy.h"
#include "layout.h"

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

  /* A capture into numbered pictures has written the first. */
  bool
  has_picture ()
  {
    return wait_until ([&] { return std::filesystem::exists (file ("0.png")); });
  }

  gchar *directory;
};

/* Split at spaces. */
static std::vector<std::string>
split (const char *line)
{
  std::istringstream words (line);
  return { std::istream_iterator<std::string> (words), {} };
}

static const struct
{
  const char *line;
  int status;
  const char *words;
  bool has_display = true;
} wrong_lines[] = {
  { "", 2, "ryxctl: a command is missing\n" },
  { "heds", 2, "ryxctl: unknown command \"heds\"\n" },
  { "heads --wach", 2, "ryxctl: heads: Unknown option --wach\n" },
  { "heads all", 2, "ryxctl: heads: unexpected argument \"all\"\n" },
  { "capture --frames 0", 2, "ryxctl: capture: --frames must be from 1 to " },
  { "capture --frames=-1", 2, "ryxctl: capture: --frames must be from 1 to " },
  { "capture --block-size=0", 2, "ryxctl: capture: --block-size must be from 1 to 65535" },
  { "capture --seconds=nan", 2, "ryxctl: capture: --seconds must be above 0" },
  { "capture --seconds=-1", 2, "ryxctl: capture: --seconds must be above 0" },
  { "capture --frames=2 --png=a.png", 2, "needs a %d for the frame's number" },
  { "capture --seconds=1 --map", 2, "capture: --map tints pictures" },
  { "capture --png=- --y4m=- --frames=1", 2, "can't both be standard output" },
  { "capture --y4m=/nowhere/a", 1, "ryxctl: Cannot open /nowhere/a: No such file" },
  { "capture --y4m=/dev/full --frames=1", 1, "ryxctl: Cannot write the recording: No" },
  { "key", 2, "ryxctl: key: a key is missing" },
  { "key \xff", 2, "ryxctl: key: a combination is not valid UTF-8" },
  { "layout", 2, "ryxctl: layout: no head was given (WxH+X+Y)\n" },
  { "layout 800x600+0+0 800x600", 2, "layout: \"800x600\" is not a head's geometry" },
  { "layout 800x+600+0+0", 2, "layout: \"800x+600+0+0\" is not a head's geometry (WxH+X+Y)" },
  { "layout 4294968096x600+0+0", 2, "layout: \"4294968096x600+0+0\" is not a head's" },
  { "layout 800x600+32768+0", 2, "layout: \"800x600+32768+0\" is not a head's" },
  { "layout 800x0+0+0", 2, "layout: \"800x0+0+0\" is not a head's geometry (WxH+X+Y)" },
  { "layout 800x600+0+0,", 2, "layout: \"800x600+0+0,\" is not a head's geometry" },
  { "layout 640x480+0+0 640x480+640+0", 1, "ryxctl: Unsupported configuration (2 " },
  { "capture --output=4242", 1, "ryxctl: There is no head with the output id 4242" },
  { "type", 2, "ryxctl: type: a text is missing\n" },
  { "key F5 -- -x", 2, "ryxctl: key: unknown key \"-x\"" },
  { "type a\001", 2, "ryxctl: type: no key makes the control character U+0001" },
  { "type a\xe2\x82", 2, "ryxctl: type: the text is not valid UTF-8 at byte 1\n" },
  { "key Control+Foo", 2, "ryxctl: key: unknown key \"Foo\" in \"Control+Foo\"\n" },
  { "key Control+", 2, "ryxctl: key: unknown key \"\" in \"Control+\"\n" },
  { "motion -5", 2, "ryxctl: motion: needs X and Y\n" },
  { "button 1 --up --down", 2, "ryxctl: button: --down and --up exclude" },
  { "capture --png=/nowhere/a.png", 1, "/nowhere/a.png" },
  { "cursor --watch --png=-", 2, "with --watch, --png needs a file" },
  { "heads", 3, "ryxctl: No display to open: DISPLAY is not set", false },
  { "heads --display=:98765", 3, "ryxctl: Cannot open display \":98765\"\n", false },
  { "--module-dir=/nowhere heads", 3, "ryxctl: Error opening directory" },
};

TEST_F (CtlTest, TellsWhatIsWrongAndExitsAccordingly)
{
  XServer server (XServer::XVFB);

  for (const auto &[line, status, words, has_display] : wrong_lines)
    {
      SCOPED_TRACE (line);
      CtlRun run (has_display ? server.display () : nullptr, split (line));
      EXPECT_EQ (run.status (), status);
      EXPECT_NE (run.err.find (words), std::string::npos) << run.err;
      EXPECT_EQ (run.out, "");
    }
}

TEST_F (CtlTest, DoesEachThingAndTellsItsResult)
{
  static const std::pair<const char *, const char *> rows[] = {
    { "--version", "ryxctl " },
    { "implementations --json", "\"fbreaderxcb\"" },
    { "capture --frames=1 --map --png=-", "PNG" },
    { "capture --seconds=0.2 --debug", "1 frame of 640x480" },
    { "layout 640x480+0+0", "WIDTH HEIGHT\n" },
    { "motion 600 400", "" },
    { "motion --relative -1 2", "" },
    { "cursor --json", "\"y\" : 402" },
    { "button 1 --down", "" },
    { "button 1 --up", "" },
    { "wheel --horizontal 2", "" },
  };
  XServer server (XServer::XVFB, { "-screen", "0", "640x480x24" });

  for (const auto &[line, words] : rows)
    {
      CtlRun run (server.display (), split (line));
      EXPECT_EQ (run.status (), 0) << run.err;
      EXPECT_NE (run.out.find (words), std::string::npos) << words << ": " << run.out.substr (0, 500) << run.err;
    }
}

TEST_F (CtlTest, FailsWhenItsResultsAreLost)
{
  XServer server (XServer::XVFB, { "-screen", "0", "8x8x24" });

  for (const char *line : { "heads --json", "capture --png=-" })
    {
      SCOPED_TRACE (line);
      CtlRun run (server.display (), split (line), "/dev/full");
      EXPECT_EQ (run.status (), 1);
      EXPECT_TRUE (run.err.starts_with ("ryxctl: Cannot write to standard output")) << run.err;
    }
}

TEST_F (CtlTest, ListsImplementationsWithoutADisplay)
{
  CtlRun implementations (nullptr, { "implementations" });
  EXPECT_EQ (implementations.status (), 0) << implementations.err;
  EXPECT_NE (implementations.out.find ("RyxFrameBufferReaderXcb"), std::string::npos) << implementations.out;
}

TEST_F (CtlTest, ListsTheHeadsAndWatchesThemUntilInterrupted)
{
  XServer server (XServer::XORG_DUMMY);
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

  CtlRun watch (server.display (), { "heads", "--watch" });

  ASSERT_TRUE (watch.wait_for_lines (3));
  EXPECT_NE (watch.out.find ("OUTPUT-79                79   1280      0   1280   1024\n"), std::string::npos)
    << watch.out;
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
  CtlRun run (server.display (), { "capture", "--seconds=1000", "--png", file ("%d.png") });

  ASSERT_TRUE (has_picture ());
  run.interrupt ();
  EXPECT_EQ (run.status (), 0) << run.err;
  EXPECT_TRUE (run.out.starts_with ("1 frame of 1280x1024 in ")) << run.out;
}

TEST_F (CtlTest, EndsAtASecondInterruptWhenTheServerHangs)
{
  XServer server (XServer::XVFB);
  CtlRun run (server.display (), { "capture", "--seconds=1000", "--png", file ("%d.png") });
  const pid_t pid = run.pid ();
  std::atomic<bool> has_ended = false;

  ASSERT_TRUE (has_picture ());
  kill (server.pid (), SIGSTOP);
  std::thread user ([&] {
    for (; !has_ended; g_usleep (5000))
      kill (pid, SIGINT);
  });
  EXPECT_EQ (run.status (), -1);
  has_ended = true;
  user.join ();
}

TEST_F (CtlTest, ACaptureWithoutAFrameEndsAndKeepsAnEarlierRecording)
{
  /* The connections are GDK's, the reader's, and the one that would wake the reader. */
  static const std::pair<const char *, const char *> rows[] = {
    { "Setup 2", "ryxctl: Unable to open XCB connection in reader " },
    { "Setup 3", "ryxctl: Cannot open a second connection to the display\n" },
    { "CopyArea", "ryxctl: Failed to copy area (response_type: 0 error_code: 2)\n" },
    { "XFixesQueryVersion 2", "ryxctl: Unsupported XFIXES version for XCB connection in reader " },
    { "DamageQueryVersion 0 as 1.0", "ryxctl: The display's Damage extension is too old\n" }, /* can't wake it */
  };
  const FaultKinds kinds
    = { { "as 1.0", { .patch = { X_FIELD (xcb_damage_query_version_reply_t, minor_version, 0) } } } };
  XServer server (XServer::XVFB);
  const std::string y4m = file ("earlier.y4m");
  std::ofstream (y4m) << "earlier";

  for (const auto &[faults, words] : rows)
    {
      FaultProxy proxy (server);
      proxy.add (faults, kinds);
      CtlRun run (proxy.display (), { "capture", "--y4m", y4m, "--seconds=5" });
      EXPECT_EQ (run.status (), 1) << faults;
      EXPECT_NE (run.err.find (words), std::string::npos) << faults << run.err;
      EXPECT_EQ (std::filesystem::file_size (y4m), strlen ("earlier")) << faults;
    }
}

TEST_F (CtlTest, GoesOnAfterAResizeButKeepsARecordingOfWhatWasBefore)
{
  XServer server (XServer::XORG_DUMMY);
  XcbClient client (server.display ());
  const std::string y4m = file ("screen.y4m");
  CtlRun run (server.display (), { "capture", "--png", file ("%d.png"), "--y4m", y4m });

  ASSERT_TRUE (has_picture ());
  LayoutObserver (client).arrange ("1280x1024+0+0");
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
