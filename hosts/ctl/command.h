#pragma once

#include <memory>

#include <ryx/ryx.h>

#include "program.h"

/* What every command line may hold, before the command's name or behind it. */
struct GlobalOptions
{
  gchar *display; /* NULL: what $DISPLAY names */
  gchar *module_dir;
  gboolean json;
  gboolean verbose;
  gboolean debug;
  gboolean version;
};

extern GlobalOptions global_options;

struct Command
{
  const gchar *name;
  const gchar *arguments;   /* as in a usage line; NULL for none */
  const gchar *summary;     /* for the list of commands */
  const gchar *description; /* more for the command's own help; NULL for none */

  /* @argv is a vector of the command's name and the words behind it. FALSE with @error set on failure. */
  gboolean (*run) (const Command *command, gchar ***argv, GError **error);
};

void print_version ();

/* Takes the command's and the global options out of @argv; what is left follows (*argv)[0]. `--help` and
 * `--version` print theirs and end the program. */
gboolean parse_options (const Command *command, const GOptionEntry *entries, gchar ***argv, GError **error);

/* The same for a command that takes options only: FALSE when words are left. */
gboolean parse_options_only (const Command *command, const GOptionEntry *entries, gchar ***argv, GError **error);

/* The option group with GlobalOptions. */
GOptionGroup *make_global_option_group (void);

/* Loads the modules, opens the display, and makes it GDK's default. */
gboolean open_session (GError **error);

/* FALSE with @error set when something printed so far was lost. */
gboolean flush_standard_output (GError **error);

/* Always FALSE, with a PROGRAM_ERROR of EXIT_USAGE. */
gboolean set_usage_error (GError **error, const gchar *format, ...) G_GNUC_PRINTF (2, 3);

/* A main loop that also ends by SIGINT and SIGTERM. */
class InterruptibleLoop
{
public:
  InterruptibleLoop ();
  ~InterruptibleLoop ();
  InterruptibleLoop (const InterruptibleLoop &) = delete;
  InterruptibleLoop &operator= (const InterruptibleLoop &) = delete;

  void run ();
  void quit ();
  bool was_interrupted () const;

private:
  static gboolean on_signal (gpointer loop);

  GMainLoop *loop;
  guint sources[2];
  bool interrupted = false;
};
