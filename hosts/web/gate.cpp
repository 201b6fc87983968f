#include "ryxweb.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <utility>

#include <glib-unix.h>
#include <libsoup/soup.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "door.h"
#include "link.h"

/* Of a client's message, in bytes: what is answered, and what is read before the connection is cut without a word. */
static constexpr gsize most_text = 4096, most_payload = 65536;
/* Of each client; twice as many at once. */
static constexpr gdouble most_texts_per_second = 1000;
static constexpr gint64 least_pong_interval = G_USEC_PER_SEC / 2;
/* What a client sends beside whole messages, in bytes: frames and records, at once and per message and second. More
 * than that are pieces of a message that never ends, or pings: libsoup keeps the ones and answers the others without
 * limit. */
static constexpr guint64 most_unaccounted = 256 << 10, most_per_message = 64, most_per_second = 100;
static constexpr gsize most_ping = 128;
/* Of who controls and holds something down: a page says four times a second that it is there. */
static constexpr gint64 longest_silence = 750 * (G_USEC_PER_SEC / 1000), least_silence_check = G_USEC_PER_SEC / 20;
/* Before another session is started, and for one to come to its end. */
static constexpr guint least_pause_ms = 250, most_pause_ms = 2000, parting_ms = 5000;

static constexpr gushort close_try_again_later = 1013;

class Gate;

struct GateClient
{
  Gate *const gate;
  const guint32 id;
  SoupWebsocketConnection *const socket;
  GSocket *const connection; /* below it */
  guint64 accounted = most_unaccounted;
  gdouble allowance = 2 * most_texts_per_second; /* of messages */
  gint64 last_text = g_get_monotonic_time (), last_pong = 0;

  GateClient (Gate *client_gate, guint32 client_id, SoupWebsocketConnection *client_socket, GSocket *client_connection)
      : gate (client_gate), id (client_id), socket (client_socket), connection (client_connection)
  {
    g_object_ref (socket);
    g_object_ref (connection);
  }
  ~GateClient ()
  {
    g_signal_handlers_disconnect_by_data (socket, this);
    g_object_unref (socket);
    g_object_unref (connection);
  }
  GateClient (const GateClient &) = delete;
  GateClient &operator= (const GateClient &) = delete;
};

/* What browsers talk to. It never talks to the X server, so whatever happens there, sockets are answered; what it can't
 * do itself it passes on to the session, a process that may end at any time. */
class Gate
{
public:
  Gate ();
  ~Gate ();
  Gate (const Gate &) = delete;
  Gate &operator= (const Gate &) = delete;

  int run (GError **error);

private:
  static void on_text (SoupWebsocketConnection *socket, gint type, GBytes *text, gpointer client);
  static void on_closed (SoupWebsocketConnection *socket, gpointer client);
  static void on_session_exit (GObject *process, GAsyncResult *result, gpointer gate);
  static gboolean on_silence (gpointer gate);
  static gboolean on_flood_check (gpointer gate);
  static gboolean on_signal (gpointer gate);

  gboolean start_session (GError **error);
  void end_session ();
  void start_session_later ();
  void take (Kind kind, guint32 client, GBytes *payload);
  void take_ready ();
  void keep_held (GBytes *payload);
  gint64 get_silence_end () const;
  void await_silence ();
  void take_socket (SoupWebsocketConnection *socket, GSocket *connection);
  void tell_role (const GateClient &client);
  void tell_all (const gchar *text);
  void take_text (GateClient &client, GBytes *text);
  void choose_controller ();

  GMainLoop *const loop;
  Door door;
  std::map<guint32, GateClient> clients; /* in the order of their coming */
  guint32 last_id = 0, controller = 0;

  std::unique_ptr<Link> link; /* to the session; both are empty while there is none */
  GSubprocess *session = nullptr;
  GBytes *held = nullptr; /* as the session said last */
  bool is_ready = false, was_ready = false, is_ending = false;
  guint pause_ms = least_pause_ms;
  guint pause_source = 0, silence_source = 0, flood_source = 0;
  int exit_status = EXIT_DONE;
};

Gate::Gate ()
    : loop (g_main_loop_new (nullptr, FALSE)),
      door ({ .has_room = [this] { return clients.size () < static_cast<gsize> (options.max_clients); },
              .socket
              = [this] (SoupWebsocketConnection *socket, GSocket *connection) { take_socket (socket, connection); } })
{
}

