#include "commands.h"

#include <cstdlib>

#include "injector.h"

static const gint most_steps = 1000;

static bool
is_number (const gchar *word)
{
  if (*word == '-')
    word++;
  return *word && word[strspn (word, "0123456789")] == '\0';
}

/* Negative numbers look like options to the parser, unless they come behind a "--". */
static void
move_numbers_back (gchar ***argv)
{
  g_autoptr (GStrvBuilder) words = g_strv_builder_new (), numbers = g_strv_builder_new ();

  for (gchar **word = *argv; *word; word++)
    if (!g_str_equal (*word, "--"))
      g_strv_builder_add (is_number (*word) ? numbers : words, *word);
  g_strv_builder_add (words, "--");

  g_auto (GStrv) numbers_only = g_strv_builder_end (numbers);
  g_strv_builder_addv (words, const_cast<const gchar **> (numbers_only));
  g_strfreev (*argv);
  *argv = g_strv_builder_end (words);
}

/* The command's words are @n numbers between @least and @most, called @what. */
static gboolean
parse_numbers (const Command *command, const GOptionEntry *entries, gchar ***argv, const gchar *what, guint n,
               gint least, gint most, gint *numbers, GError **error)
{
  move_numbers_back (argv);
  if (!parse_options (command, entries, argv, error))
    return FALSE;
  if (g_strv_length (*argv + 1) != n)
    return set_usage_error (error, "%s: needs %s", command->name, what);

  for (guint i = 0; i < n; i++)
    {
      gint64 number;
      g_autoptr (GError) parse_error = nullptr;

      if (!g_ascii_string_to_signed ((*argv)[i + 1], 10, least, most, &number, &parse_error))
        return set_usage_error (error, "%s: %s", command->name, parse_error->message);
      numbers[i] = number;
    }
  return TRUE;
}

static gboolean
run_motion (const Command *command, gchar ***argv, GError **error)
{
  gboolean relative = FALSE;
  gint position[2] = {};
  const GOptionEntry entries[] = {
    { "relative", 0, 0, G_OPTION_ARG_NONE, &relative, "Move by X and Y, not to them", nullptr },
    {},
  };

  if (!parse_numbers (command, entries, argv, "X and Y", 2, G_MINSHORT, G_MAXSHORT, position, error))
    return FALSE;

  InjectorSession session;
  if (!session.open (error))
    return FALSE;
  ryx_input_injector_motion_event (session.injector, position[0], position[1], !relative);
  return TRUE;
}

static gboolean
run_button (const Command *command, gchar ***argv, GError **error)
{
  gboolean down = FALSE, up = FALSE;
  gint button = 0;
  const GOptionEntry entries[] = {
    { "down", 0, 0, G_OPTION_ARG_NONE, &down, "Press the button and leave it down", nullptr },
    { "up", 0, 0, G_OPTION_ARG_NONE, &up, "Release the button", nullptr },
    {},
  };

  if (!parse_numbers (command, entries, argv, "the number of a button", 1, 1, G_MAXUINT8, &button, error))
    return FALSE;
  if (down && up)
    return set_usage_error (error, "button: --down and --up exclude each other");

  InjectorSession session;
  if (!session.open (error))
    return FALSE;
  if (!up)
    ryx_input_injector_button_event (session.injector, button, TRUE);
  if (!down)
    ryx_input_injector_button_event (session.injector, button, FALSE);
  return TRUE;
}

static gboolean
run_wheel (const Command *command, gchar ***argv, GError **error)
{
  gboolean horizontal = FALSE;
  gint steps = 0;
  const GOptionEntry entries[] = {
    { "horizontal", 0, 0, G_OPTION_ARG_NONE, &horizontal, "Turn the horizontal wheel", nullptr },
    {},
  };

  if (!parse_numbers (command, entries, argv, "a number of steps", 1, -most_steps, most_steps, &steps, error))
    return FALSE;

  InjectorSession session;
  if (!session.open (error))
    return FALSE;
  for (gint i = 0; i < abs (steps); i++)
    ryx_input_injector_axis_event (session.injector, horizontal ? 0 : 1, steps);
  return TRUE;
}

const Command motion_command = {
  .name = "motion",
  .arguments = "X Y",
  .summary = "Move the pointer to a position on the screen, in pixels",
  .description = nullptr,
  .run = run_motion,
};

const Command button_command = {
  .name = "button",
  .arguments = "N",
  .summary = "Click a button: 1 left, 2 middle, 3 right, 8 back, 9 forward",
  .description = nullptr,
  .run = run_button,
};

const Command wheel_command = {
  .name = "wheel",
  .arguments = "STEPS",
  .summary = "Turn the wheel down, or up by a negative number of steps",
  .description = "With --horizontal: to the right, or to the left by a negative number.",
  .run = run_wheel,
};
