/* The time from a drawing request, flushed, to the return of the grab that shows it. Prints a line of JSON: for each
 * draw the whole latency and the part of it that the reader slept to keep its sampling interval, in microseconds. */

#include <ryx/ryx.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <thread>

#include "xserver.h"

/* In a thread of its own, like every host's. Times are monotonic, in microseconds. */
class Reader
{
public:
  explicit Reader (guint target_fps)
  {
    g_autoptr (GError) error = nullptr;
    g_autoptr (GSettings) settings = ryx_settings_new ("com.quorlane.ryx.display");
    g_settings_set_uint (settings, "grabber-target-fps", target_fps);
    ryx_host_register ();
    if (!ryx_host_load_modules (nullptr, &error))
      g_error ("%s", error->message);
    reader = RYX_FRAME_BUFFER_READER (
      ryx_host_create (RYX_FRAME_BUFFER_READER_EXTENSION_POINT, nullptr, &error, "screen-name", "bench", nullptr));
    if (!ryx_frame_buffer_reader_setup (reader, &error) || !ryx_frame_buffer_reader_configure (reader, &error))
      g_error ("%s", error->message);
    std::thread ([this] { run (); }).detach ();
  }

  std::atomic<gint64> grabbed = 0, returned = 0;

private:
  void
  run ()
  {
    while (true)
      if (g_autoptr (RyxCapturedFrame) frame = ryx_frame_buffer_reader_grab_frame (reader, nullptr))
        {
          const gint64 now = g_get_monotonic_time ();
          grabbed = ryx_captured_frame_get_timestamp (frame);
          returned = now;
          returned.notify_all ();
        }
  }

  RyxFrameBufferReader *reader;
};

int
main (int argc, char **argv)
{
  if (argc != 3)
    return fprintf (stderr, "Usage: latency DRAWS TARGET-FPS\n"), 2;

  g_setenv ("GSETTINGS_BACKEND", "memory", TRUE);
  const auto fps = static_cast<guint> (atoi (argv[2]));
  const gint64 interval = G_USEC_PER_SEC / CLAMP (2 * fps, 30, 60);
  XcbClient client (nullptr);
  Reader reader (fps);
  const xcb_gcontext_t gc = xcb_generate_id (client.conn);
  const uint32_t values[] = { 0, XCB_SUBWINDOW_MODE_INCLUDE_INFERIORS };
  xcb_create_gc (client.conn, gc, client.root, XCB_GC_FOREGROUND | XCB_GC_SUBWINDOW_MODE, values);
  std::minstd_rand random (1);

  reader.returned.wait (0);
  for (int i = 0; i < atoi (argv[1]); i++)
    {
      /* Anywhere in the interval or behind it, as people type. */
      std::this_thread::sleep_for (std::chrono::microseconds (random () % (2 * interval)));

      const gint64 seen = reader.returned, last_grab = reader.grabbed;
      const uint32_t colour = random ();
      const xcb_rectangle_t square = { 100, 100, 16, 16 };
      xcb_change_gc (client.conn, gc, XCB_GC_FOREGROUND, &colour);
      xcb_poly_fill_rectangle (client.conn, client.root, gc, 1, &square);
      const gint64 drawn = g_get_monotonic_time ();
      xcb_flush (client.conn);
      reader.returned.wait (seen);
      printf ("%s[%" G_GINT64_FORMAT ", %" G_GINT64_FORMAT "]", i == 0 ? "[" : ", ", reader.returned - drawn,
              MAX (0, last_grab + interval - drawn));
    }
  printf ("]\n");
  fflush (stdout);
  _exit (0); /* with the reader waiting */
}
