#include <gtest/gtest.h>
#include <xcb/randr.h>

#include "layout.h"
#include "logrecorder.h"
#include "xserver.h"

static const char domain[] = "RYX:x11:display";

static const struct
{
  const char *xrandr; /* what another client changes */
  const char *heads;  /* what there is then, in the words of RandR */
} arrangements[] = {
  { "", "DUMMY0 1280x1024+0+0, DUMMY1 1280x1024+1280+0" },
  { "--output DUMMY1 --pos 0x0", "DUMMY0 1280x1024+0+0, DUMMY1 1280x1024+0+0" },
  { "--output DUMMY0 --off", "DUMMY1 1280x1024+0+0" },
};

TEST (EnumeratorTest, TellsTheHeadsThatAPlainClientSees)
{
  XServer server (XServer::XORG_DUMMY);
  XcbClient client (server.display ());
  LayoutObserver observer (client);
  GdkDisplayScope gdk (server.display ());

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
          const std::string id = std::to_string (client.outputs ()[i]);
          expected = replace_all (expected, "DUMMY" + std::to_string (i), "OUTPUT-" + id + ":" + id);
        }
      EXPECT_EQ (enumerate_heads (), expected);
    }

  observer.arrange ("");
  ASSERT_TRUE (observer.look ());
  const std::string size = observer.heads.substr (0, observer.heads.find (':'));
  EXPECT_EQ (enumerate_heads (), "SCREEN:0 " + size + "+0+0") << "all off";
}

TEST (EnumeratorTest, FailsWithoutADisplay)
{
  LogRecorder log;

  EXPECT_EQ (enumerate_heads (), "Could not get the screen");
  EXPECT_TRUE (log.contains (domain, G_LOG_LEVEL_WARNING, "RandR extension not available")) << log.dump ();
}
