/* The least host there is: it grabs frames of $DISPLAY for ever and drops them. What it has taken so far stands in a
 * file of three 64-bit numbers: frames, empty grabs, changed blocks. "compare" turns dirty-region mode off, "unpaced"
 * the reader's rests. */

#include <ryx/ryx.h>

#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

struct Counters
{
  volatile guint64 n_frames, n_empty, n_blocks;
};

static bool is_unpaced;

/* In place of GLib's, also for the module. */
void
g_usleep (gulong microseconds)
{
  if (!is_unpaced)
    usleep (static_cast<useconds_t> (microseconds));
}

static Counters *
map_counters (const char *path)
{
  const int fd = open (path, O_RDWR | O_CREAT, 0644);
  if (fd < 0 || ftruncate (fd, sizeof (Counters)) != 0)
    g_error ("%s can't be written", path);
  return static_cast<Counters *> (mmap (nullptr, sizeof (Counters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
}

static RyxFrameBufferReader *
make_reader (bool compares, guint block_size)
{
  g_autoptr (GError) error = nullptr;
  g_autoptr (GSettings) settings = ryx_settings_new ("com.quorlane.ryx.display");
  g_settings_set_boolean (settings, "use-grabber-dirty-region", !compares);
  g_settings_set_uint (settings, "grabber-target-fps", 60);

  ryx_host_register ();
  if (!ryx_host_load_modules (nullptr, &error))
    g_error ("%s", error->message);

  gpointer reader = ryx_host_create (RYX_FRAME_BUFFER_READER_EXTENSION_POINT, nullptr, &error, "screen-name", "bench",
                                     "block-size", block_size, nullptr);
  if (!reader || !ryx_frame_buffer_reader_setup (RYX_FRAME_BUFFER_READER (reader), &error)
      || !ryx_frame_buffer_reader_configure (RYX_FRAME_BUFFER_READER (reader), &error))
    g_error ("%s", error->message);
  return RYX_FRAME_BUFFER_READER (reader);
}

int
main (int argc, char **argv)
{
  if (argc < 2)
    return fprintf (stderr, "Usage: capturer COUNTERS [dirty|compare|unpaced [BLOCK-SIZE]]\n"), 2;

  g_setenv ("GSETTINGS_BACKEND", "memory", TRUE);
  is_unpaced = argc > 2 && strcmp (argv[2], "unpaced") == 0;
  Counters *counters = map_counters (argv[1]);
  RyxFrameBufferReader *reader
    = make_reader (argc > 2 && strcmp (argv[2], "compare") == 0, argc > 3 ? static_cast<guint> (atoi (argv[3])) : 64);

  while (true)
    {
      g_autoptr (GError) error = nullptr;
      g_autoptr (RyxCapturedFrame) frame = ryx_frame_buffer_reader_grab_frame (reader, &error);

      if (frame)
        {
          counters->n_blocks = counters->n_blocks + ryx_diffmap_get_count (ryx_captured_frame_get_diffmap (frame));
          counters->n_frames = counters->n_frames + 1;
        }
      else if (g_error_matches (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_EMPTY_FRAME))
        counters->n_empty = counters->n_empty + 1;
      else
        return fprintf (stderr, "%s\n", error->message), 1;
    }
}
