#include "ryxweb.h"

#include <clocale>

#include <gio/gio.h>
#include <sys/prctl.h>

Options options;
void (*log_sink) (const gchar *line);

static const GOptionEntry entries[] = {
  { "display", 0, 0, G_OPTION_ARG_STRING, &options.display, "X display to show instead of $DISPLAY", "D" },
  { "module-dir", 0, 0, G_OPTION_ARG_FILENAME, &options.module_dir,
    "Load modules from DIR instead of $RYX_MODULE_DIR or the installed ones", "DIR" },
  { "listen", 0, 0, G_OPTION_ARG_STRING, &options.listen,
    "IP address to listen on (default 127.0.0.1); another than the machine's own needs TLS or --insecure", "ADDR" },
  { "port", 0, 0, G_OPTION_ARG_INT, &options.port, "Port to listen on (default 8970; 0: any free one)", "N" },
  { "tls-cert", 0, 0, G_OPTION_ARG_FILENAME, &options.tls_cert, "Certificate chain for https, in PEM", "F" },
  { "tls-key", 0, 0, G_OPTION_ARG_FILENAME, &options.tls_key, "The certificate's private key, in PEM", "F" },
  { "insecure", 0, 0, G_OPTION_ARG_NONE, &options.insecure, "Let other machines connect without TLS", nullptr },
  { "token-file", 0, 0, G_OPTION_ARG_FILENAME, &options.token_file,
    "Keep the token in F, made when it is missing, instead of a new one for each run", "F" },
  { "view-only", 0, 0, G_OPTION_ARG_NONE, &options.view_only, "Nobody controls, everybody watches", nullptr },
  { "max-clients", 0, 0, G_OPTION_ARG_INT, &options.max_clients, "Clients at a time (default 16)", "N" },
  { "restore-layout", 0, 0, G_OPTION_ARG_NONE, &options.restore_layout,
    "Come back to the layout that was found when the last client leaves (the default)", nullptr },
  { "no-restore-layout", 0, G_OPTION_FLAG_REVERSE, G_OPTION_ARG_NONE, &options.restore_layout,
    "Leave the layout as the last client had it", nullptr },
  { "verbose", 0, 0, G_OPTION_ARG_NONE, &options.verbose, "Also tell state changes and decisions", nullptr },
  { "debug", 0, 0, G_OPTION_ARG_NONE, &options.debug, "Also tell details", nullptr },
  { "version", 0, 0, G_OPTION_ARG_NONE, &options.version, "Print the version", nullptr },
  { "session", 0, G_OPTION_FLAG_HIDDEN, G_OPTION_ARG_INT, &options.session, nullptr, nullptr },
  {},
};

static void
print_log (const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer)
{
  const GLogLevelFlags least = options.debug     ? G_LOG_LEVEL_DEBUG
                               : options.verbose ? G_LOG_LEVEL_INFO
                                                 : G_LOG_LEVEL_WARNING;
  if ((level & G_LOG_LEVEL_MASK) > static_cast<int> (least))
    return;

  g_autofree gchar *line = g_strdup_printf ("%s: %s\n", domain ? domain : "ryx-web", message);
  if (log_sink && !(level & G_LOG_FLAG_FATAL))
    log_sink (line);
  else
    g_printerr ("%s", line);
}

static gboolean
parse_options (gchar ***argv, GError **error)
{
  g_autoptr (GOptionContext) context = g_option_context_new (nullptr);
  g_autoptr (GError) parse_error = nullptr;

  g_option_context_set_summary (context, "Shows an X session in browsers and plays one browser's keyboard and pointer "
                                         "back. Prints the address to open.");
  g_option_context_set_description (
    context, "Exit status: 0 done, 1 the operation failed, 2 wrong usage, 3 no display or no module.");
  g_option_context_add_main_entries (context, entries, nullptr);
  if (!g_option_context_parse_strv (context, argv, &parse_error))
    g_set_error_literal (error, PROGRAM_ERROR, EXIT_USAGE, parse_error->message);
  else if ((*argv)[1])
    g_set_error (error, PROGRAM_ERROR, EXIT_USAGE, "unexpected argument \"%s\"", (*argv)[1]);
  else
    return TRUE;
  return FALSE;
}

int
main (int, char **arguments)
{
  g_autoptr (GError) error = nullptr;
  g_auto (GStrv) argv = g_strdupv (arguments);
  int status = EXIT_DONE;

  keep_standard_streams ();
  setlocale (LC_ALL, "");
  g_set_prgname ("ryx-web"); /* the session is started by another name */
  prctl (PR_SET_NAME, "ryx-web");
  g_log_set_default_handler (print_log, nullptr);

  if (parse_options (&argv, &error) && !options.version)
    status = options.session >= 0 ? run_session () : run_gate (&error);
  else if (!error)
    g_print ("ryx-web " RYX_VERSION "\n");
  if (!error)
    return status;

  g_printerr ("ryx-web: %s\n", error->message);
  if (g_error_matches (error, PROGRAM_ERROR, EXIT_USAGE))
    g_printerr ("Try “ryx-web --help”.\n");
  return get_exit_status (error);
}
