#include "ctl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "xserver.h"

CtlRun::CtlRun (const char *display, const std::vector<std::string> &arguments, const char *output_file)
    : output (output_file ? open (output_file, O_RDWR | O_CLOEXEC) : memfd_create ("output", MFD_CLOEXEC)),
      errors (memfd_create ("errors", MFD_CLOEXEC))
{
  g_autoptr (GSubprocessLauncher) launcher = g_subprocess_launcher_new (G_SUBPROCESS_FLAGS_STDIN_PIPE);
  std::vector<const char *> argv = { RYXCTL };

  for (const auto &argument : arguments)
    argv.push_back (argument.c_str ());
  argv.push_back (nullptr);

  if (display)
    g_subprocess_launcher_setenv (launcher, "DISPLAY", display, TRUE);
  else
    g_subprocess_launcher_unsetenv (launcher, "DISPLAY");
  g_subprocess_launcher_take_stdout_fd (launcher, dup (output));
  g_subprocess_launcher_take_stderr_fd (launcher, dup (errors));
  process = g_subprocess_launcher_spawnv (launcher, argv.data (), nullptr);
}

CtlRun::~CtlRun ()
{
  g_subprocess_force_exit (process);
  g_subprocess_wait (process, nullptr, nullptr);
  g_object_unref (process);
  close (output);
  close (errors);
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

static std::string
contents (int file)
{
  struct stat status = {};
  fstat (file, &status);
  std::string text (status.st_size, 0);
  text.resize (std::max<ssize_t> (pread (file, text.data (), text.size (), 0), 0));
  return text;
}

int
CtlRun::status ()
{
  g_subprocess_wait (process, nullptr, nullptr);
  out = contents (output);
  err = contents (errors);
  const int status = g_subprocess_get_if_exited (process) ? g_subprocess_get_exit_status (process) : -1;
  EXPECT_NE (status, 99) << err; /* a sanitizer's report: see tests/meson.build */
  return status;
}

bool
CtlRun::wait_for_lines (unsigned n)
{
  return wait_until ([&] {
    out = contents (output);
    return std::count (out.begin (), out.end (), '\n') >= n;
  });
}
