#include "log.h"

#include <utility>

#include "command.h"

static GLogLevelFlags
get_least_level ()
{
  if (global_options.debug)
    return G_LOG_LEVEL_DEBUG;
  return global_options.verbose ? G_LOG_LEVEL_INFO : G_LOG_LEVEL_WARNING;
}

/* Lines that wait; NULL: none has to. */
static GString *delayed_log;

LogDelay::LogDelay ()
{
  delayed_log = g_string_new (nullptr);
}

LogDelay::~LogDelay ()
{
  g_printerr ("%s", delayed_log->str);
  g_string_free (std::exchange (delayed_log, nullptr), TRUE);
}

/* Lower levels weigh more; standard output belongs to the results. */
static void
print_log (const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer)
{
  if ((level & G_LOG_LEVEL_MASK) > static_cast<int> (get_least_level ()))
    return;

  g_autofree gchar *line = g_strdup_printf ("%s: %s\n", domain ? domain : "ryxctl", message);
  if (delayed_log && !(level & G_LOG_FLAG_FATAL))
    g_string_append (delayed_log, line);
  else
    g_printerr ("%s", line);
}

void
set_up_log ()
{
  g_log_set_default_handler (print_log, nullptr);
}
