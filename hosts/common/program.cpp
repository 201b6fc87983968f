#include "program.h"

#include <initializer_list>

#include <fcntl.h>
#include <gdk/gdk.h>
#include <ryx/ryx.h>

GQuark
program_error_quark (void)
{
  return g_quark_from_static_string ("program-error-quark");
}

int
get_exit_status (const GError *error)
{
  return error->domain == PROGRAM_ERROR ? error->code : static_cast<int> (EXIT_FAILED);
}

/* What is written to /dev/full fails, as it does on a closed stream; what is read is nothing but zeros, so input gets
 * another. */
void
keep_standard_streams (void)
{
  for (int fd : { 0, 1, 2 }) /* the lowest that is free is taken */
    if (fcntl (fd, F_GETFD) < 0)
      open (fd == 0 ? "/dev/null" : "/dev/full", O_RDWR);
}

gboolean
load_modules (const gchar *module_dir, GError **error)
{
  g_autoptr (GError) load_error = nullptr;

  ryx_host_register ();
  if (ryx_host_load_modules (module_dir, &load_error) > 0)
    return TRUE;

  g_set_error_literal (error, PROGRAM_ERROR, EXIT_UNAVAILABLE, load_error->message);
  return FALSE;
}

gboolean
open_display (const gchar *name, GError **error)
{
  int argc = 0;
  char **argv = nullptr;

  /* Readers open connections of their own to the display that the environment names. */
  if (name)
    g_setenv ("DISPLAY", name, TRUE);

  gdk_parse_args (&argc, &argv);
  if (GdkDisplay *display = gdk_display_open (nullptr))
    {
      gdk_display_manager_set_default_display (gdk_display_manager_get (), display);
      return TRUE;
    }

  const gchar *tried = g_getenv ("DISPLAY");
  if (tried && *tried)
    g_set_error (error, PROGRAM_ERROR, EXIT_UNAVAILABLE, "Cannot open display \"%s\"", tried);
  else
    g_set_error_literal (error, PROGRAM_ERROR, EXIT_UNAVAILABLE,
                         "No display to open: DISPLAY is not set and --display was not given");
  return FALSE;
}
