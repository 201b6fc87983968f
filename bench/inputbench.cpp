/* What typing costs. For a character: the time until the injector's calls return, and the requests and round trips that
 * the fault proxy counts. For a text: characters per second of `ryxctl type` and of `xdotool type --delay 0` that
 * arrived right, with the program's start, and how many arrived wrong or not at all. */

#include <algorithm>

#include <benchmark/benchmark.h>
#include <ryx/ryx.h>

#include "faultproxy.h"
#include "inputobserver.h"
#include "xserver.h"

#include <gdk/gdkx.h>

struct CharacterCase
{
  const char *name, *character;
  bool is_missing;
  const char *layouts = "us";
};

static const CharacterCase character_cases[] = {
  { "letter", "a", false },
  { "capital", "A", false },
  { "shifted_symbol", "!", false },
  { "letter_of_four_layouts", "a", false, "us,ru,gr,il" },
  { "letter_of_the_fourth_layout", "ש", false, "us,ru,gr,il" },
  { "missing", "é", true },
};

/* Takes the row that was filled away again. */
static void
forget_added (const char *character)
{
  Display *xdisplay = gdk_x11_get_default_xdisplay ();
  const guint keysym = gdk_unicode_to_keyval (g_utf8_get_char (character));
  KeySym none = NoSymbol;

  if (const KeyCode keycode = XKeysymToKeycode (xdisplay, keysym))
    XChangeKeyboardMapping (xdisplay, keycode, 1, &none, 1);
  settle ();
}

static void
set_layouts (const XServer &server, const char *layouts)
{
  const char *argv[] = { "setxkbmap", "-display", server.display (), "-layout", layouts, nullptr };
  g_autoptr (GSubprocess) process = g_subprocess_newv (argv, G_SUBPROCESS_FLAGS_NONE, nullptr);

  if (!process || !g_subprocess_wait_check (process, nullptr, nullptr))
    g_error ("setxkbmap does not work");
}

static void
stroke (const TestInjector &injector, const CharacterCase &row, bool down)
{
  ryx_input_injector_key_event (injector.get (), row.character, RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD, down);
  if (row.is_missing && down)
    settle (); /* which types it */
}

static void
type_character (benchmark::State &state, const CharacterCase &row, bool autorepeat)
{
  const SettingsScope settings ("com.quorlane.ryx.input", "enable-autorepeat", g_variant_new_boolean (autorepeat));
  XServer server (XServer::XVFB);
  FaultProxy proxy (server);
  set_layouts (server, row.layouts);

  /* The first key ever makes XTest's keyboard the core one, which is announced. */
  const auto count = [&] {
    GdkDisplayScope scope (proxy.display ());
    const TestInjector injector = create_injector ();
    type (injector, "b", RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD);
    const auto requests = proxy.record ([&] {
      stroke (injector, row, true);
      if (autorepeat)
        stroke (injector, row, false);
    });
    state.counters["requests"] = requests.size ();
    state.counters["round_trips"] = requests.round_trips;
    if (row.is_missing)
      forget_added (row.character);
  };
  count ();

  GdkDisplayScope scope (server.display ());
  const TestInjector injector = create_injector ();
  type (injector, "b", RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD);
  for ([[maybe_unused]] auto _ : state)
    {
      stroke (injector, row, true);
      if (autorepeat)
        stroke (injector, row, false);
      if (row.is_missing)
        {
          state.PauseTiming ();
          forget_added (row.character);
          state.ResumeTiming ();
        }
    }
}

/* All different, and on no key of the map. */
static std::string
make_missing_text ()
{
  std::string text;
  gchar utf8[8];
  for (gunichar character = 0x4e00; character < 0x4e00 + 100; character++)
    text.append (utf8, g_unichar_to_utf8 (character, utf8));
  return text;
}

static std::string
make_text ()
{
  std::string text;
  for (unsigned i = 0; i < 50; i++)
    text += "The quick brown fox (a fox!) jumps over the lazy dog. ";
  return text;
}

struct TextCase
{
  const char *name;
  std::string text;
  bool has_room; /* in the map, for all of it */
};

static const TextCase text_cases[] = {
  { "in_the_map", make_text (), false },
  { "missing", make_missing_text (), true },
  { "missing_with_18_keycodes_free", make_missing_text (), false },
};

