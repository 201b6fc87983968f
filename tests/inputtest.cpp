#include <gtest/gtest.h> /* before Xlib, which defines None */

#include <algorithm>

#include <X11/extensions/XTest.h>

#include "capture.h"
#include "ctl.h"
#include "faultproxy.h"
#include "inputobserver.h"
#include "logrecorder.h"

static const char at_rest[] = "mods 0 locked 0 group 0 latched 0";
static constexpr auto STANDARD = RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD;

class InputTest : public testing::Test
{
protected:
  /* `keymap`: arguments of setxkbmap. */
  void
  set_keyboard (const std::string &keymap, int group = 0, unsigned locks = 0)
  {
    const std::string command = std::string ("setxkbmap -display ") + server.display () + " " + keymap;
    EXPECT_TRUE (g_spawn_command_line_sync (command.c_str (), nullptr, nullptr, nullptr, nullptr));
    XkbLockGroup (observer.display, XkbUseCoreKbd, group);
    XkbLockModifiers (observer.display, XkbUseCoreKbd, LockMask | Mod2Mask, locks);
    XSync (observer.display, False);
    settle ();
  }

  /* One word of a script: "+Shift.R", "-Shift.R": a special key, with S, L, R or N for its location; "!+Shift_L",
   * "!-Shift_L": a key of another client; "#+", "#-": a channel comes, goes; "B1": a button; "W1,-3": a wheel; ".5": on
   * the keypad; "_a": a key that is not released; "?": which keys are down; else text. */
  std::string
  play_word (const char *word)
  {
    static const char places[] = "SLRN";
    RyxInputInjector *target = injector.get ();
    char sign, place = places[0], name[32];
    int number, value;

    if (strcmp (word, "?") == 0)
      return "[" + observer.keyboard ().substr (0, observer.keyboard ().find ("mods")) + "]";
    if (sscanf (word, "W%d,%d", &number, &value) == 2)
      ryx_input_injector_axis_event (target, number, value);
    else if (sscanf (word, "B%d", &number) == 1)
      for (bool down : { true, false })
        ryx_input_injector_button_event (target, number, down);
    else if (word[0] == '_')
      ryx_input_injector_key_event (target, word + 1, STANDARD, TRUE);
    else if (word[0] == '#')
      (word[1] == '+' ? ryx_input_injector_channel_connected : ryx_input_injector_channel_disconnected) (target, 1);
    else if (sscanf (word, "!%c%31s", &sign, name) == 2)
      XTestFakeKeyEvent (observer.display, XKeysymToKeycode (observer.display, XStringToKeysym (name)), sign == '+', 0);
    else if (sscanf (word, "%c%31[A-Za-z0-9].%c", &sign, name, &place) >= 2 && strchr ("+-", sign))
      ryx_input_injector_special_key_event (target, name, RyxInputInjectorKeyLocation (strchr (places, place) - places),
                                            sign == '+');
    else
      type (injector, word[0] == '.' ? word + 1 : word,
            word[0] == '.' ? RYX_INPUT_INJECTOR_KEY_LOCATION_NUMPAD : STANDARD);
    settle ();
    return observer.text ();
  }

  /* What arrives of a script, and how the keyboard is left if not as it was. */
  std::string
  play (const char *script)
  {
    const std::string before = observer.keyboard ();
    g_auto (GStrv) words = g_strsplit (script, " ", -1);
    std::string arrived;

    for (char **word = words; *word; word++)
      {
        observer.forget ();
        arrived += play_word (*word);
      }
    return arrived + (observer.keyboard () == before ? "" : " leaves " + observer.keyboard ());
  }

  XServer server{ XServer::XVFB };
  FaultProxy proxy{ server };
  GdkDisplayScope scope{ server.display () };
  InputObserver observer{ server.display () };
  TestInjector injector = create_injector ();
};

static const char ascii[]
  = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~";

