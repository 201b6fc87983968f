#include "command.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <glib-unix.h>

GlobalOptions global_options;

gboolean
set_usage_error (GError **error, const gchar *format, ...)
{
  va_list args;
  va_start (args, format);
  g_propagate_error (error, g_error_new_valist (PROGRAM_ERROR, EXIT_USAGE, format, args));
  va_end (args);
  return FALSE;
}

GOptionGroup *
make_global_option_group (void)
{
  static const GOptionEntry entries[] = {
    { "display", 0, 0, G_OPTION_ARG_STRING, &global_options.display, "X display to use instead of $DISPLAY", "D" },
    { "module-dir", 0, 0, G_OPTION_ARG_FILENAME, &global_options.module_dir,
      "Load modules from DIR instead of $RYX_MODULE_DIR or the installed ones", "DIR" },
    { "json", 0, 0, G_OPTION_ARG_NONE, &global_options.json, "Print results as JSON", nullptr },
    { "verbose", 0, 0, G_OPTION_ARG_NONE, &global_options.verbose, "Also tell state changes and decisions", nullptr },
    { "debug", 0, 0, G_OPTION_ARG_NONE, &global_options.debug, "Also tell details", nullptr },
    { "version", 0, 0, G_OPTION_ARG_NONE, &global_options.version, "Print the version", nullptr },
    {},
  };
  GOptionGroup *group = g_option_group_new ("global", "Global Options:", "Show global options", nullptr, nullptr);

  g_option_group_add_entries (group, entries);
  return group;
}

void
print_version ()
{
  g_print ("ryxctl " RYX_VERSION "\n");
}

/* GOption leaves it in its place when a word that looks like an option stands behind it. */
static void
remove_separator (gchar **argv)
{
  gchar **word = argv + 1;

  while (*word && !g_str_equal (*word, "--"))
    word++;
  if (!*word)
    return;

  g_free (*word);
  memmove (word, word + 1, (g_strv_length (word + 1) + 1) * sizeof (gchar *));
}

gboolean
parse_options (const Command *command, const GOptionEntry *entries, gchar ***argv, GError **error)
{
  g_autofree gchar *program = g_strconcat ("ryxctl ", command->name, nullptr);
  g_autoptr (GOptionContext) context = g_option_context_new (command->arguments);
  g_autoptr (GError) parse_error = nullptr;

  g_set_prgname (program); /* which the help's usage line begins with */
  g_option_context_set_summary (context, command->summary);
  g_option_context_set_description (context, command->description);
  if (entries)
    g_option_context_add_main_entries (context, entries, nullptr);
  g_option_context_add_group (context, make_global_option_group ());

  if (!g_option_context_parse_strv (context, argv, &parse_error))
    return set_usage_error (error, "%s: %s", command->name, parse_error->message);
  if (global_options.version)
    {
      print_version ();
      exit (EXIT_DONE);
    }
  remove_separator (*argv);
  return TRUE;
}

gboolean
parse_options_only (const Command *command, const GOptionEntry *entries, gchar ***argv, GError **error)
{
  if (!parse_options (command, entries, argv, error))
    return FALSE;
  if ((*argv)[1])
    return set_usage_error (error, "%s: unexpected argument \"%s\"", command->name, (*argv)[1]);
  return TRUE;
}

gboolean
open_session (GError **error)
{
  return load_modules (global_options.module_dir, error) && open_display (global_options.display, error);
}

gboolean
flush_standard_output (GError **error)
{
  if (fflush (stdout) == 0 && !ferror (stdout))
    return TRUE;

  g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "Cannot write to standard output");
  return FALSE;
}

InterruptibleLoop::InterruptibleLoop ()
    : loop (g_main_loop_new (nullptr, FALSE)), sources{ g_unix_signal_add (SIGINT, on_signal, this),
                                                        g_unix_signal_add (SIGTERM, on_signal, this) }
{
  /* A second one ends the program, whatever it waits for: a server that hangs is not waited for in the loop. */
  for (int number : { SIGINT, SIGTERM })
    {
      struct sigaction action;
      sigaction (number, nullptr, &action);
      action.sa_flags |= SA_RESETHAND;
      sigaction (number, &action, nullptr);
    }
}

InterruptibleLoop::~InterruptibleLoop ()
{
  for (guint source : sources)
    g_source_remove (source);
  g_main_loop_unref (loop);
}

gboolean
InterruptibleLoop::on_signal (gpointer data)
{
  auto *interrupted_loop = static_cast<InterruptibleLoop *> (data);

  interrupted_loop->interrupted = true;
  interrupted_loop->quit ();
  return G_SOURCE_CONTINUE;
}

void
InterruptibleLoop::run ()
{
  g_main_loop_run (loop);
}

void
InterruptibleLoop::quit ()
{
  g_main_loop_quit (loop);
}

bool
InterruptibleLoop::was_interrupted () const
{
  return interrupted;
}