Gate::~Gate ()
{
  g_clear_handle_id (&pause_source, g_source_remove);
  g_clear_handle_id (&silence_source, g_source_remove);
  g_clear_handle_id (&flood_source, g_source_remove);
  g_clear_pointer (&held, g_bytes_unref);
  g_clear_object (&session);
  g_main_loop_unref (loop);
}

/* Clients */

static bool
is_open (const GateClient &client)
{
  return soup_websocket_connection_get_state (client.socket) == SOUP_WEBSOCKET_STATE_OPEN;
}

static void
tell (const GateClient &client, const gchar *text)
{
  if (is_open (client))
    soup_websocket_connection_send_text (client.socket, text);
}

static void
refuse (const GateClient &client, gushort code, const gchar *sentence)
{
  if (is_open (client))
    soup_websocket_connection_close (client.socket, code, sentence);
}

void
Gate::take_socket (SoupWebsocketConnection *socket, GSocket *connection)
{
  /* Several may have been let in before the first of them arrives here. */
  if (clients.size () >= static_cast<gsize> (options.max_clients))
    return soup_websocket_connection_close (socket, close_try_again_later, "Too many clients");

  const guint32 id = ++last_id;
  GateClient &client = clients.try_emplace (id, this, id, socket, connection).first->second;
  if (flood_source == 0)
    flood_source = g_timeout_add_seconds (1, on_flood_check, this);

  soup_websocket_connection_set_max_incoming_payload_size (socket, most_payload);
  g_signal_connect (socket, "message", G_CALLBACK (on_text), &client);
  g_signal_connect (socket, "closed", G_CALLBACK (on_closed), &client);

  tell (client, is_ready ? "{\"type\":\"session\",\"state\":\"up\"}" : "{\"type\":\"session\",\"state\":\"lost\"}");
  if (is_ready)
    link->post (Kind::CONNECTED, id, nullptr, 0);
  choose_controller ();
  if (controller != id)
    tell_role (client);
}

void
Gate::on_closed (SoupWebsocketConnection *, gpointer data)
{
  const auto *client = static_cast<GateClient *> (data);
  const guint32 id = client->id;
  Gate *gate = client->gate;

  gate->clients.erase (id);
  if (gate->is_ready)
    gate->link->post (Kind::DISCONNECTED, id, nullptr, 0);
  gate->choose_controller ();
}

void
Gate::on_text (SoupWebsocketConnection *, gint type, GBytes *text, gpointer data)
{
  auto *client = static_cast<GateClient *> (data);
  const gint64 now = g_get_monotonic_time ();
  const gdouble earned = (now - client->last_text) * most_texts_per_second / G_USEC_PER_SEC;

  client->accounted += g_bytes_get_size (text) + most_per_message;
  client->allowance = MIN (client->allowance + earned, 2 * most_texts_per_second) - 1;
  client->last_text = now;
  if (!is_open (*client))
    return; /* refused, and not heard of it yet */
  if (type != SOUP_WEBSOCKET_DATA_TEXT)
    refuse (*client, SOUP_WEBSOCKET_CLOSE_UNSUPPORTED_DATA, "Messages are texts");
  else if (g_bytes_get_size (text) > most_text)
    refuse (*client, SOUP_WEBSOCKET_CLOSE_TOO_BIG, "The message is too big");
  else if (client->allowance < 0)
    refuse (*client, SOUP_WEBSOCKET_CLOSE_POLICY_VIOLATION, "Too many messages");
  else
    client->gate->take_text (*client, text);
}

static guint64
get_received (GSocket *connection)
{
  struct tcp_info info = {};
  socklen_t length = sizeof info;

  getsockopt (g_socket_get_fd (connection), IPPROTO_TCP, TCP_INFO, &info, &length);
  return info.tcpi_bytes_received;
}

gboolean
Gate::on_flood_check (gpointer data)
{
  auto *gate = static_cast<Gate *> (data);

  for (auto &[id, client] : gate->clients)
    {
      client.accounted += most_per_second;
      if (get_received (client.connection) > client.accounted) /* it may not read what it is told */
        g_socket_shutdown (client.connection, TRUE, TRUE, nullptr);
    }
  if (!gate->clients.empty ())
    return G_SOURCE_CONTINUE;
  gate->flood_source = 0;
  return G_SOURCE_REMOVE;
}

