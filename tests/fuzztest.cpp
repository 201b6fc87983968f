#include <gtest/gtest.h> /* before Xlib, which defines None */

#include <algorithm>
#include <string>

#include "ctl.h"
#include "fuzz.h"
#include "inputobserver.h"
#include "layout.h"
#include "logrecorder.h"

/* Bytes, of which most are characters. */
static std::string
random_text (Fuzz &fuzz, int most)
{
  std::string text;

  for (int i = fuzz.pick (0, most); i > 0; i--)
    {
      gchar utf8[8] = {};
      g_unichar_to_utf8 (fuzz.pick (1, fuzz.pick (0, 1) ? 0x7f : 0x10ffff), utf8);
      text += fuzz.pick (0, 9) ? utf8 : std::string (1, char (fuzz.pick (1, 255)));
    }
  return text;
}

/* A geometry that is close to what could be asked for, or none. */
static std::string
random_geometry (Fuzz &fuzz)
{
  static const int extents[] = { 0, 1, 7, 640, 641, 800, 1024, 1280, 4095, 4096, 4097, 65535, -1 };
  const auto pick_extent = [&] { return fuzz.pick (0, 1) ? fuzz.one_of (extents) : int (fuzz.number ()); };
  g_autofree gchar *geometry
    = g_strdup_printf ("%dx%d%+d%+d", pick_extent (), pick_extent (), pick_extent (), pick_extent ());

  return geometry;
}

TEST (LayoutFuzz, LeavesTheOldLayoutOrTheNumberOfHeadsAskedFor)
{
  XServer server (XServer::XORG_DUMMY);
  XcbClient client (server.display ());
  LayoutObserver observer (client);
  GdkDisplayScope gdk (server.display ());

  for (Fuzz fuzz (30); fuzz.next () && !HasFailure ();)
    {
      LogRecorder log (G_LOG_LEVEL_ERROR);
      std::string geometries;
      const int n_heads = fuzz.pick (0, 3);

      for (int i = 0; i < n_heads; i++)
        geometries += random_geometry (fuzz) + " ";
      observer.arrange (fuzz.pick (0, 1) ? "1024x768+0+0" : "1280x720+0+0 800x600+1280+0");
      ASSERT_TRUE (observer.look ());
      const std::string before = observer.heads;
      const std::string error = request_layout (geometries.c_str ());
      ASSERT_TRUE (observer.look ()) << geometries;
      if (error.empty ())
        EXPECT_EQ (std::ranges::count (observer.heads, '+'), 2 * n_heads) << geometries << observer.heads;
      else
        EXPECT_EQ (observer.heads, before) << geometries << error;
      EXPECT_FALSE (log.contains (nullptr, G_LOG_LEVEL_CRITICAL, "")) << log.dump ();
    }
}

TEST (KeyFuzz, AnyTextAndAnyNameLeaveTheKeyboardAtRest)
{
  static const char *const names[] = { "Shift", "Control", "Alt", "AltGraph", "Enter", "F1", "Clear", "", "Zzz" };
  XServer server (XServer::XVFB);
  GdkDisplayScope gdk (server.display ());
  InputObserver observer (server.display ());

  for (Fuzz fuzz (60); fuzz.next () && !HasFailure ();)
    {
      LogRecorder log (G_LOG_LEVEL_ERROR);
      const TestInjector injector = create_injector ();
      const auto location = RyxInputInjectorKeyLocation (fuzz.pick (0, 9) ? fuzz.pick (0, 3) : fuzz.number ());
      const std::string name = fuzz.pick (0, 2) ? fuzz.one_of (names) : random_text (fuzz, 8);
      const std::string text = random_text (fuzz, 3);

      ryx_input_injector_channel_connected (injector.get (), 0);
      ryx_input_injector_special_key_event (injector.get (), name.c_str (), location, TRUE);
      for (bool down : { true, false })
        ryx_input_injector_key_event (injector.get (), text.c_str (), location, down);
      ryx_input_injector_button_event (injector.get (), fuzz.number (), FALSE);
      ryx_input_injector_axis_event (injector.get (), fuzz.number (), fuzz.number ());
      ryx_input_injector_motion_event (injector.get (), fuzz.number (), fuzz.number (), fuzz.pick (0, 1));
      settle ();
      ryx_input_injector_special_key_event (injector.get (), name.c_str (), location, FALSE);
      ryx_input_injector_channel_disconnected (injector.get (), 0);
      settle ();
      EXPECT_TRUE (wait_until ([&] { return observer.keyboard ().starts_with ("mods 0 locked 0"); }))
        << observer.keyboard () << " after " << text << " under " << name;
      EXPECT_FALSE (log.contains (nullptr, G_LOG_LEVEL_CRITICAL, "")) << log.dump ();
    }
}