static const struct
{
  const char *keymap;
  int group;
  const char *text;     /* besides ASCII */
  const char *left_out; /* levels that only Shift leads to, at keys that are typed with Caps Lock */
} layout_cases[] = {
  { "us", 0, "é", "" },         { "us -variant dvorak", 0, "", "" }, { "de", 0, "äöüÄÖÜ", "?@\\" },
  { "fr", 0, "éèçàù", "<>" },   { "gb", 0, "£€¬", "<>@" },           { "ch -variant fr", 0, "éàèüöä", "<>" },
  { "jp", 0, "", "" },          { "us,ru", 0, "Привет", "" },        { "us,ru", 1, "Привет", "" },
  { "ru,us", 0, "Привет", "" }, { "ru,us", 1, "Привет", "" },        { "us,gr", 1, "Ελληνικά", "" },
};

TEST_F (InputTest, TypesWhatWasSentOnEveryLayout)
{
  for (const auto &row : layout_cases)
    for (const std::string held : { "", "Caps Lock", "Num Lock", "Shift.L", "Shift.R", "AltGraph" })
      {
        std::string text = held[0] == 'C' ? "" : row.text;
        std::copy_if (ascii, ascii + strlen (ascii), std::back_inserter (text),
                      [&] (char c) { return !strchr (row.left_out, c); });

        set_keyboard (row.keymap, row.group, held[0] == 'C' ? LockMask : held[0] == 'N' ? Mod2Mask : 0);
        g_autofree gchar *script = g_strdup_printf ("+%s %s -%s", held.c_str (), text.c_str (), held.c_str ());
        EXPECT_EQ (play (held[0] == 'S' || held[0] == 'A' ? script : text.c_str ()), text)
          << row.keymap << " in group " << row.group << " with " << held;
      }
}

static const struct
{
  const char *keymap;
  int group;
  unsigned locks;
  const char *script, *arrives;
} play_cases[] = {
  { "us", 0, 0, "+Control.L cC +Shift.R c -Shift.R -Control.L", "^c^c^C" },
  { "us,ru", 1, 0, "+Control.R v -Control.R м", "^vм" },
  { "us,ru", 0, 0, "_д _д д", "д" },
  { "de", 0, 0, "+Control.L +Alt.L @[} -Alt.L -Control.L", "@[}" },
  { "us", 0, 0, ".0 .1 .2 .3 .4 .5 .6 .7 .8 .9 .+ .- .* ./ ..",
    "<KP_0><KP_1><KP_2><KP_3><KP_4><KP_5><KP_6><KP_7><KP_8><KP_9><KP_Add><KP_Subtract><KP_Multiply><KP_Divide>"
    "<KP_Decimal>" },
  { "us", 0, Mod2Mask, ".0 .5 .9 .+ ..", "<KP_0><KP_5><KP_9><KP_Add><KP_Decimal>" },
  { "us", 0, 0, "+Enter -Enter +Enter.N -Enter.N +ArrowLeft -ArrowLeft +ArrowLeft.N -ArrowLeft.N +F12 -F12 +Tab -Tab",
    "<Return><KP_Enter><Left><KP_Left><F12><Tab>" },
  { "us", 0, 0, "+Shift.L ? +Shift.R ? -Shift.L -Shift.R +Alt.L ? -Alt.L +Alt.R ? -Alt.R +AltGraph ? -AltGraph",
    "[50 ][50 62 ][64 ][108 ][92 ]" },
  { "us -option caps:swapescape", 0, 0, "+Escape -Escape A", "<Escape>A" },
  { "us", 0, 0, "B1 B3 B0 W1,-3 W1,120 W0,1 W0,-1 W2,1 W1,0", "(1)(3)(4)(5)(7)(6)" },
  { "us", 0, 0, "!+Shift_L aA! ? !-Shift_L ? a1", "aA![50 ][]a1" },
  { "de", 0, 0, "!+ISO_Level3_Shift aA1@ ? !-ISO_Level3_Shift ? a1", "aA1@[92 ][]a1" },
  { "us", 0, 0, "+Control.L +Alt.L a -Alt.L -Control.L +NumLock -NumLock +NumLock -NumLock", "a" },
  { "us", 0, 0, "#+ #+ +Shift.R +Control.L #- ? #- ? #- ?", "[37 62 ][][]" },
};

