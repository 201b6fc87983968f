#pragma once

#include <memory>

#include <ryx/ryx.h>

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

/* What the program's exit status tells. */
enum ExitStatus
{
  EXIT_DONE = 0,
  EXIT_FAILED = 1,
  EXIT_USAGE = 2,
  EXIT_UNAVAILABLE = 3,
};

/* Errors that end the program with another status than EXIT_FAILED; the code is that status. */
#define CTL_ERROR (ctl_error_quark ())
GQuark ctl_error_quark (void);

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

/* Registers the host and loads the modules. */
gboolean load_modules (GError **error);

/* Also opens the display and makes it GDK's default. */
gboolean open_session (GError **error);

/* FALSE with @error set when something printed so far was lost. */
gboolean flush_standard_output (GError **error);

/* Always FALSE, with a CTL_ERROR of EXIT_USAGE. */
gboolean set_usage_error (GError **error, const gchar *format, ...) G_GNUC_PRINTF (2, 3);

/* While it lives, log lines wait. A terminal on the display can't take them while the server is grabbed, and a full one
 * would hold up the grab. */
class LogDelay
{
public:
  LogDelay ();
  ~LogDelay ();
  LogDelay (const LogDelay &) = delete;
  LogDelay &operator= (const LogDelay &) = delete;
};

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
