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

/* Changes the CRTCs of a server with two connected outputs and reads back what is there then. */
class ScreenArranger : public XcbClient
{
public:
  using XcbClient::XcbClient;

  /* Shows an output with its own first mode through the CRTC of that index, or switches the CRTC off. */
  void
  set (int index, int x, int y, bool on)
  {
    const xcb_randr_crtc_t crtc = xcb_randr_get_screen_resources_crtcs (resources.get ())[index];
    const xcb_randr_output_t output = xcb_randr_get_screen_resources_outputs (resources.get ())[index];
    const auto info = X_REPLY (conn, randr_get_output_info, output, 0);
    const xcb_randr_mode_t mode = on ? *xcb_randr_get_output_info_modes (info.get ()) : XCB_NONE;
    const auto reply
      = X_REPLY (conn, randr_set_crtc_config, crtc, 0, 0, x, y, mode, XCB_RANDR_ROTATION_ROTATE_0, on, &output);
    EXPECT_TRUE (reply && reply->status == XCB_RANDR_SET_CONFIG_SUCCESS);
  }

  /* The heads of all CRTCs with outputs, as a plain client sees them. */
  std::string
  heads ()
  {
    std::string text;
    for (int i = 0; i < resources->num_crtcs; i++)
      {
        const xcb_randr_crtc_t crtc = xcb_randr_get_screen_resources_crtcs (resources.get ())[i];
        const auto info = X_REPLY (conn, randr_get_crtc_info, crtc, 0);
        for (int j = 0; j < info->num_outputs; j++)
          {
            const xcb_randr_output_t output = xcb_randr_get_crtc_info_outputs (info.get ())[j];
            g_autofree gchar *head = g_strdup_printf ("OUTPUT-%u:%u %ux%u+%d+%d", output, output, info->width,
                                                      info->height, info->x, info->y);
            text += (text.empty () ? "" : ", ") + std::string (head);
          }
      }
    return text;
  }

private:
  const XOwned<xcb_randr_get_screen_resources_reply_t> resources = X_REPLY (conn, randr_get_screen_resources, root);
};

TEST_F (EnumeratorTest, TellsTheHeadsThatAPlainClientSees)
{
  XServer server (XServer::XORG_DUMMY);
  ScreenArranger arranger (server.display ());
  GdkDisplayScope gdk (server.display ());

  const std::string side_by_side = arranger.heads ();
  EXPECT_NE (side_by_side.find ("+1280+0"), std::string::npos) << side_by_side;
  EXPECT_EQ (enumerate_heads (), side_by_side);

  arranger.set (1, 0, 0, true);
  EXPECT_EQ (enumerate_heads (), arranger.heads ()) << "mirrored";

  arranger.set (0, 0, 0, false);
  arranger.set (1, 100, 0, true);
  EXPECT_EQ (enumerate_heads (), arranger.heads ()) << "one off, the other not at the origin";

  arranger.set (1, 0, 0, false);
  EXPECT_EQ (enumerate_heads (), "SCREEN:0 2560x1024+0+0") << "all off";
}

TEST_F (EnumeratorTest, TellsTheWholeScreenWithoutRandr)
{
  XServer server (XServer::XVFB, { "-extension", "RANDR" });
  GdkDisplayScope gdk (server.display ());
  LogRecorder log;

  EXPECT_EQ (enumerate_heads (), "SCREEN:0 1280x1024+0+0");
  EXPECT_EQ (log.count (domain, G_LOG_LEVEL_WARNING, "RandR extension not available"), 1u) << log.dump ();
}

TEST_F (EnumeratorTest, FailsWithoutADisplay)
{
  LogRecorder log;

  EXPECT_EQ (enumerate_heads (), "Could not get the screen");
  EXPECT_TRUE (log.contains (domain, G_LOG_LEVEL_WARNING, "RandR extension not available")) << log.dump ();
}
