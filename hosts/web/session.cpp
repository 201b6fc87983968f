#include "ryxweb.h"

#include <csignal>

#include <glib-unix.h>

#include "input.h"
#include "link.h"
#include "message.h"
#include "pointer.h"
#include "screen.h"
#include "streamer.h"

/* A page that is reloaded leaves and comes back. */
static constexpr guint farewell_ms = 2000;
static constexpr guint most_mistakes = 20;

/* Everything that talks to the X server, as the gate tells it. GDK ends this process when the server goes; the gate
 * starts another one. */
class Session
{
public:
  Session ();
  ~Session ();
  Session (const Session &) = delete;
  Session &operator= (const Session &) = delete;

  int run ();

private:
  gboolean open (GError **error);
  void take (Kind kind, guint32 client, GBytes *payload);
  void add_client (guint32 client);
  void remove_client (guint32 client);
  void take_text (guint32 client, GBytes *text);
  bool obey (guint32 client, const gchar *type, JsonObject *message);
  void change_layout ();
  void await_farewell ();

  GMainLoop *const loop;
  Link link;
  Streamer streamer;
  Screen screen;
  std::unique_ptr<Input> input;
  std::unique_ptr<Pointer> pointer;
  std::map<guint32, guint> mistakes; /* of each client */
  guint farewell_source = 0, layout_source = 0;
  guint32 layout_client = 0;
  JsonObject *wanted_layout = nullptr;
};

static Link *log_link;

Session::Session ()
    : loop (g_main_loop_new (nullptr, FALSE)),
      link (options.session, G_PRIORITY_DEFAULT + 10, /* what GDK reads comes first: keyboard maps that have changed */
            { .message = [this] (Kind kind, guint32 client, GBytes *payload) { take (kind, client, payload); },
              .ended = [this] { g_main_loop_quit (loop); } }),
      streamer (&link), screen (&streamer)
{
  /* A terminal on the display can't take a line while the server is grabbed. */
  log_link = &link;
  log_sink = [] (const gchar *line) { log_link->send (Kind::LOG, 0, line); };
}

Session::~Session ()
{
  g_clear_handle_id (&farewell_source, g_source_remove);
  g_clear_handle_id (&layout_source, g_source_remove);
  g_clear_pointer (&wanted_layout, json_object_unref);
  log_sink = nullptr;
  g_main_loop_unref (loop);
}

static std::string
to_string (GBytes *payload)
{
  return { static_cast<const gchar *> (g_bytes_get_data (payload, nullptr)), g_bytes_get_size (payload) };
}

gboolean
Session::open (GError **error)
{
  if (!load_modules (options.module_dir, error) || !open_display (nullptr, error) || !screen.open (error))
    return FALSE;

  auto *injector
    = static_cast<RyxInputInjector *> (ryx_host_create (RYX_INPUT_INJECTOR_EXTENSION_POINT, nullptr, error, nullptr));
  if (!injector)
    return FALSE;
  input = std::make_unique<Input> (injector, [this] (const gchar *held) { link.send (Kind::HELD, 0, held); });

  auto *monitor
    = static_cast<RyxPointerMonitor *> (ryx_host_create (RYX_POINTER_MONITOR_EXTENSION_POINT, nullptr, error, nullptr));
  if (!monitor)
    return FALSE;
  pointer = std::make_unique<Pointer> (monitor, input.get (), &streamer);
  await_farewell ();
  return TRUE;
}

int
Session::run ()
{
  g_autoptr (GError) error = nullptr;
  if (!open (&error))
    {
      link.send (Kind::LOG, 0, format ("ryx-web: %s\n", error->message).c_str ());
      return get_exit_status (error);
    }

  const auto on_signal = [] (gpointer ending_loop) -> gboolean {
    g_main_loop_quit (static_cast<GMainLoop *> (ending_loop));
    return G_SOURCE_CONTINUE;
  };
  for (int signal_number : { SIGINT, SIGTERM, SIGHUP })
    g_unix_signal_add (signal_number, on_signal, loop);

  link.send (Kind::READY, 0, "");
  g_main_loop_run (loop);
  input->set_controller (0);
  screen.stop_readers ();
  screen.restore ();
  return EXIT_DONE;
}

void
Session::take (Kind kind, guint32 client, GBytes *payload)
{
  switch (kind)
    {
    case Kind::CONNECTED:
      return add_client (client);
    case Kind::DISCONNECTED:
      return remove_client (client);
    case Kind::CONTROL:
      return input->set_controller (client);
    case Kind::TEXT:
      return take_text (client, payload);
    case Kind::HELD:
      if (g_autoptr (JsonObject) held = parse_message (to_string (payload)))
        input->release_left (held);
      return;
    default:
      g_warning ("The gate says what only a session does: %u", static_cast<guint32> (kind));
    }
}

void
Session::add_client (guint32 client)
{
  g_clear_handle_id (&farewell_source, g_source_remove);
  if (mistakes.empty ())
    {
      screen.start_readers ();
      pointer->start ();
    }
  mistakes[client] = 0;
  streamer.add_client (client);
  pointer->introduce (client);
}

void
Session::remove_client (guint32 client)
{
  streamer.remove_client (client);
  mistakes.erase (client);
  if (!mistakes.empty ())
    return;

  pointer->stop ();
  screen.stop_readers ();
  await_farewell ();
}

void
Session::await_farewell ()
{
  const auto on_timeout = [] (gpointer data) -> gboolean {
    auto *session = static_cast<Session *> (data);

    session->farewell_source = 0;
    session->screen.restore ();
    return G_SOURCE_REMOVE;
  };

  g_clear_handle_id (&farewell_source, g_source_remove);
  farewell_source = g_timeout_add (farewell_ms, on_timeout, this);
}

void
Session::take_text (guint32 client, GBytes *text)
{
  if (!mistakes.contains (client))
    return;

  g_autoptr (JsonObject) message = parse_message (to_string (text));
  const bool is_understood = message && obey (client, get_text (message, "type"), message);

  if (!is_understood && mistakes[client]++ == most_mistakes)
    link.send (Kind::REFUSE, client, "Too many messages that mean nothing");
}

/* False for what is no message. */
bool
Session::obey (guint32 client, const gchar *type, JsonObject *message)
{
  if (g_str_equal (type, "ack"))
    return streamer.acknowledge (client, get_number (message, "serial"));
  if (g_str_equal (type, "require-cursor"))
    {
      pointer->require (client, get_text (message, "id"));
      return true;
    }
  if (!input->is_controller (client))
    return true; /* it may not know yet that it lost control */
  if (!g_str_equal (type, "layout"))
    return input->play (type, message);

  g_clear_pointer (&wanted_layout, json_object_unref);
  wanted_layout = json_object_ref (message);
  layout_client = client;
  if (layout_source == 0)
    layout_source = g_idle_add (
      [] (gpointer session) -> gboolean {
        static_cast<Session *> (session)->change_layout ();
        return G_SOURCE_REMOVE;
      },
      this);
  return true;
}

/* Only the newest of the layouts that a client has asked for in the meantime. */
void
Session::change_layout ()
{
  g_autoptr (GError) error = nullptr;

  layout_source = 0;
  if (!screen.request (wanted_layout, &error))
    streamer.tell (Topic::MESSAGE, describe_message (error->message), layout_client);
  g_clear_pointer (&wanted_layout, json_object_unref);
}

int
run_session ()
{
  return Session ().run ();
}
