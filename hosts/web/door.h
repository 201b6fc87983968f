#pragma once

#include <functional>
#include <string>

#include <libsoup/soup.h>

#include "access.h"

/* The way in: listens where the options say, hands out the page, and lets through the sockets of those who may come in.
 */
class Door
{
public:
  struct Handlers
  {
    std::function<bool ()> has_room;
    std::function<void (SoupWebsocketConnection *socket, GSocket *connection)> socket; /* a new one; borrowed */
  };

  explicit Door (Handlers door_handlers);
  ~Door ();
  Door (const Door &) = delete;
  Door &operator= (const Door &) = delete;

  gboolean open (GError **error);

  /* What the user opens in the browser. */
  std::string get_address () const;

private:
  static void on_early_request (SoupServer *server, SoupServerMessage *message, const char *path, GHashTable *query,
                                gpointer door);
  static void on_request (SoupServer *server, SoupServerMessage *message, const char *path, GHashTable *query,
                          gpointer door);
  static void on_socket (SoupServer *server, SoupServerMessage *message, const char *path,
                         SoupWebsocketConnection *socket, gpointer door);
  gboolean listen (GError **error);

  const Handlers handlers;
  SoupServer *const server;
  Access access;
};