TEST_F (InputTest, PlaysWhatClientsDo)
{
  LogRecorder log;

  for (const auto &[keymap, group, locks, script, arrives] : play_cases)
    {
      set_keyboard (keymap, group, locks);
      EXPECT_EQ (play (script), arrives) << keymap << ": " << script;
    }
  EXPECT_EQ (log.count ("RYX:x11:input", G_LOG_LEVEL_WARNING, "Modifiers state changed!"), 0u) << log.dump ();

  /* A modifier that is held while its key becomes another. */
  set_keyboard ("us -option ctrl:swapcaps");
  EXPECT_EQ (play ("#+ +Control.L"), " leaves 66 mods 4 locked 0 group 0 latched 0");
  set_keyboard ("us -option");
  EXPECT_EQ (play ("? -Control.L #- ? a"), "[][]a");

  /* A left-handed pointer; XTest's own keyboard with a layout that its first key makes the core keyboard's; a grab. */
  unsigned char map[32];
  const int n_buttons = XGetPointerMapping (observer.display, map, sizeof map);
  std::swap (map[0], map[2]);
  XSetPointerMapping (observer.display, map, n_buttons);
  XSync (observer.display, False);
  injector = create_injector ();
  EXPECT_EQ (play ("B1 B2 B3 W1,-3"), "(1)(2)(3)(4)");
  set_keyboard ("-device 5 de");
  type (injector, "x", STANDARD);
  EXPECT_EQ (play ("zZ"), "zZ");
  XGrabServer (observer.display);
  EXPECT_EQ (play ("aA∑"), "aA∑");
  XUngrabServer (observer.display);
}

TEST_F (InputTest, AddsEachMissingCharacterToTheKeymapOnce)
{
  GdkDisplayScope proxied (proxy.display ());
  injector = create_injector ();
  const auto requests = proxy.record ([this] { EXPECT_EQ (play ("aß€∑λЖ😀éÉé😀"), "aß€∑λЖ😀éÉé😀"); });
  EXPECT_EQ (std::count (requests.begin (), requests.end (), "ChangeKeyboardMapping"), 7);

  /* The keymap is replaced while a character waits; some maps have far more actions than others. */
  ryx_input_injector_key_event (injector.get (), "ç", STANDARD, TRUE);
  for (const char *keymap : { "de -variant neo", "us", "de -variant bone" })
    set_keyboard (keymap);
  for (const char *keymap : { "de", "us" })
    {
      set_keyboard (keymap);
      EXPECT_EQ (play ("zyé#"), "zyé#") << keymap;
    }
  injector.reset ();
}

TEST_F (InputTest, FillsFreeRowsOfTheKeymapAndNoOthers)
{
  KeySym empty[90] = {}, before[256];
  const auto symbols_of = [this] (int keycode) {
    return XkbKeycodeToKeysym (observer.display, keycode, 0, 0) + XkbKeycodeToKeysym (observer.display, keycode, 0, 1);
  };
  XChangeKeyboardMapping (observer.display, 110, 1, empty, G_N_ELEMENTS (empty));
  for (int keycode = 0; keycode < 256; keycode++)
    before[keycode] = symbols_of (keycode);
  observer.forget ();

  std::string text; /* 500 Chinese characters */
  for (unsigned c = 0x4e00; c < 0x4e00 + 500; c++)
    text += { char (0xe4), char (0x80 | (c >> 6 & 0x3f)), char (0x80 | (c & 0x3f)) };
  CtlRun ctl (proxy.display (), { "type", text });
  EXPECT_EQ (ctl.status (), 0);
  const std::string arrived = observer.text ();
  EXPECT_GE (arrived.size (), 3 * G_N_ELEMENTS (empty));
  EXPECT_EQ (arrived, text.substr (0, arrived.size ()));
  EXPECT_NE (ctl.err.find ("Unable to add keysym U4FF3 to keymap"), std::string::npos) << ctl.err.substr (0, 1000);
  for (int keycode = 0; keycode < 256; keycode++)
    EXPECT_TRUE (before[keycode] == NoSymbol || before[keycode] == symbols_of (keycode)) << keycode;
}

