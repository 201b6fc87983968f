/* Runs a program through the fault proxy and counts what it asks of the X server of $DISPLAY: waits WARM-UP seconds,
 * counts for SECONDS seconds, ends the program and prints the number of requests and of round trips among them. In the
 * program's arguments, "{display}" stands for the proxy's display. */

#include <cstdio>
#include <cstring>
#include <thread>

#include <signal.h>

#include "faultproxy.h"

int
main (int argc, char **argv)
{
  if (argc < 4)
    return fprintf (stderr, "Usage: requests WARM-UP SECONDS PROGRAM [ARGUMENT ...]\n"), 2;

  const auto wait = [] (const char *seconds) {
    std::this_thread::sleep_for (std::chrono::duration<double> (strtod (seconds, nullptr)));
  };
  FaultProxy proxy (g_getenv ("DISPLAY"));
  g_autoptr (GError) error = nullptr;
  GPid program;

  g_setenv ("DISPLAY", proxy.display (), TRUE);
  std::vector<std::string> arguments (argv + 3, argv + argc);
  std::vector<char *> program_argv;
  for (auto &argument : arguments)
    {
      if (const size_t place = argument.find ("{display}"); place != std::string::npos)
        argument.replace (place, strlen ("{display}"), proxy.display ());
      program_argv.push_back (argument.data ());
    }
  program_argv.push_back (nullptr);
  if (!g_spawn_async (nullptr, program_argv.data (), nullptr,
                      GSpawnFlags (G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL),
                      nullptr, nullptr, &program, &error))
    return fprintf (stderr, "%s\n", error->message), 1;

  wait (argv[1]);
  const auto trace = proxy.record ([&] { wait (argv[2]); });
  printf ("%zu %u\n", trace.size (), trace.round_trips);
  fflush (stdout);
  kill (program, SIGKILL);
  return 0;
}
