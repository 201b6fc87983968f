#pragma once

#include <cstdio>
#include <vector>

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <ryx/ryx.h>

/* A new picture, its pixels not set; NULL with @error set when there is no memory for them. */
GdkPixbuf *new_picture (gboolean has_alpha, guint width, guint height, GError **error);

/* The frame's pixels, new. With @show_map the changed blocks are tinted. NULL with @error set when there is no memory
 * for them. */
GdkPixbuf *make_picture (RyxCapturedFrame *frame, gboolean show_map, GError **error);

/* Writes a PNG to the file, or to standard output when it is "-". */
gboolean save_png (GdkPixbuf *picture, const gchar *file, GError **error);

/* A recording in YUV4MPEG2 at a fixed rate: a frame stands for as many pictures as it was on the screen. */
class Y4mRecording
{
public:
  static constexpr guint frames_per_second = 25;

  Y4mRecording () = default;
  ~Y4mRecording ();
  Y4mRecording (const Y4mRecording &) = delete;
  Y4mRecording &operator= (const Y4mRecording &) = delete;

  /* "-" is standard output. */
  gboolean open (const gchar *file, GError **error);

  /* All frames must have one size: the format can't change it. */
  gboolean add (RyxCapturedFrame *frame, GError **error);

  /* Writes what the last frame stands for up to the monotonic time @now, and closes the file. */
  gboolean finish (gint64 now, GError **error);

private:
  gboolean write_until (gint64 now, GError **error);
  gboolean write_error (GError **error);

  FILE *stream = nullptr;
  guint width = 0, height = 0;
  gint64 start = 0;           /* the first frame's time in microseconds */
  gint64 n_written = 0;       /* pictures so far */
  std::vector<guint8> planes; /* the last frame: Y, Cb and Cr in full size */
};
