#pragma once

#include <glib.h>

#include "program.h"

struct Options
{
  gchar *display; /* NULL: what $DISPLAY names */
  gchar *module_dir;
  gchar *listen;
  gint port = 8970;
  gchar *tls_cert, *tls_key;
  gchar *token_file;
  gint max_clients = 16;
  gboolean insecure, view_only;
  gboolean restore_layout = TRUE;
  gboolean verbose, debug, version;
  gint session = -1; /* the descriptor that leads to the gate; -1: this is the gate */
};

extern Options options;

/* Takes lines of the log instead of standard error. */
extern void (*log_sink) (const gchar *line);

/* The program's two processes, each until it is over, with its exit status. Where @error is set, that has to tell it.
 */
int run_gate (GError **error);
int run_session ();
