#include "commands.h"

#include <cstring>

#include "injector.h"

/* The keys of a combination in the order of their presses: single characters, "+" too, and names of keys. */
static gchar **
split_combo (const gchar *combo)
{
  g_autoptr (GStrvBuilder) keys = g_strv_builder_new ();

  for (;;)
    {
      const gchar *end = *combo ? strchr (g_utf8_next_char (combo), '+') : nullptr;
      g_autofree gchar *key = end ? g_strndup (combo, end - combo) : g_strdup (combo);

      g_strv_builder_add (keys, key);
      if (!end)
        return g_strv_builder_end (keys);
      combo = end + 1;
    }
}

static bool
is_character (const gchar *key)
{
  return *key && !*g_utf8_next_char (key) && !g_unichar_iscntrl (g_utf8_get_char (key));
}

static gboolean
check_combo (const gchar *combo, GError **error)
{
  if (!g_utf8_validate (combo, -1, nullptr))
    return set_usage_error (error, "key: a combination is not valid UTF-8");

  g_auto (GStrv) keys = split_combo (combo);
  for (gchar **key = keys; *key; key++)
    if (!is_character (*key) && !ryx_special_key_string_to_keyval (*key, RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD))
      return set_usage_error (error, "key: unknown key \"%s\" in \"%s\"", *key, combo);
  return TRUE;
}

/* A letter under Shift is its capital, as a keyboard has it. */
static void
press_character (InjectorSession *session, const gchar *character, bool shift_is_down)
{
  g_autofree gchar *capital = shift_is_down ? g_utf8_strup (character, -1) : nullptr;

  session->type (capital ? capital : character);
}

/* What was pressed is released, whatever comes between. */
static void
strike_combo (InjectorSession *session, const gchar *combo)
{
  g_auto (GStrv) keys = split_combo (combo);
  guint n_pressed = 0;
  bool shift_is_down = false;

  for (; keys[n_pressed] && !session->loop.was_interrupted (); n_pressed++)
    {
      const gchar *key = keys[n_pressed];

      if (is_character (key))
        press_character (session, key, shift_is_down);
      else
        session->press (key);
      shift_is_down |= g_str_equal (key, "Shift");
    }

  while (n_pressed-- > 0)
    if (!is_character (keys[n_pressed]))
      session->release (keys[n_pressed]);
}

static gboolean
run_key (const Command *command, gchar ***argv, GError **error)
{
  if (!parse_options (command, nullptr, argv, error))
    return FALSE;
  if (!(*argv)[1])
    return set_usage_error (error, "key: a key is missing");

  for (gchar **combo = *argv + 1; *combo; combo++)
    if (!check_combo (*combo, error))
      return FALSE;

  InjectorSession session;
  if (!session.open (error))
    return FALSE;
  for (gchar **combo = *argv + 1; *combo && !session.loop.was_interrupted (); combo++)
    strike_combo (&session, *combo);
  return session.check_interruption (error);
}

const Command key_command = {
  .name = "key",
  .arguments = "COMBO …",
  .summary = "Strike keys and combinations of keys, such as Control+Shift+t, ArrowLeft or F5",
  .description
  = "A single character is that character; other keys go by the names of the UI Events standard. The keys\n"
    "of a combination are pressed in the order given and released in reverse.",
  .run = run_key,
};
