#pragma once

#include <glib.h>

/* What a host's exit status tells. */
enum ExitStatus
{
  EXIT_DONE = 0,
  EXIT_FAILED = 1,
  EXIT_USAGE = 2,
  EXIT_UNAVAILABLE = 3,
};

/* Errors that end a program with another status than EXIT_FAILED; the code is that status. */
#define PROGRAM_ERROR (program_error_quark ())
GQuark program_error_quark (void);

/* The status that a program ends with because of the error. */
int get_exit_status (const GError *error);

/* Lets nothing that is opened later take the place of a standard stream that is closed. First of all. */
void keep_standard_streams (void);

/* Registers the host and loads the modules, from the installed directory when it is NULL. */
gboolean load_modules (const gchar *module_dir, GError **error);

/* Opens the display that is named, or the environment's when it is NULL, and makes it GDK's default. */
gboolean open_display (const gchar *name, GError **error);
