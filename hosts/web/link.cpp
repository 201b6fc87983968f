#include "link.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <glib-unix.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

static constexpr gsize most_kept = 1 << 20;
static constexpr guint32 most_payload = 256 << 20;

Link::Link (int descriptor, gint priority, Handlers link_handlers)
    : fd (descriptor), handlers (std::move (link_handlers)), kept (g_byte_array_new ())
{
  g_autoptr (GSource) source = g_unix_fd_source_new (fd, static_cast<GIOCondition> (G_IO_IN | G_IO_HUP));

  g_source_set_callback (source, G_SOURCE_FUNC (on_input), this, nullptr);
  g_source_set_priority (source, priority);
  /* Nothing here does; but to keep others from it, the main loop wakes itself up twice for each message. */
  g_source_set_can_recurse (source, TRUE);
  input_source = g_source_attach (source, nullptr);
}

Link::~Link ()
{
  g_clear_handle_id (&input_source, g_source_remove);
  g_clear_handle_id (&room_source, g_source_remove);
  g_byte_array_unref (kept);
  g_free (payload);
  close (fd);
}

void
Link::send (Kind kind, guint32 client, const void *data, gsize length)
{
  const std::lock_guard lock (sending);
  Header sent = { static_cast<guint32> (length), client, kind };
  struct iovec parts[] = { { &sent, sizeof sent }, { const_cast<void *> (data), length } };
  struct msghdr message = {};
  message.msg_iov = parts;
  message.msg_iovlen = 2;

  while (parts[0].iov_len + parts[1].iov_len > 0)
    {
      gssize n_sent = sendmsg (fd, &message, MSG_NOSIGNAL);
      if (n_sent < 0 && errno == EINTR)
        continue;
      if (n_sent < 0)
        return; /* the other end is gone, and the main loop hears of it */
      for (struct iovec &part : parts)
        {
          const gsize n = MIN (static_cast<gsize> (n_sent), part.iov_len);
          part.iov_base = static_cast<guint8 *> (part.iov_base) + n;
          part.iov_len -= n;
          n_sent -= n;
        }
    }
}

void
Link::send (Kind kind, guint32 client, const gchar *text)
{
  send (kind, client, text, strlen (text));
}

gboolean
Link::post (Kind kind, guint32 client, const void *data, gsize length)
{
  const Header posted = { static_cast<guint32> (length), client, kind };

  if (kind == Kind::TEXT && kept->len + length > most_kept)
    return FALSE;
  g_byte_array_append (kept, reinterpret_cast<const guint8 *> (&posted), sizeof posted);
  g_byte_array_append (kept, static_cast<const guint8 *> (data), length);
  if (room_source == 0)
    flush ();
  return TRUE;
}

void
Link::flush ()
{
  const gssize n_sent = ::send (fd, kept->data, kept->len, MSG_NOSIGNAL | MSG_DONTWAIT);

  if (n_sent > 0)
    g_byte_array_remove_range (kept, 0, n_sent);
  if (kept->len > 0 && room_source == 0 && (n_sent >= 0 || errno == EAGAIN || errno == EINTR))
    room_source = g_unix_fd_add (fd, G_IO_OUT, on_room, this);
}

gboolean
Link::on_room (gint, GIOCondition, gpointer data)
{
  auto *link = static_cast<Link *> (data);

  link->flush ();
  if (link->kept->len > 0)
    return G_SOURCE_CONTINUE;
  link->room_source = 0;
  return G_SOURCE_REMOVE;
}

void
Link::finish ()
{
  shutdown (fd, SHUT_WR);
}

/* Fills a part of the message that begins at @offset of it; false when that has to go on later. */
bool
Link::receive_part (void *part, gsize size, gsize offset)
{
  while (n_received < offset + size)
    {
      const gssize n
        = recv (fd, static_cast<guint8 *> (part) + n_received - offset, offset + size - n_received, MSG_DONTWAIT);
      if (n < 0 && errno == EINTR)
        continue;
      is_over = n == 0 || (n < 0 && errno != EAGAIN);
      if (n <= 0)
        return false;
      n_received += n;
    }
  return true;
}

gboolean
Link::receive ()
{
  if (receive_part (&header, sizeof header, 0))
    {
      if (!payload)
        payload = static_cast<guint8 *> (g_malloc (MIN (header.length, most_payload) + 1));
      if (receive_part (payload, MIN (header.length, most_payload), sizeof header))
        {
          g_autoptr (GBytes) bytes = g_bytes_new_take (std::exchange (payload, nullptr), header.length);
          n_received = 0;
          handlers.message (header.kind, header.client, bytes);
        }
    }
  return !is_over;
}

gboolean
Link::on_input (gint, GIOCondition, gpointer data)
{
  auto *link = static_cast<Link *> (data);

  if (link->receive ())
    return G_SOURCE_CONTINUE;
  link->input_source = 0;
  link->handlers.ended ();
  return G_SOURCE_REMOVE;
}