/* Each map is the only one: Xlib updates none that contradicts itself without reading beyond it. What the server says
 * is down the injector puts back, so that nothing can be expected of the keyboard here. */
TEST (KeyFuzz, AnyKeyboardIsTypedOn)
{
  XServer server (XServer::XVFB);
  FaultProxy proxy (server);
  GdkDisplayScope gdk (proxy.display ());
  /* GDK and Xlib ask for less. */
  const auto wants_actions = [] (const Bytes &request) { return *as<uint16_t> (&request[6]) == 0x57; };

  for (Fuzz fuzz (40); fuzz.next () && !HasFailure ();)
    {
      LogRecorder log (G_LOG_LEVEL_ERROR);
      proxy.clear ();
      proxy.add ({ .request = "XkbGetMap", .nth = 1, .when = wants_actions, .edit = [=] (Bytes &reply) mutable {
                    fuzz.change_key_map (reply);
                  } });
      proxy.add ({ .request = "XkbGetMap",
                   .when = [=, n = 0] (const Bytes &request) mutable { return wants_actions (request) && n++ > 0; },
                   .error = XCB_ALLOC });
      proxy.add ({ .request = "XkbGetState", .edit = [=] (Bytes &reply) mutable { fuzz.change_values (reply); } });
      const TestInjector injector = create_injector ();
      type (injector, "aZ4 é/", RyxInputInjectorKeyLocation (fuzz.pick (0, 3)));
      EXPECT_FALSE (log.contains (nullptr, G_LOG_LEVEL_CRITICAL, "")) << log.dump ();
    }
}

/* One that ends by itself, writes nothing but pictures into the current folder, and is not always nonsense. */
static std::vector<std::string>
random_arguments (Fuzz &fuzz)
{
  static const char *const commands[]
    = { "heads", "layout", "capture", "cursor", "type", "key", "motion", "button", "wheel", "implementations", "" };
  static const char *const options[]
    = { "--frames",  "--block-size", "--refine",  "--output",     "--png",      "--map", "--json",
        "--version", "--help",       "--display", "--module-dir", "--frames=1", "--",    "-",
        "--press",   "--relative",   "--x",       "--verbose",    "--debug" };
  std::vector<std::string> arguments = { fuzz.pick (0, 9) ? fuzz.one_of (commands) : random_text (fuzz, 4) };

  if (arguments[0] == "capture") /* else one that asks for a number of frames that are never drawn does not end */
    arguments.insert (arguments.end (), { "--seconds", "0.01", "--frames", "1", "--png", "-" });
  for (int i = fuzz.pick (0, 4); i > 0; i--)
    switch (fuzz.pick (0, 3))
      {
      case 0:
        arguments.push_back (random_text (fuzz, 6));
        break;
      case 1:
        arguments.push_back (random_geometry (fuzz));
        break;
      case 2:
        arguments.push_back (std::to_string (int (fuzz.number ())));
        break;
      default:
        arguments.push_back (fuzz.one_of (options));
      }
  return arguments;
}

TEST (CtlFuzz, AnyArgumentsEndInAResultOrAMessage)
{
  XServer server (XServer::XVFB, { "-screen", "0", "640x480x24" });

  for (Fuzz fuzz (40); fuzz.next () && !HasFailure ();)
    {
      const std::vector<std::string> arguments = random_arguments (fuzz);
      CtlRun run (fuzz.pick (0, 3) ? server.display () : nullptr, arguments);
      run.end_input ();
      EXPECT_TRUE (run.status () >= 0 && run.status () <= 3) << testing::PrintToString (arguments) << run.err;
      EXPECT_TRUE (run.status () == 0 || run.err.starts_with ("ryxctl: ")
                   || run.err.find ("\nryxctl: ") != std::string::npos)
        << testing::PrintToString (arguments) << run.err;
    }
}
