#include "door.h"

#include <cstring>

#include <netinet/in.h>
#include <netinet/tcp.h>

#include "message.h"
#include "ryxweb.h"

Door::Door (Handlers door_handlers)
    : handlers (std::move (door_handlers)), server (soup_server_new ("server-header", "ryx-web", nullptr))
{
  /* Pictures are compressed. */
  soup_server_remove_websocket_extension (server, SOUP_TYPE_WEBSOCKET_EXTENSION_DEFLATE);
  /* A path with a handler of its own is not seen by that of the others. */
  for (const char *path : { "/", "/session" })
    soup_server_add_early_handler (server, path, on_early_request, this, nullptr);
  soup_server_add_handler (server, nullptr, on_request, this, nullptr);
  soup_server_add_websocket_handler (server, "/session", nullptr, nullptr, on_socket, this, nullptr);
}

Door::~Door ()
{
  soup_server_disconnect (server);
  g_object_unref (server);
}

void
Door::on_early_request (SoupServer *, SoupServerMessage *message, const char *path, GHashTable *, gpointer data)
{
  auto *door = static_cast<Door *> (data);

  if (!door->access.check (message, soup_server_message_get_uri (message)))
    return;
  if (g_str_has_prefix (path, "/session") && !door->handlers.has_room ()) /* what is below it is taken for it */
    soup_server_message_set_status (message, SOUP_STATUS_SERVICE_UNAVAILABLE, "Too many clients");
}

/* The client's files are compiled in. */
void
Door::on_request (SoupServer *, SoupServerMessage *message, const char *path, GHashTable *, gpointer)
{
  g_autofree gchar *name
    = g_strconcat ("/com/quorlane/ryx/web", g_str_equal (path, "/") ? "/index.html" : path, nullptr);
  g_autoptr (GBytes) file = g_resources_lookup_data (name, G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
  const gchar *type = g_str_has_suffix (name, ".html")  ? "text/html; charset=utf-8"
                      : g_str_has_suffix (name, ".css") ? "text/css; charset=utf-8"
                      : g_str_has_suffix (name, ".svg") ? "image/svg+xml"
                                                        : "text/javascript; charset=utf-8";

  if (!file)
    return soup_server_message_set_status (message, SOUP_STATUS_NOT_FOUND, nullptr);

  soup_message_headers_set_content_type (soup_server_message_get_response_headers (message), type, nullptr);
  soup_message_body_append_bytes (soup_server_message_get_response_body (message), file);
  soup_server_message_set_status (message, SOUP_STATUS_OK, nullptr);
}

/* A machine that vanished is noticed by the kernel, which asks for it only when nothing is on the way to it. */
static void
set_socket_options (GSocket *socket)
{
  g_socket_set_keepalive (socket, TRUE);
  g_socket_set_option (socket, IPPROTO_TCP, TCP_NODELAY, 1, nullptr);
  g_socket_set_option (socket, IPPROTO_TCP, TCP_KEEPIDLE, 10, nullptr);
  g_socket_set_option (socket, IPPROTO_TCP, TCP_KEEPINTVL, 5, nullptr);
  g_socket_set_option (socket, IPPROTO_TCP, TCP_KEEPCNT, 3, nullptr);
  g_socket_set_option (socket, IPPROTO_TCP, TCP_USER_TIMEOUT, 25000, nullptr);
}

void
Door::on_socket (SoupServer *, SoupServerMessage *message, const char *, SoupWebsocketConnection *socket, gpointer data)
{
  GSocket *connection = soup_server_message_get_socket (message);
  if (!connection)
    return; /* it has gone already */

  set_socket_options (connection);
  static_cast<Door *> (data)->handlers.socket (socket, connection);
}

static gboolean
fail_usage (GError **error, const gchar *sentence)
{
  g_set_error_literal (error, PROGRAM_ERROR, EXIT_USAGE, sentence);
  return FALSE;
}

gboolean
Door::listen (GError **error)
{
  g_autoptr (GInetAddress) address = g_inet_address_new_from_string (options.listen ? options.listen : "127.0.0.1");

  if (!address)
    return fail_usage (error, "--listen needs an IP address");
  if (options.port < 0 || options.port > G_MAXUINT16)
    return fail_usage (error, "--port must be from 0 to 65535");
  if (options.max_clients < 1)
    return fail_usage (error, "--max-clients must be at least 1");
  if (!options.tls_cert != !options.tls_key)
    return fail_usage (error, "--tls-cert and --tls-key go together");
  if (!options.tls_cert && !options.insecure && !g_inet_address_get_is_loopback (address))
    return fail_usage (error, "other machines can connect at this address: it needs --tls-cert and --tls-key, or "
                              "--insecure");

  if (options.tls_cert)
    {
      g_autoptr (GTlsCertificate) certificate
        = g_tls_certificate_new_from_files (options.tls_cert, options.tls_key, error);
      if (!certificate)
        return FALSE;
      soup_server_set_tls_certificate (server, certificate);
    }

  g_autoptr (GSocketAddress) place = g_inet_socket_address_new (address, options.port);
  const int transport = options.tls_cert ? SOUP_SERVER_LISTEN_HTTPS : 0;
  return soup_server_listen (server, place, static_cast<SoupServerListenOptions> (transport), error);
}

gboolean
Door::open (GError **error)
{
  return listen (error) && access.open (error);
}

std::string
Door::get_address () const
{
  GSList *sockets = soup_server_get_listeners (server);
  g_autoptr (GSocketAddress) place = g_socket_get_local_address (static_cast<GSocket *> (sockets->data), nullptr);
  GInetAddress *address = g_inet_socket_address_get_address (G_INET_SOCKET_ADDRESS (place));
  g_autofree gchar *number = g_inet_address_to_string (address);
  const gchar *host = g_inet_address_get_is_any (address) ? g_get_host_name () : number;

  g_slist_free (sockets);
  return format (strchr (host, ':') ? "%s://[%s]:%u/?token=%s" : "%s://%s:%u/?token=%s",
                 options.tls_cert ? "https" : "http", host,
                 g_inet_socket_address_get_port (G_INET_SOCKET_ADDRESS (place)), access.get_token ().c_str ());
}
