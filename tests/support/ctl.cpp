#include "ctl.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "xserver.h"

static void
append_stream (GInputStream *stream, std::string *text, GMutex *lock)
{
  char buffer[4096];
  gssize length;

  while (stream && (length = g_input_stream_read (stream, buffer, sizeof buffer, nullptr, nullptr)) > 0)
    {
      g_mutex_lock (lock);
      text->append (buffer, length);
      g_mutex_unlock (lock);
    }
}

CtlRun::CtlRun (const char *display, const std::vector<std::string> &arguments, const char *output_file)
{
  const GSubprocessFlags output = output_file ? G_SUBPROCESS_FLAGS_NONE : G_SUBPROCESS_FLAGS_STDOUT_PIPE;
  g_autoptr (GSubprocessLauncher) launcher = g_subprocess_launcher_new (
    static_cast<GSubprocessFlags> (output | G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE));
  std::vector<const char *> argv = { RYXCTL };

  for (const auto &argument : arguments)
    argv.push_back (argument.c_str ());
  argv.push_back (nullptr);

  g_mutex_init (&lock);
  if (display)
    g_subprocess_launcher_setenv (launcher, "DISPLAY", display, TRUE);
  else
    g_subprocess_launcher_unsetenv (launcher, "DISPLAY");
  if (output_file)
    g_subprocess_launcher_set_stdout_file_path (launcher, output_file);
  process = g_subprocess_launcher_spawnv (launcher, argv.data (), nullptr);
  reader = g_thread_new ("ryxctl output", read_all, this);
}

CtlRun::~CtlRun ()
{
  if (!joined)
    g_subprocess_force_exit (process);
  status ();
  g_object_unref (process);
  g_mutex_clear (&lock);
}

gpointer
CtlRun::read_errors (gpointer data)
{
  auto *run = static_cast<CtlRun *> (data);

  append_stream (g_subprocess_get_stderr_pipe (run->process), &run->err, &run->lock);
  return nullptr;
}

/* Both at once: a program stops while either is full. */
gpointer
CtlRun::read_all (gpointer data)
{
  auto *run = static_cast<CtlRun *> (data);
  GThread *error_reader = g_thread_new ("ryxctl errors", read_errors, run);

  append_stream (g_subprocess_get_stdout_pipe (run->process), &run->out, &run->lock);
  g_thread_join (error_reader);
  return nullptr;
}

void
CtlRun::write (const std::string &text)
{
  g_output_stream_write_all (g_subprocess_get_stdin_pipe (process), text.data (), text.size (), nullptr, nullptr,
                             nullptr);
}

void
CtlRun::end_input ()
{
  g_output_stream_close (g_subprocess_get_stdin_pipe (process), nullptr, nullptr);
}

void
CtlRun::interrupt ()
{
  /* g_subprocess_send_signal () leaves it to another thread, for some time later. */
  kill (pid (), SIGINT);
}

pid_t
CtlRun::pid () const
{
  return atoi (g_subprocess_get_identifier (process));
}

int
CtlRun::status ()
{
  if (!joined)
    {
      g_thread_join (reader);
      g_subprocess_wait (process, nullptr, nullptr);
      joined = true;
    }
  return g_subprocess_get_if_exited (process) ? g_subprocess_get_exit_status (process) : -1;
}

bool
CtlRun::wait_for_lines (unsigned n)
{
  return wait_until ([&] {
    g_mutex_lock (&lock);
    const auto lines = std::count (out.begin (), out.end (), '\n');
    g_mutex_unlock (&lock);
    return lines >= n;
  });
}
