/* What a started pointer monitor costs: the CPU time of its thread per second, and beside it that of the X server,
 * which answers it. An iteration is a second. The limit to compare with is a timer of the same rate that does nothing
 * but an empty round trip on the same connection. */

#include <benchmark/benchmark.h>
#include <ryx/ryx.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <time.h>

#include "xserver.h"

#include <X11/Xlib-xcb.h>
#include <gdk/gdkx.h>

static double
read_clock (clockid_t clock)
{
  struct timespec time;

  clock_gettime (clock, &time);
  return static_cast<double> (time.tv_sec) + static_cast<double> (time.tv_nsec) / 1e9;
}

static void
show_cursor (gint size)
{
  GdkPixbuf *picture = gdk_pixbuf_new (GDK_COLORSPACE_RGB, TRUE, 8, size, size);
  gdk_pixbuf_fill (picture, 0x4080c080);

  GdkCursor *cursor = gdk_cursor_new_from_pixbuf (gdk_display_get_default (), picture, 0, 0);
  gdk_window_set_cursor (gdk_get_default_root_window (), cursor);
  gdk_cursor_unref (cursor);
  g_object_unref (picture);
}

/* Moves the pointer a hundred times a second, on a connection and in a thread of its own. */
class Mover
{
public:
  explicit Mover (const char *display)
      : client (display), thread ([this] {
          for (int16_t x = 0; !stops; x = static_cast<int16_t> ((x + 1) % 1000))
            {
              xcb_warp_pointer (client.conn, XCB_NONE, client.root, 0, 0, 0, 0, x, 100);
              client.round_trip ();
              std::this_thread::sleep_for (std::chrono::milliseconds (10));
            }
        })
  {
  }
  ~Mover ()
  {
    stops = true;
    thread.join ();
  }
  Mover (const Mover &) = delete;
  Mover &operator= (const Mover &) = delete;

private:
  std::atomic<bool> stops = false;
  XcbClient client;
  std::thread thread;
};

static void
run_main_loop (guint milliseconds)
{
  GMainLoop *loop = g_main_loop_new (nullptr, FALSE);
  const auto quit = [] (gpointer data) -> gboolean {
    g_main_loop_quit (static_cast<GMainLoop *> (data));
    return G_SOURCE_REMOVE;
  };

  g_timeout_add (milliseconds, quit, loop);
  g_main_loop_run (loop);
  g_main_loop_unref (loop);
}

static gboolean
make_empty_round_trip (gpointer)
{
  xcb_connection_t *conn = XGetXCBConnection (gdk_x11_get_default_xdisplay ());

  free (xcb_get_input_focus_reply (conn, xcb_get_input_focus (conn), nullptr));
  return G_SOURCE_CONTINUE;
}

enum Load
{
  EMPTY_ROUND_TRIPS,
  MONITOR,
};

static void
run_load (benchmark::State &state, Load load, bool is_moving)
{
  XServer server (XServer::XVFB);
  GdkDisplayScope scope (server.display ());
  auto *monitor
    = RYX_POINTER_MONITOR (ryx_host_create (RYX_POINTER_MONITOR_EXTENSION_POINT, nullptr, nullptr, nullptr));
  const auto mover = is_moving ? std::make_unique<Mover> (server.display ()) : nullptr;
  clockid_t server_clock;
  guint timer = 0;

  show_cursor (static_cast<gint> (state.range (0)));
  clock_getcpuclockid (server.pid (), &server_clock);
  if (load == MONITOR)
    ryx_pointer_monitor_start (monitor);
  else
    timer = g_timeout_add (40, make_empty_round_trip, nullptr);
  run_main_loop (200);

  double own_seconds = 0, server_seconds = 0;
  for ([[maybe_unused]] auto _ : state)
    {
      const double own_start = read_clock (CLOCK_THREAD_CPUTIME_ID), server_start = read_clock (server_clock);

      run_main_loop (1000);
      const double own = read_clock (CLOCK_THREAD_CPUTIME_ID) - own_start;
      state.SetIterationTime (own);
      own_seconds += own;
      server_seconds += read_clock (server_clock) - server_start;
    }

  if (timer)
    g_source_remove (timer);
  g_object_unref (monitor);
  state.counters["core_percent"] = benchmark::Counter (100 * own_seconds, benchmark::Counter::kAvgIterations);
  state.counters["server_percent"] = benchmark::Counter (100 * server_seconds, benchmark::Counter::kAvgIterations);
}

int
main (int argc, char **argv)
{
  g_autoptr (GError) error = nullptr;

  ryx_host_register ();
  if (!ryx_host_load_modules (nullptr, &error))
    g_error ("%s", error->message);

  benchmark::Initialize (&argc, argv);
  for (const bool is_moving : { false, true })
    for (const Load load : { EMPTY_ROUND_TRIPS, MONITOR })
      {
        g_autofree gchar *name = g_strdup_printf ("%s/%s", is_moving ? "moving" : "still",
                                                  load == MONITOR ? "monitor" : "empty_round_trips");
        benchmark::RegisterBenchmark (name, run_load, load, is_moving)
          ->ArgName ("size")
          ->Arg (24)
          ->Arg (64)
          ->Iterations (10)
          ->UseManualTime ()
          ->Unit (benchmark::kMicrosecond);
      }
  benchmark::RunSpecifiedBenchmarks ();
  return 0;
}
