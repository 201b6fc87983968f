#include <gtest/gtest.h>
#include <xcb/randr.h>

#include "capture.h"
#include "logrecorder.h"
#include "xserver.h"

static const char domain[] = "RYX:x11:display";

/* Heads in the notation "NAME:ID WxH+X+Y". */
static std::string
describe_layout (RyxDisplayLayout *layout)
{
  guint32 n_heads;
  RyxDisplayHead **heads = ryx_display_layout_get_heads (layout, &n_heads);
  std::string text;

  for (guint32 i = 0; i < n_heads; i++)
    {
      RyxRect rect;
      ryx_display_head_get_rect (heads[i], &rect);
      g_autofree gchar *head
        = g_strdup_printf ("%s:%u %ux%u+%u+%u", ryx_display_head_get_name (heads[i]),
                           ryx_display_head_get_output_id (heads[i]), rect.width, rect.height, rect.x, rect.y);
      text += (text.empty () ? "" : ", ") + std::string (head);
      EXPECT_FALSE (ryx_display_head_get_primary (heads[i]));
    }
  return text;
}

class EnumeratorTest : public testing::Test
{
protected:
  EnumeratorTest () { load_module (); }

  static std::string
  enumerate (gpointer enumerator)
  {
    g_autoptr (GError) error = nullptr;
    g_autoptr (RyxDisplayLayout) layout
      = ryx_display_enumerator_get_display_layout (RYX_DISPLAY_ENUMERATOR (enumerator), &error);
    return layout ? describe_layout (layout) : error->message;
  }

  static std::string
  enumerate ()
  {
    g_autoptr (GObject) enumerator = G_OBJECT (
      ryx_host_create (RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT, "displayenumeratorxrandr", nullptr, nullptr));
    EXPECT_TRUE (G_IS_INITABLE (enumerator));
    return enumerate (enumerator);
  }
};

/* Changes the CRTCs of a server with two connected outputs and reads back what is there then. */
class ScreenArranger : public XcbClient
{
public:
  explicit ScreenArranger (const char *display)
      : XcbClient (display),
        resources (xcb_randr_get_screen_resources_reply (conn, xcb_randr_get_screen_resources (conn, root), nullptr))
  {
  }
  ~ScreenArranger () { free (resources); }

  /* Shows an output with its own first mode through the CRTC of that index, or switches the CRTC off. */
  void
  set (int index, int x, int y, bool on)
  {
    const xcb_randr_crtc_t crtc = xcb_randr_get_screen_resources_crtcs (resources)[index];
    const xcb_randr_output_t output = xcb_randr_get_screen_resources_outputs (resources)[index];
    auto *info = xcb_randr_get_output_info_reply (conn, xcb_randr_get_output_info (conn, output, 0), nullptr);
    const xcb_randr_mode_t mode = on ? *xcb_randr_get_output_info_modes (info) : XCB_NONE;
    auto *reply = xcb_randr_set_crtc_config_reply (
      conn, xcb_randr_set_crtc_config (conn, crtc, 0, 0, x, y, mode, XCB_RANDR_ROTATION_ROTATE_0, on, &output),
      nullptr);

    EXPECT_TRUE (reply && reply->status == XCB_RANDR_SET_CONFIG_SUCCESS);
    free (reply);
    free (info);
  }

  /* The heads of all CRTCs with outputs, as a plain client sees them. */
  std::string
  heads ()
  {
    std::string text;
    for (int i = 0; i < resources->num_crtcs; i++)
      {
        const xcb_randr_crtc_t crtc = xcb_randr_get_screen_resources_crtcs (resources)[i];
        auto *info = xcb_randr_get_crtc_info_reply (conn, xcb_randr_get_crtc_info (conn, crtc, 0), nullptr);
        for (int j = 0; j < info->num_outputs; j++)
          {
            const xcb_randr_output_t output = xcb_randr_get_crtc_info_outputs (info)[j];
            g_autofree gchar *head = g_strdup_printf ("OUTPUT-%u:%u %ux%u+%d+%d", output, output, info->width,
                                                      info->height, info->x, info->y);
            text += (text.empty () ? "" : ", ") + std::string (head);
          }
        free (info);
      }
    return text;
  }

private:
  xcb_randr_get_screen_resources_reply_t *resources;
};

TEST_F (EnumeratorTest, TellsTheHeadsThatAPlainClientSees)
{
  XServer server (XServer::XORG_DUMMY);
  ScreenArranger arranger (server.display ());
  GdkDisplayScope gdk (server.display ());

  const std::string side_by_side = arranger.heads ();
  EXPECT_NE (side_by_side.find ("+1280+0"), std::string::npos) << side_by_side;
  EXPECT_EQ (enumerate (), side_by_side);

  arranger.set (1, 0, 0, true);
  EXPECT_EQ (enumerate (), arranger.heads ()) << "mirrored";

  arranger.set (0, 0, 0, false);
  arranger.set (1, 100, 0, true);
  EXPECT_EQ (enumerate (), arranger.heads ()) << "one off, the other not at the origin";

  arranger.set (1, 0, 0, false);
  EXPECT_EQ (enumerate (), "SCREEN:0 2560x1024+0+0") << "all off";
}

TEST_F (EnumeratorTest, TellsTheWholeScreenWithoutRandr)
{
  XServer server (XServer::XVFB, { "-extension", "RANDR" });
  GdkDisplayScope gdk (server.display ());
  LogRecorder log;

  EXPECT_EQ (enumerate (), "SCREEN:0 1280x1024+0+0");
  EXPECT_EQ (log.count (domain, G_LOG_LEVEL_WARNING, "RandR extension not available"), 1u) << log.dump ();
}

TEST_F (EnumeratorTest, FailsWithoutADisplay)
{
  LogRecorder log;

  EXPECT_EQ (enumerate (), "Could not get the screen");
  EXPECT_TRUE (log.contains (domain, G_LOG_LEVEL_WARNING, "RandR extension not available")) << log.dump ();
}
