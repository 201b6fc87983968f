#pragma once

#include <functional>
#include <mutex>

#include <gio/gio.h>

/* What the gate and the session tell one another, mostly about one client. */
enum class Kind : guint32
{
  CONNECTED,    /* to the session: a client came */
  DISCONNECTED, /* to the session: it is gone */
  CONTROL,      /* to the session: its input counts from now on, and nobody else's; client 0: nobody's */
  TEXT,         /* both ways: a JSON message of or to a client; client 0: to all */
  UPDATE,       /* to the gate: pixels for a client */
  REFUSE,       /* to the gate: end the connection of a client whose messages mean nothing, saying why */
  READY,        /* to the gate: the display is open */
  LOG,          /* to the gate: a line for the log */
  HELD,         /* to the gate, to be kept for the next session: the keys and buttons that are down */
};

/* One end of the socket pair between the gate and the session: whole messages, each with a kind and a client. */
class Link
{
public:
  struct Handlers
  {
    /* Messages arrive one per turn of the main loop, so that what has a better priority comes between. */
    std::function<void (Kind kind, guint32 client, GBytes *payload)> message;
    std::function<void ()> ended; /* the other end is gone; once */
  };

  /* Takes the descriptor. */
  Link (int descriptor, gint priority, Handlers link_handlers);
  ~Link ();
  Link (const Link &) = delete;
  Link &operator= (const Link &) = delete;

  /* Waits until the message is on its way. Any thread. */
  void send (Kind kind, guint32 client, const void *data, gsize length);
  void send (Kind kind, guint32 client, const gchar *text);

  /* Never waits: what the other end does not take yet is kept. FALSE when too much has to be kept already, then nothing
   * of this message is. One thread. */
  gboolean post (Kind kind, guint32 client, const void *data, gsize length);

  /* Lets the other end know that nothing more comes. */
  void finish ();

private:
  struct Header
  {
    guint32 length;
    guint32 client;
    Kind kind;
  };

  static gboolean on_input (gint descriptor, GIOCondition condition, gpointer link);
  static gboolean on_room (gint descriptor, GIOCondition condition, gpointer link);
  gboolean receive ();
  bool receive_part (void *part, gsize size, gsize offset);
  void flush ();

  const int fd;
  const Handlers handlers;
  std::mutex sending;
  guint input_source, room_source = 0;
  GByteArray *kept; /* posted, not yet taken */
  Header header = {};
  gsize n_received = 0; /* of the header and the payload behind it */
  guint8 *payload = nullptr;
  bool is_over = false;
};