TEST_F (InputTest, TypesAStreamUntilInterrupted)
{
  CtlRun stream (proxy.display (), { "type", "-" });
  for (const char *piece : { "a\tb\r\nc\xe2\x82", "\xac", "A!" })
    stream.write (piece);
  EXPECT_TRUE (wait_until ([this] { return observer.text () == "a<Tab>b<Return>c€A!"; })) << observer.text ();
  stream.interrupt ();
  EXPECT_EQ (stream.status (), 1);
  EXPECT_EQ (stream.err, "ryxctl: Interrupted\n");

  std::vector<std::string> combos (20000, "Control+Shift+t");
  combos.insert (combos.begin (), "key");
  CtlRun keys (proxy.display (), combos);
  EXPECT_TRUE (wait_until ([this] { return observer.text ().size () > 100; }));
  keys.interrupt ();
  EXPECT_EQ (keys.status (), 1);
  EXPECT_NE (observer.strokes ().find ("+37+50+28-28-50-37"), std::string::npos);
  EXPECT_EQ (observer.keyboard (), at_rest);
}

TEST_F (InputTest, ReleasesAKeyBeforeTheServerRepeatsIt)
{
  for (unsigned delay : { 700u, 500u })
    {
      const gint64 start = g_get_monotonic_time ();
      const auto held_for = [&] { return (g_get_monotonic_time () - start) / 1000; };

      XkbSetAutoRepeatRate (observer.display, XkbUseCoreKbd, delay, 40);
      observer.forget ();
      play_word ("_a");
      EXPECT_TRUE (wait_until ([this] { return observer.keyboard () == at_rest; }));
      EXPECT_GE (held_for (), delay * 0.8);
      EXPECT_LT (held_for (), delay);
      EXPECT_EQ (observer.strokes (), "+38-38");

      /* A further key-down moves the release, and the end of the injector is one. */
      play_word ("_a");
      wait_until ([&] { return held_for () > delay; });
      play_word ("_a");
      EXPECT_TRUE (wait_until ([this] { return observer.keyboard () == at_rest; }));
      EXPECT_GE (held_for (), delay * 1.8);
    }
  play_word ("_ab");
  injector.reset ();
  EXPECT_EQ (observer.keyboard (), at_rest);
}

static const struct
{
  const char *request;
  unsigned nth;              /* fails; 0: each */
  std::vector<XField> patch; /* instead of a failure */
  const char *script, *arrives, *message;
} fault_cases[] = {
  { "XkbGetMap", 1, {}, "a", "", "Unable to get XKB map" },
  { "XkbGetMap", 1, {}, "a", "", "No keyboard description, dropping key event" },
  { "XkbGetMap", 3, {}, "ab", "ab", "Unable to update XKB map" },
  { "XkbGetControls", 0, {}, "aA", "aA", "Unable to query Xkb controls" },
  { "XkbGetControls", 0, { { 10, 1, 0x40 } }, "a", "a", "Unable to use keyboard groupd because Xkb does not wrap" },
  { "XkbGetControls", 0, { { 20, 2, 31 } }, "_a ?", "a[]", "Disabling autorepeat for RYX since repeat delay is too" },
  { "XkbGetControls", 0, { { 20, 2, 32 } }, "_a ? a", "a[38 ]", "keyboard repeat: on, delay: 32, rate 25" },
  { "GetKeyboardControl",
    0,
    { { 1, 1, 0 } },
    "_a ?",
    "a[]",
    "Disabling autorepeat for RYX as OS mode is AutoRepeatModeOff" },
  { "GetKeyboardControl", 0, {}, "a", "a", "Current system keyboard repeat: <-1>" },
  { "XkbGetNames", 1, {}, "a", "a", "Cannot get keyboard layout: symbols names missing" },
  { "GetAtomName", 0, {}, "a", "a", "Cannot get keyboard layout: error getting symbols name" },
  { "XkbGetState", 0, {}, "a", "", "Failed to get the current keyboard state" },
  { "XkbGetState", 2, {}, "a", "a", "Failed to get the current keyboard state" },
  { "XkbLatchLockState", 3, {}, "дa", "дa", "" },
  { "GetKeyboardMapping", 0, {}, "aé", "a", "Failed to get min and max display keycodes" },
  { "GetKeyboardMapping", 0, { { 1, 1, 255 } }, "aé", "a", "No space to add keysym eacute to keymap" },
  { "ChangeKeyboardMapping", 0, {}, "aé", "a", "Failed to change keyboard map" },
  { "ChangeKeyboardMapping", 0, {}, "aé", "a", "Unable to add keysym eacute to keymap" },
  { "GetPointerMapping", 0, {}, "B1 a", "a", "Failed to get pointer mapping" },
  { "GetPointerMapping", 0, { { 1, 1, 3 } }, "B3 W1,1 a", "(3)a", "Ignoring button id 5" },
  { "GetPointerMapping", 0, { { 1, 1, 24 } }, "B1 B16", "(1)", "Ignoring button id 16" },
  { "QueryExtension", 0, { { 8, 1, 0 } }, "a B1 .1 +Enter", "", "XTEST Extension is not supported." },
  { "NoOperation", 0, {}, "#- a", "a", "Channel 1 disconnected, but no channel is connected" },
  { "NoOperation", 0, {}, "+Attn a", "a", "Failed to get keycode for keysym " },
  { "NoOperation", 0, {}, "+Nonsense.R a", "a", "Unknown special key: Nonsense (location: 2)" },
  { "NoOperation", 0, {}, "\xff a", "a", "Received invalid key event" },
};