/* A ping comes back as a pong from here, so that it tells about the network only. */
void
Gate::take_text (GateClient &client, GBytes *text)
{
  static const gchar ping[] = "{\"type\":\"ping\"";
  const auto *data = static_cast<const gchar *> (g_bytes_get_data (text, nullptr));
  const gsize length = g_bytes_get_size (text);

  if (length > strlen (ping) && strncmp (data, ping, strlen (ping)) == 0)
    {
      if (client.last_text - client.last_pong < least_pong_interval || length > most_ping)
        return;
      g_autofree gchar *pong
        = g_strdup_printf ("{\"type\":\"pong\"%.*s", static_cast<int> (length - strlen (ping)), data + strlen (ping));
      client.last_pong = client.last_text;
      tell (client, pong);
    }
  else if (is_ready && !link->post (Kind::TEXT, client.id, data, length))
    refuse (client, close_try_again_later, "The session does not answer");
}

void
Gate::tell_role (const GateClient &client)
{
  g_autofree gchar *role
    = g_strdup_printf ("{\"type\":\"role\",\"control\":%s,\"view_only\":%s}",
                       client.id == controller ? "true" : "false", options.view_only ? "true" : "false");
  tell (client, role);
}

void
Gate::tell_all (const gchar *text)
{
  for (auto &[id, client] : clients)
    tell (client, text);
}

/* Whoever came first. */
void
Gate::choose_controller ()
{
  const guint32 chosen = clients.empty () || options.view_only ? 0 : clients.begin ()->first;
  if (chosen == controller)
    return;

  controller = chosen;
  if (is_ready)
    link->post (Kind::CONTROL, controller, nullptr, 0);
  if (controller)
    tell_role (clients.at (controller));
}

/* The session */

