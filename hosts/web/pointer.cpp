#include "pointer.h"

#include "message.h"

Pointer::Pointer (RyxPointerMonitor *pointer_monitor, const Input *client_input, Streamer *text_streamer)
    : monitor (pointer_monitor), input (client_input), streamer (text_streamer)
{
  g_signal_connect_swapped (monitor, "cursor-moved", G_CALLBACK (on_moved), this);
  g_signal_connect_swapped (monitor, "cursor-changed", G_CALLBACK (on_changed), this);
  g_signal_connect_swapped (monitor, "cursor-retrieved", G_CALLBACK (on_retrieved), this);
}

Pointer::~Pointer ()
{
  g_signal_handlers_disconnect_by_data (monitor, this);
  g_object_unref (monitor);
  g_clear_pointer (&shown, ryx_cursor_unref);
}

void
Pointer::start ()
{
  ryx_pointer_monitor_start (monitor);
}

void
Pointer::stop ()
{
  ryx_pointer_monitor_stop (monitor);
  g_clear_pointer (&shown, ryx_cursor_unref);
  x = y = nowhere;
}

static std::string
name_cursor (RyxCursor *cursor)
{
  return format ("{\"type\":\"cursor\",\"id\":\"%" G_GUINT64_FORMAT "\"", ryx_cursor_get_id (cursor));
}

static std::string
define_cursor (RyxCursor *cursor)
{
  g_autoptr (GByteArray) png = g_byte_array_new ();
  write_cursor_png (cursor, png);
  g_autofree gchar *base64 = g_base64_encode (png->data, png->len);

  return name_cursor (cursor)
         + format (",\"width\":%u,\"height\":%u,\"x\":%u,\"y\":%u,\"png\":\"%s\"}", ryx_cursor_get_width (cursor),
                   ryx_cursor_get_height (cursor), ryx_cursor_get_hotspot_x (cursor), ryx_cursor_get_hotspot_y (cursor),
                   base64);
}

static std::string
describe_position (guint x, guint y)
{
  return format ("{\"type\":\"pointer\",\"x\":%u,\"y\":%u}", x, y);
}

/* The monitor reports at every look. */
void
Pointer::on_moved (Pointer *pointer, guint x, guint y)
{
  if (x == pointer->x && y == pointer->y)
    return;

  const guint32 mover = pointer->input->get_mover (x, y);
  pointer->x = x;
  pointer->y = y;
  pointer->streamer->tell (Topic::POINTER, describe_position (x, y), 0, mover);
  /* It may have heard of another's move after it made its own. */
  if (mover && pointer->was_told)
    pointer->streamer->tell (Topic::POINTER, "{\"type\":\"pointer\"}", mover);
  pointer->was_told = !mover;
}

void
Pointer::on_changed (Pointer *pointer, RyxCursor *cursor, gboolean is_new, guint64 evicted)
{
  if (evicted)
    pointer->streamer->tell (Topic::EVICTED_CURSOR,
                             format ("{\"type\":\"cursor-evicted\",\"id\":\"%" G_GUINT64_FORMAT "\"}", evicted));
  if (pointer->shown && ryx_cursor_get_id (pointer->shown) == ryx_cursor_get_id (cursor))
    return;

  g_clear_pointer (&pointer->shown, ryx_cursor_unref);
  pointer->shown = ryx_cursor_ref (cursor);
  pointer->streamer->tell (Topic::CURSOR, is_new ? define_cursor (cursor) : name_cursor (cursor) + "}");
}

void
Pointer::on_retrieved (Pointer *pointer, RyxCursor *cursor)
{
  /* Another one may have come into use meanwhile; when this one comes back, it is required again. */
  if (pointer->shown && ryx_cursor_get_id (pointer->shown) == ryx_cursor_get_id (cursor))
    pointer->streamer->tell (Topic::CURSOR, define_cursor (cursor), pointer->asking);
}

void
Pointer::introduce (guint32 client)
{
  if (!shown)
    return;

  streamer->tell (Topic::CURSOR, define_cursor (shown), client);
  if (x != nowhere)
    streamer->tell (Topic::POINTER, describe_position (x, y), client);
  was_told = true;
}

void
Pointer::require (guint32 client, const gchar *id)
{
  asking = client;
  ryx_pointer_monitor_require_cursor (monitor, g_ascii_strtoull (id, nullptr, 10));
}