/* Takes the symbols from the keys behind the letters, digits and the cursor keys, but not from modifiers. */
static void
make_room (Display *display)
{
  XModifierKeymap *modifiers = XGetModifierMapping (display);
  const auto *end = modifiers->modifiermap + 8 * modifiers->max_keypermod;
  KeySym none = NoSymbol;

  for (int keycode = 118; keycode < 256; keycode++)
    if (std::find<const KeyCode *> (modifiers->modifiermap, end, static_cast<KeyCode> (keycode)) == end)
      XChangeKeyboardMapping (display, keycode, 1, &none, 1);
  XFreeModifiermap (modifiers);
  XSync (display, False);
}

/* How many characters of a text arrived, in their order: the longest common subsequence. */
static size_t
count_right (const std::string &wanted, const std::string &arrived)
{
  g_autofree gunichar *characters = g_utf8_to_ucs4_fast (wanted.c_str (), -1, nullptr);
  g_autofree gunichar *b = g_utf8_to_ucs4_fast (arrived.c_str (), -1, nullptr);
  std::vector<size_t> row (g_utf8_strlen (arrived.c_str (), -1) + 1), above (row);

  for (const gunichar *a = characters; *a; a++, std::swap (row, above))
    for (size_t i = 1; i < row.size (); i++)
      row[i] = *a == b[i - 1] ? above[i - 1] + 1 : std::max (row[i - 1], above[i]);
  return above.back ();
}

/* The time until the program has ended. The observer takes its events as they come, as applications do. */
static void
type_text (benchmark::State &state, const char *program, const TextCase &row)
{
  const char *xdotool[] = { "xdotool", "type", "--delay", "0", row.text.c_str (), nullptr };
  const char *ryxctl[] = { RYXCTL, "type", row.text.c_str (), nullptr };
  const size_t n_characters = g_utf8_strlen (row.text.c_str (), -1);
  size_t n_right = 0, n_arrived = 0;

  for ([[maybe_unused]] auto _ : state)
    {
      XServer server (XServer::XVFB);
      g_setenv ("DISPLAY", server.display (), TRUE);
      InputObserver observer (server.display ());
      if (row.has_room)
        make_room (observer.display);

      const gint64 start = g_get_monotonic_time ();
      g_autoptr (GSubprocess) process = g_subprocess_newv (strcmp (program, "ryxctl") == 0 ? ryxctl : xdotool,
                                                           G_SUBPROCESS_FLAGS_STDERR_SILENCE, nullptr);
      gint64 end = 0;
      g_subprocess_wait_async (
        process, nullptr,
        [] (GObject *, GAsyncResult *, gpointer data) { *static_cast<gint64 *> (data) = g_get_monotonic_time (); },
        &end);
      wait_until ([&] { return observer.text (), end != 0; }, 60000);
      state.SetIterationTime ((end - start) / 1e6);

      const std::string arrived = observer.text ();
      n_right += count_right (row.text, arrived);
      n_arrived += g_utf8_strlen (arrived.c_str (), -1);
    }

  const auto iterations = static_cast<double> (state.iterations ());
  state.counters["right"] = n_right / iterations;
  state.counters["wrong"] = (n_arrived - n_right) / iterations;
  state.counters["missing"] = n_characters - n_right / iterations;
  state.SetItemsProcessed (n_right);
}

int
main (int argc, char **argv)
{
  g_setenv ("GSETTINGS_BACKEND", "memory", TRUE); /* nobody's own settings are changed */
  for (const auto &row : character_cases)
    for (bool autorepeat : { true, false })
      benchmark::RegisterBenchmark (
        (std::string (row.name) + (autorepeat ? "/press_and_release" : "/stroke")).c_str (),
        [&row, autorepeat] (benchmark::State &state) { type_character (state, row, autorepeat); })
        ->UseRealTime ()
        ->Unit (benchmark::kMicrosecond);
  for (const auto &row : text_cases)
    for (const char *program : { "ryxctl", "xdotool" })
      benchmark::RegisterBenchmark ((std::string (program) + "/" + row.name).c_str (),
                                    [&row, program] (benchmark::State &state) { type_text (state, program, row); })
        ->UseManualTime ()
        ->Iterations (3)
        ->Unit (benchmark::kMillisecond);

  benchmark::Initialize (&argc, argv);
  benchmark::RunSpecifiedBenchmarks ();
  return 0;
}
