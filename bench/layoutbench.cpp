/* A change of layout and the way back, by the layout manager, by ryxctl and by xrandr: all on one server and in turns,
 * so that they meet the same machine. The time reported is that of two requests to a layout manager in this process;
 * "ryxctl_ms" and "xrandr_ms" are those of whole programs, each as many runs as it needs. "requests" and
 * "xrandr_requests" count what goes to the server for the change alone, without what opening a display takes. */

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "capture.h"
#include "faultproxy.h"
#include "layout.h"

struct Change
{
  const char *there, *back;
  std::vector<const char *> xrandr_there, xrandr_back; /* command lines */
};

#define SIDE_BY_SIDE "1280x1024+0+0 1280x1024+1280+0"
#define XRANDR_SIDE_BY_SIDE                                                                                            \
  "xrandr --output DUMMY0 --mode 1280x1024 --pos 0x0 --output DUMMY1 --mode 1280x1024 --pos 1280x0"

static const Change same_size = {
  "1280x1024+0+0 1280x1024+0+1024",
  SIDE_BY_SIDE,
  { "xrandr --output DUMMY0 --mode 1280x1024 --pos 0x0 --output DUMMY1 --mode 1280x1024 --pos 0x1024" },
  { XRANDR_SIDE_BY_SIDE },
};

static const Change new_mode = {
  "1000x696+0+0 1280x1024+1000+0",
  SIDE_BY_SIDE,
  { "xrandr --newmode made 55.75 1000 1048 1144 1288 696 699 709 723 -hsync +vsync", "xrandr --addmode DUMMY0 made",
    "xrandr --output DUMMY0 --mode made --pos 0x0 --output DUMMY1 --mode 1280x1024 --pos 1000x0" },
  { XRANDR_SIDE_BY_SIDE, "xrandr --delmode DUMMY0 made", "xrandr --rmmode made" },
};

static const Change one_to_two = {
  SIDE_BY_SIDE,
  "1280x1024+0+0",
  { XRANDR_SIDE_BY_SIDE },
  { "xrandr --output DUMMY0 --mode 1280x1024 --pos 0x0 --output DUMMY1 --off" },
};

static void
run (const char *command)
{
  gint status;
  g_autofree gchar *output = nullptr;
  g_autoptr (GError) error = nullptr;

  if (!g_spawn_command_line_sync (command, &output, nullptr, &status, &error)
      || !g_spawn_check_wait_status (status, &error))
    g_error ("%s: %s", command, error->message);
}

static void
run_all (const std::vector<const char *> &commands)
{
  for (const char *command : commands)
    run (command);
}

static void
request (const char *geometries)
{
  const std::string error = request_layout (geometries);

  if (!error.empty ())
    g_error ("%s: %s", geometries, error.c_str ());
}

template <typename Run>
static double
time_of (Run run)
{
  const auto start = std::chrono::steady_clock::now ();

  run ();
  return std::chrono::duration<double> (std::chrono::steady_clock::now () - start).count ();
}

/* xrandr's first requests are Xlib's, up to the one for the size range that every run begins with. */
static size_t
count_from_first_randr_request (const std::vector<std::string> &trace)
{
  return trace.end ()
         - std::find_if (trace.begin (), trace.end (), [] (const auto &name) { return name.starts_with ("RR"); });
}

static void
count_requests (benchmark::State &state, const XServer &server, const Change &change)
{
  FaultProxy proxy (server);
  const GdkDisplayScope gdk (proxy.display ());
  size_t n_xrandr_requests = 0;

  request (change.back);
  state.counters["requests"] = count_from_first_randr_request (proxy.record ([&] { request (change.there); }));
  request (change.back);
  for (const char *command : change.xrandr_there)
    n_xrandr_requests += count_from_first_randr_request (proxy.record ([&] { run (command); }));
  state.counters["xrandr_requests"] = n_xrandr_requests;
  run_all (change.xrandr_back);
}

static void
change_layout (benchmark::State &state, const Change &change)
{
  const XServer server (XServer::XORG_DUMMY);
  const GdkDisplayScope gdk (server.display ());
  const std::string ryxctl_there = std::string (RYXCTL " layout ") + change.there;
  const std::string ryxctl_back = std::string (RYXCTL " layout ") + change.back;
  double ryxctl = 0, xrandr = 0;

  load_module ();
  count_requests (state, server, change);
  while (state.KeepRunning ())
    {
      request (change.back);
      state.SetIterationTime (time_of ([&] { request (change.there), request (change.back); }));
      ryxctl += time_of ([&] { run (ryxctl_there.c_str ()), run (ryxctl_back.c_str ()); });
      xrandr += time_of ([&] { run_all (change.xrandr_there), run_all (change.xrandr_back); });
    }
  state.counters["ryxctl_ms"] = ryxctl * 1000 / state.iterations ();
  state.counters["xrandr_ms"] = xrandr * 1000 / state.iterations ();
}

BENCHMARK_CAPTURE (change_layout, same_size, same_size)->UseManualTime ()->Unit (benchmark::kMillisecond);
BENCHMARK_CAPTURE (change_layout, new_mode, new_mode)->UseManualTime ()->Unit (benchmark::kMillisecond);
BENCHMARK_CAPTURE (change_layout, one_to_two, one_to_two)->UseManualTime ()->Unit (benchmark::kMillisecond);

BENCHMARK_MAIN ();
