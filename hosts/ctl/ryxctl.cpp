#include <clocale>
#include <cstdio>

#include "commands.h"
#include "log.h"

static const Command *const commands[] = {
  &implementations_command, &heads_command, &layout_command, &capture_command,
  &cursor_command,          &type_command,  &key_command,    &motion_command,
  &button_command,          &wheel_command,
};

static gchar *
describe_commands ()
{
  g_autoptr (GString) text = g_string_new ("Commands:\n");

  for (const Command *command : commands)
    g_string_append_printf (text, "  %-17s %s\n", command->name, command->summary);
  g_string_append (text, "\n“ryxctl COMMAND --help” tells more about a command.\n\n"
                         "Exit status: 0 done, 1 the operation failed, 2 wrong usage, 3 no display or no module.");
  return g_strdup (text->str);
}

static const Command *
find_command (const gchar *name)
{
  for (const Command *command : commands)
    if (g_str_equal (command->name, name))
      return command;
  return nullptr;
}

static gboolean
run_command (gchar ***argv, GError **error)
{
  g_autofree gchar *description = describe_commands ();
  g_autoptr (GOptionContext) context = g_option_context_new ("COMMAND …");
  g_autoptr (GError) parse_error = nullptr;

  g_option_context_set_summary (context, "Sees, captures and drives an X session through the modules of Ryx.");
  g_option_context_set_description (context, description);
  g_option_context_set_strict_posix (context, TRUE); /* what follows the command belongs to it */
  g_option_context_set_main_group (context, make_global_option_group ());

  if (!g_option_context_parse_strv (context, argv, &parse_error))
    return set_usage_error (error, "%s", parse_error->message);
  if (global_options.version)
    {
      print_version ();
      return TRUE;
    }

  const gchar *name = (*argv)[1];
  if (!name)
    return set_usage_error (error, "a command is missing");

  const Command *command = find_command (name);
  if (!command)
    return set_usage_error (error, "unknown command \"%s\"", name);

  g_auto (GStrv) command_argv = g_strdupv (*argv + 1);
  return command->run (command, &command_argv, error);
}

int
main (int, char **arguments)
{
  g_autoptr (GError) error = nullptr;
  g_auto (GStrv) argv = g_strdupv (arguments);

  keep_standard_streams ();
  setlocale (LC_ALL, "");
  set_up_log ();

  if (run_command (&argv, &error) && flush_standard_output (&error))
    return EXIT_DONE;

  g_printerr ("ryxctl: %s\n", error->message);
  if (g_error_matches (error, PROGRAM_ERROR, EXIT_USAGE))
    g_printerr ("Try “ryxctl --help”.\n");
  return get_exit_status (error);
}
