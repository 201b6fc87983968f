#include "picture.h"

#include <cerrno>
#include <cstring>

#include <gio/gio.h>

#include "command.h"

GdkPixbuf *
new_picture (gboolean has_alpha, guint width, guint height, GError **error)
{
  GdkPixbuf *picture = gdk_pixbuf_new (GDK_COLORSPACE_RGB, has_alpha, 8, width, height);

  if (!picture)
    g_set_error (error, G_IO_ERROR, G_IO_ERROR_FAILED, "There is no memory for a picture of %ux%u", width, height);
  return picture;
}

static void
convert_row (const guint8 *source, guint8 *rgb, guint width, guint pixel_size)
{
  for (guint x = 0; x < width; x++, source += pixel_size, rgb += 3)
    {
      rgb[0] = source[2];
      rgb[1] = source[1];
      rgb[2] = source[0];
    }
}

/* Halfway to red, with a full red edge. */
static void
tint (GdkPixbuf *picture, const RyxRect *rect)
{
  guchar *pixels = gdk_pixbuf_get_pixels (picture);
  const int stride = gdk_pixbuf_get_rowstride (picture);

  for (guint32 y = rect->y; y < rect->y + rect->height; y++)
    for (guint32 x = rect->x; x < rect->x + rect->width; x++)
      {
        guchar *rgb = pixels + static_cast<gsize> (y) * stride + x * 3;
        const bool is_edge
          = x == rect->x || y == rect->y || x == rect->x + rect->width - 1 || y == rect->y + rect->height - 1;

        rgb[0] = is_edge ? 255 : (rgb[0] + 255) / 2;
        rgb[1] = is_edge ? 0 : rgb[1] / 2;
        rgb[2] = is_edge ? 0 : rgb[2] / 2;
      }
}

GdkPixbuf *
make_picture (RyxCapturedFrame *frame, gboolean show_map, GError **error)
{
  RyxFrameData *data = ryx_captured_frame_get_frame_data (frame);
  const guint width = ryx_frame_data_get_width (data), height = ryx_frame_data_get_height (data);
  const guint8 *source = ryx_frame_data_get_data (data);
  GdkPixbuf *picture = new_picture (FALSE, width, height, error);

  if (!picture)
    return nullptr;

  for (guint y = 0; y < height; y++)
    convert_row (source + y * ryx_frame_data_get_stride (data),
                 gdk_pixbuf_get_pixels (picture) + static_cast<gsize> (y) * gdk_pixbuf_get_rowstride (picture), width,
                 ryx_pixel_format_get_size (ryx_frame_data_get_format (data)));

  guint32 n_rects = 0;
  g_autofree RyxRect *rects
    = show_map ? ryx_diffmap_get_rects (ryx_captured_frame_get_diffmap (frame), &n_rects) : nullptr;
  for (guint32 i = 0; i < n_rects; i++)
    tint (picture, &rects[i]);
  return picture;
}

static gboolean
write_to_standard_output (const gchar *bytes, gsize length, GError **error, gpointer)
{
  if (fwrite (bytes, 1, length, stdout) == length)
    return TRUE;

  g_set_error (error, G_IO_ERROR, g_io_error_from_errno (errno), "Cannot write to standard output: %s",
               g_strerror (errno));
  return FALSE;
}

gboolean
save_png (GdkPixbuf *picture, const gchar *file, GError **error)
{
  if (!g_str_equal (file, "-"))
    return gdk_pixbuf_save (picture, file, "png", error, nullptr);
  return gdk_pixbuf_save_to_callback (picture, write_to_standard_output, nullptr, "png", error, nullptr)
         && flush_standard_output (error);
}

Y4mRecording::~Y4mRecording ()
{
  if (stream && stream != stdout)
    fclose (stream);
}

gboolean
Y4mRecording::write_error (GError **error)
{
  g_set_error (error, G_IO_ERROR, g_io_error_from_errno (errno), "Cannot write the recording: %s", g_strerror (errno));
  return FALSE;
}

gboolean
Y4mRecording::open (const gchar *file, GError **error)
{
  stream = g_str_equal (file, "-") ? stdout : fopen (file, "wb");
  if (stream)
    return TRUE;

  g_set_error (error, G_IO_ERROR, g_io_error_from_errno (errno), "Cannot open %s: %s", file, g_strerror (errno));
  return FALSE;
}

/* ITU-R BT.601 in the studio range, in 16.16 fixed point. */
static void
convert_to_planes (RyxFrameData *data, std::vector<guint8> *planes)
{
  const guint width = ryx_frame_data_get_width (data), height = ryx_frame_data_get_height (data);
  const guint pixel_size = ryx_pixel_format_get_size (ryx_frame_data_get_format (data));
  const gsize plane_size = static_cast<gsize> (width) * height;

  planes->resize (3 * plane_size);
  guint8 *luma = planes->data (), *cb = luma + plane_size, *cr = cb + plane_size;

  for (guint y = 0; y < height; y++)
    {
      const guint8 *source = ryx_frame_data_get_data (data) + y * ryx_frame_data_get_stride (data);

      for (guint x = 0; x < width; x++, source += pixel_size)
        {
          const int blue = source[0], green = source[1], red = source[2];

          *luma++ = (16829 * red + 33039 * green + 6416 * blue + (16 << 16) + 32768) >> 16;
          *cb++ = (-9714 * red - 19071 * green + 28784 * blue + (128 << 16) + 32768) >> 16;
          *cr++ = (28784 * red - 24103 * green - 4681 * blue + (128 << 16) + 32768) >> 16;
        }
    }
}

gboolean
Y4mRecording::write_until (gint64 now, GError **error)
{
  const gint64 n_due = (now - start) * frames_per_second / G_USEC_PER_SEC;

  for (; n_written < n_due; n_written++)
    if (fputs ("FRAME\n", stream) == EOF || fwrite (planes.data (), 1, planes.size (), stream) != planes.size ())
      return write_error (error);
  return TRUE;
}

gboolean
Y4mRecording::add (RyxCapturedFrame *frame, GError **error)
{
  RyxFrameData *data = ryx_captured_frame_get_frame_data (frame);

  if (width == 0)
    {
      start = ryx_captured_frame_get_timestamp (frame);
      width = ryx_frame_data_get_width (data);
      height = ryx_frame_data_get_height (data);
      if (fprintf (stream, "YUV4MPEG2 W%u H%u F%u:1 Ip A1:1 C444\n", width, height, frames_per_second) < 0)
        return write_error (error);
    }
  else if (width != ryx_frame_data_get_width (data) || height != ryx_frame_data_get_height (data))
    {
      g_set_error (error, G_IO_ERROR, G_IO_ERROR_FAILED,
                   "The picture changed from %ux%u to %ux%u, which a recording can't follow", width, height,
                   ryx_frame_data_get_width (data), ryx_frame_data_get_height (data));
      return FALSE;
    }
  else if (!write_until (ryx_captured_frame_get_timestamp (frame), error))
    return FALSE;

  convert_to_planes (data, &planes);
  return TRUE;
}

gboolean
Y4mRecording::finish (gint64 now, GError **error)
{
  /* At least one picture for the last frame, however short its time. */
  const gint64 slot = G_USEC_PER_SEC / frames_per_second;
  if (width != 0 && !write_until (MAX (now, start + (n_written + 1) * slot), error))
    return FALSE;

  if (!stream)
    return TRUE; /* no frame came */

  FILE *closing = stream;
  stream = nullptr;
  return (closing == stdout ? fflush (closing) : fclose (closing)) == 0 || write_error (error);
}
