#include <gtest/gtest.h>
#include <xcb/randr.h>

#include "capture.h"
#include "layout.h"
#include "logrecorder.h"
#include "xserver.h"

static const char domain[] = "RYX:x11:display";

class EnumeratorTest : public testing::Test
{
protected:
  EnumeratorTest () { load_module (); }
};

struct Arrangement
{
  const char *xrandr; /* what another client changes */
  const char *heads;  /* what there is then, in the words of RandR */
};

static const Arrangement arrangements[] = {
  { "", "DUMMY0 1280x1024+0+0, DUMMY1 1280x1024+1280+0" },
  { "--output DUMMY1 --pos 0x0", "DUMMY0 1280x1024+0+0, DUMMY1 1280x1024+0+0" },
  { "--output DUMMY0 --off", "DUMMY1 1280x1024+0+0" },
};

TEST_F (EnumeratorTest, TellsTheHeadsThatAPlainClientSees)
{
  XServer server (XServer::XORG_DUMMY);
  XcbClient client (server.display ());
  LayoutObserver observer (client);
  GdkDisplayScope gdk (server.display ());
  const auto resources = X_REPLY (client.conn, randr_get_screen_resources, client.root);
  const xcb_randr_output_t *outputs = xcb_randr_get_screen_resources_outputs (resources.get ());

  for (const auto &[xrandr, heads] : arrangements)
    {
      SCOPED_TRACE (xrandr);
      const std::string command = std::string ("xrandr -d ") + server.display () + " " + xrandr;
      ASSERT_TRUE (g_spawn_command_line_sync (command.c_str (), nullptr, nullptr, nullptr, nullptr));
      ASSERT_TRUE (observer.look ());
      EXPECT_TRUE (observer.heads.ends_with (heads)) << observer.heads;

      std::string expected = heads;
      for (int i = 0; i < 2; i++)
        {
          const std::string id = std::to_string (outputs[i]);
          expected = replace_all (expected, "DUMMY" + std::to_string (i), "OUTPUT-" + id + ":" + id);
        }
      EXPECT_EQ (enumerate_heads (), expected);
    }

  observer.arrange ("");
  ASSERT_TRUE (observer.look ());
  const std::string size = observer.heads.substr (0, observer.heads.find (':'));
  EXPECT_EQ (enumerate_heads (), "SCREEN:0 " + size + "+0+0") << "all off";
}

TEST_F (EnumeratorTest, TellsTheWholeScreenWithoutRandr)
{
  XServer server (XServer::XVFB, { "-extension", "RANDR" });
  GdkDisplayScope gdk (server.display ());
  LogRecorder log;

  EXPECT_EQ (enumerate_heads (), "SCREEN:0 1280x1024+0+0");
  EXPECT_EQ (log.count (domain, G_LOG_LEVEL_WARNING, "RandR extension not available"), 1u) << log.dump ();
}

TEST_F (EnumeratorTest, HasNoAdaptersToTellOf)
{
  LogRecorder log;
  g_autoptr (GObject) enumerator
    = G_OBJECT (ryx_host_create (RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT, nullptr, nullptr, nullptr));

  log.clear ();
  ryx_display_enumerator_log_gpu_adapter_list (RYX_DISPLAY_ENUMERATOR (enumerator));
  EXPECT_EQ (log.dump (), "");
}

TEST_F (EnumeratorTest, FailsWithoutADisplay)
{
  LogRecorder log;

  EXPECT_EQ (enumerate_heads (), "Could not get the screen");
  EXPECT_TRUE (log.contains (domain, G_LOG_LEVEL_WARNING, "RandR extension not available")) << log.dump ();
}