gboolean
Gate::start_session (GError **error)
{
  int pair[2];
  if (socketpair (AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
    {
      g_set_error (error, G_IO_ERROR, G_IO_ERROR_FAILED, "Cannot talk to a session: %s", g_strerror (errno));
      return FALSE;
    }

  g_autoptr (GSubprocessLauncher) launcher = g_subprocess_launcher_new (G_SUBPROCESS_FLAGS_NONE);
  g_autoptr (GStrvBuilder) argv = g_strv_builder_new ();
  /* This very program, also when another version has taken its place. */
  g_strv_builder_add_many (argv, "/proc/self/exe", "--session", "3",
                           options.restore_layout ? "--restore-layout" : "--no-restore-layout", nullptr);
  if (options.module_dir)
    g_strv_builder_add_many (argv, "--module-dir", options.module_dir, nullptr);
  if (options.debug || options.verbose)
    g_strv_builder_add (argv, options.debug ? "--debug" : "--verbose");

  /* Readers open connections of their own to the display that the environment names. */
  if (options.display)
    g_subprocess_launcher_setenv (launcher, "DISPLAY", options.display, TRUE);
  g_subprocess_launcher_take_fd (launcher, pair[1], 3);
  link = std::make_unique<Link> (
    pair[0], G_PRIORITY_DEFAULT,
    Link::Handlers{ [this] (Kind kind, guint32 client, GBytes *payload) { take (kind, client, payload); },
                    [this] { end_session (); } });

  g_auto (GStrv) words = g_strv_builder_end (argv);
  session = g_subprocess_launcher_spawnv (launcher, const_cast<const gchar *const *> (words), error);
  if (!session)
    link.reset ();
  return session != nullptr;
}

void
Gate::take (Kind kind, guint32 id, GBytes *payload)
{
  const auto *data = static_cast<const gchar *> (g_bytes_get_data (payload, nullptr));
  const gsize length = g_bytes_get_size (payload);
  g_autofree gchar *text = kind == Kind::UPDATE ? nullptr : g_strndup (data, length);
  const auto found = clients.find (id);

  if (kind == Kind::READY)
    take_ready ();
  else if (kind == Kind::LOG)
    {
      /* A display that is not back yet is no news. */
      if (is_ready || !was_ready || options.verbose || options.debug)
        g_printerr ("%s", text);
    }
  else if (kind == Kind::HELD)
    keep_held (payload);
  else if (found == clients.end () || !is_open (found->second))
    return;
  else if (kind == Kind::UPDATE)
    soup_websocket_connection_send_binary (found->second.socket, data, length);
  else if (kind == Kind::TEXT)
    tell (found->second, text);
  else if (kind == Kind::REFUSE)
    refuse (found->second, SOUP_WEBSOCKET_CLOSE_POLICY_VIOLATION, text);
}

/* The keys and buttons that the session holds down. */
void
Gate::keep_held (GBytes *payload)
{
  g_clear_pointer (&held, g_bytes_unref);
  if (g_bytes_get_size (payload) > 0)
    held = g_bytes_ref (payload);
  if (held && silence_source == 0)
    await_silence ();
}

/* When the controller will have been silent for too long. */
gint64
Gate::get_silence_end () const
{
  const auto found = clients.find (controller);

  return longest_silence + (found == clients.end () ? g_get_monotonic_time () : found->second.last_text);
}

/* What has arrived is read first, also after this process stood still. */
void
Gate::await_silence ()
{
  const gint64 left = MAX (get_silence_end () - g_get_monotonic_time (), least_silence_check);

  silence_source = g_timeout_add_full (G_PRIORITY_LOW, left / 1000 + 1, on_silence, this, nullptr);
}

/* A network that dies without a word leaves its connection open for half a minute. */
gboolean
Gate::on_silence (gpointer data)
{
  static const gchar release[] = "{\"type\":\"release\"}";
  auto *gate = static_cast<Gate *> (data);

  gate->silence_source = 0;
  if (!gate->held)
    return G_SOURCE_REMOVE;
  if (!gate->is_ready || g_get_monotonic_time () < gate->get_silence_end ())
    {
      gate->await_silence ();
      return G_SOURCE_REMOVE;
    }

  gate->link->post (Kind::TEXT, gate->controller, release, strlen (release));
  tell (gate->clients.at (gate->controller), "{\"type\":\"released\"}");
  return G_SOURCE_REMOVE;
}

void
Gate::take_ready ()
{
  if (!was_ready)
    {
      g_print ("%s\n", door.get_address ().c_str ());
      fflush (stdout);
    }
  was_ready = is_ready = true;
  pause_ms = least_pause_ms;

  if (held)
    link->post (Kind::HELD, 0, g_bytes_get_data (held, nullptr), g_bytes_get_size (held));
  tell_all ("{\"type\":\"session\",\"state\":\"up\"}");
  for (auto &[id, client] : clients)
    link->post (Kind::CONNECTED, id, nullptr, 0);
  link->post (Kind::CONTROL, controller, nullptr, 0);
}

/* All that it said has been read. */
void
Gate::end_session ()
{
  if (is_ready)
    tell_all ("{\"type\":\"session\",\"state\":\"lost\"}");
  is_ready = false;
  g_subprocess_wait_async (session, nullptr, on_session_exit, this);
}

void
Gate::on_session_exit (GObject *, GAsyncResult *result, gpointer data)
{
  auto *gate = static_cast<Gate *> (data);
  g_autoptr (GSubprocess) session = std::exchange (gate->session, nullptr);

  gate->link.reset ();
  g_subprocess_wait_finish (session, result, nullptr);
  const bool has_exited = g_subprocess_get_if_exited (session);

  if (gate->was_ready && !gate->is_ending)
    return gate->start_session_later ();
  if (!gate->was_ready)
    gate->exit_status = has_exited ? g_subprocess_get_exit_status (session) : static_cast<int> (EXIT_FAILED);
  g_main_loop_quit (gate->loop);
}

void
Gate::start_session_later ()
{
  pause_source = g_timeout_add (
    pause_ms,
    [] (gpointer data) -> gboolean {
      auto *gate = static_cast<Gate *> (data);
      g_autoptr (GError) error = nullptr;

      gate->pause_source = 0;
      if (!gate->start_session (&error))
        {
          g_warning ("Cannot start a session: %s", error->message);
          gate->start_session_later ();
        }
      return G_SOURCE_REMOVE;
    },
    this);
  pause_ms = MIN (2 * pause_ms, most_pause_ms);
}

/* The program */

/* The session ends first, so that nothing stays down and the layout comes back. */
gboolean
Gate::on_signal (gpointer data)
{
  auto *gate = static_cast<Gate *> (data);
  const auto quit = [] (gpointer loop) -> gboolean {
    g_main_loop_quit (static_cast<GMainLoop *> (loop));
    return G_SOURCE_REMOVE;
  };

  gate->is_ending = true;
  for (auto &[id, client] : gate->clients)
    refuse (client, SOUP_WEBSOCKET_CLOSE_GOING_AWAY, "ryx-web has ended");
  if (gate->link)
    gate->link->finish ();
  g_timeout_add (gate->link ? parting_ms : 0, quit, gate->loop);
  return G_SOURCE_CONTINUE;
}

int
Gate::run (GError **error)
{
  if (!door.open (error) || !start_session (error))
    return EXIT_FAILED;

  for (int signal_number : { SIGINT, SIGTERM, SIGHUP })
    g_unix_signal_add (signal_number, on_signal, this);
  g_main_loop_run (loop);
  return exit_status;
}

int
run_gate (GError **error)
{
  Gate gate;

  return gate.run (error);
}