TEST_F (InputTest, SaysWhatIsWrongAndLosesNothingElse)
{
  set_keyboard ("us,ru");
  for (const auto &[request, nth, patch, script, arrives, message] : fault_cases)
    {
      LogRecorder log;
      proxy.clear ();
      proxy.add ({ .request = request, .nth = nth, .error = uint8_t (patch.empty () ? XCB_MATCH : 0), .patch = patch });
      GdkDisplayScope fresh (proxy.display ());
      injector = create_injector ();
      EXPECT_EQ (play (script), arrives) << message;
      EXPECT_NE (log.dump ().find (message), std::string::npos) << log.dump ();
      injector.reset ();
    }

  LogRecorder log (G_LOG_LEVEL_ERROR);
  KeySym none = NoSymbol;
  for (const int keycode : { 77, 92, 108 }) /* Num Lock and both AltGr */
    XChangeKeyboardMapping (observer.display, keycode, 1, &none, 1);
  XSync (observer.display, False);
  injector = create_injector ();
  for (const char *mask : { "altgr modifier mask from keycode 0", "num lock modifier mask from keycode 0" })
    EXPECT_TRUE (log.contains ("RYX:x11:input", G_LOG_LEVEL_WARNING, mask)) << log.dump ();
  proxy.clear ();
  log.clear ();
  proxy.add ({ .request = "XkbGetControls", .patch = { { 20, 2, 31 } } });
  {
    SettingsScope no_repeat ("com.quorlane.ryx.input", "enable-autorepeat", g_variant_new_boolean (FALSE));
    GdkDisplayScope fresh (proxy.display ());
    create_injector ();
  }
  EXPECT_FALSE (log.contains (nullptr, G_LOG_LEVEL_INFO, "repeat delay is too small")) << log.dump ();
  proxy.clear ();
  proxy.add (hiding ("XKEYBOARD"));
  {
    GdkDisplayScope without_xkb (proxy.display ());
    create_injector ();
  }
  EXPECT_TRUE (log.contains ("RYX:x11:input", G_LOG_LEVEL_WARNING, "XKB Extension is not supported.")) << log.dump ();
  EXPECT_FALSE (ryx_input_injector_is_sas_event (injector.get (), "Delete", STANDARD, TRUE));
  EXPECT_FALSE (ryx_input_injector_is_touch_enabled (injector.get ()));
  ryx_input_injector_touch_event (injector.get (), 0, nullptr, 0);
  ryx_input_injector_key_event (injector.get (), nullptr, STANDARD, TRUE);
  ryx_input_injector_special_key_event (injector.get (), nullptr, STANDARD, TRUE);
  for (const char *expression : { "'character != NULL'", "'name != NULL'" })
    EXPECT_TRUE (log.contains ("RYX:x11:input", G_LOG_LEVEL_CRITICAL, expression)) << log.dump ();
}

TEST (InjectorTest, OutlivesItsDisplay)
{
  XServer server (XServer::XVFB);
  TestInjector injector;
  {
    GdkDisplayScope gdk (server.display ());
    injector = create_injector ();
  }
  ryx_input_injector_motion_event (injector.get (), 1, 2, TRUE);
  ryx_input_injector_button_event (injector.get (), 1, TRUE);
  ryx_input_injector_special_key_event (injector.get (), "Enter", STANDARD, TRUE);
}
