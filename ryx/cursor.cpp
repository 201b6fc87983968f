#include <ryx/cursor.h>

struct _RyxCursor
{
  gatomicrefcount references;
  guint64 id;
  guint32 width, height;
  guint32 hotspot_x, hotspot_y;
  GBytes *pixels;
};

G_DEFINE_BOXED_TYPE (RyxCursor, ryx_cursor, ryx_cursor_ref, ryx_cursor_unref)

RyxCursor *
ryx_cursor_new (guint64 id, guint32 width, guint32 height, guint32 hotspot_x, guint32 hotspot_y, GBytes *pixels)
{
  g_return_val_if_fail (pixels, nullptr);
  g_return_val_if_fail (g_bytes_get_size (pixels) / 4 >= static_cast<guint64> (width) * height, nullptr);

  RyxCursor *cursor = g_new0 (RyxCursor, 1);
  g_atomic_ref_count_init (&cursor->references);
  cursor->id = id;
  cursor->width = width;
  cursor->height = height;
  cursor->hotspot_x = hotspot_x;
  cursor->hotspot_y = hotspot_y;
  cursor->pixels = g_bytes_ref (pixels);
  return cursor;
}

RyxCursor *
ryx_cursor_ref (RyxCursor *cursor)
{
  g_atomic_ref_count_inc (&cursor->references);
  return cursor;
}

void
ryx_cursor_unref (RyxCursor *cursor)
{
  if (!g_atomic_ref_count_dec (&cursor->references))
    return;

  g_bytes_unref (cursor->pixels);
  g_free (cursor);
}

guint64
ryx_cursor_get_id (RyxCursor *cursor)
{
  return cursor->id;
}

guint32
ryx_cursor_get_width (RyxCursor *cursor)
{
  return cursor->width;
}

guint32
ryx_cursor_get_height (RyxCursor *cursor)
{
  return cursor->height;
}

guint32
ryx_cursor_get_hotspot_x (RyxCursor *cursor)
{
  return cursor->hotspot_x;
}

guint32
ryx_cursor_get_hotspot_y (RyxCursor *cursor)
{
  return cursor->hotspot_y;
}

GBytes *
ryx_cursor_get_pixels (RyxCursor *cursor)
{
  return cursor->pixels;
}
