/* What typing costs. For a character: the time until the injector's calls return, and the requests and round trips that
 * the fault proxy counts. For a text: characters per second of `ryxctl type`, and of `xdotool type --delay 0` on the
 * same server; both include the program's start. */

#include <benchmark/benchmark.h>
#include <ryx/ryx.h>

#include "ctl.h"
#include "faultproxy.h"
#include "inputobserver.h"
#include "xserver.h"

#include <gdk/gdkx.h>

struct CharacterCase
{
  const char *name, *character;
  bool is_missing;
};

static const CharacterCase character_cases[] = {
  { "letter", "a", false },
  { "capital", "A", false },
  { "shifted_symbol", "!", false },
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

static std::string
make_text (unsigned n_sentences)
{
  std::string text;
  for (unsigned i = 0; i < n_sentences; i++)
    text += "The quick brown fox (a fox!) jumps over the lazy dog. ";
  return text;
}

static void
type_text (benchmark::State &state, const char *program)
{
  XServer server (XServer::XVFB);
  const std::string text = make_text (50);
  const bool is_ryxctl = strcmp (program, "ryxctl") == 0;
  g_autofree gchar *path = is_ryxctl ? g_strdup (program) : g_find_program_in_path (program);

  if (!path)
    state.SkipWithError ("not installed");
  g_setenv ("DISPLAY", server.display (), TRUE);
  for ([[maybe_unused]] auto _ : state)
    {
      const char *argv[] = { path, "type", "--delay", "0", text.c_str (), nullptr };
      int status = 0;

      if (is_ryxctl)
        status = CtlRun (server.display (), { "type", text }).status ();
      else
        g_spawn_sync (nullptr, const_cast<char **> (argv), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, nullptr, nullptr,
                      &status, nullptr);
      if (status != 0)
        state.SkipWithError ("failed");
    }
  state.SetItemsProcessed (state.iterations () * text.size ());
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
  for (const char *program : { "ryxctl", "xdotool" })
    benchmark::RegisterBenchmark ((std::string (program) + "_type").c_str (), type_text, program)
      ->UseRealTime ()
      ->Unit (benchmark::kMillisecond);

  benchmark::Initialize (&argc, argv);
  benchmark::RunSpecifiedBenchmarks ();
  return 0;
}
