#include "streamer.h"

#include <algorithm>
#include <utility>

#include "message.h"

Streamer::Streamer (Link *client_link) : link (client_link), thread (g_thread_new ("streamer", run, this)) {}

Streamer::~Streamer ()
{
  {
    const std::lock_guard lock (mutex);
    is_stopping = true;
  }
  work.notify_one ();
  g_thread_join (thread);
  for (auto &[id, source] : sources)
    g_clear_object (&source.frame);
}

static RyxFrameData *
get_image (RyxCapturedFrame *frame)
{
  return ryx_captured_frame_get_frame_data (frame);
}

/* A reader may see a new layout before or after the one who asks for heads. */
static bool
fits (RyxCapturedFrame *frame, const RyxRect &rect)
{
  return frame && ryx_frame_data_get_width (get_image (frame)) == rect.width
         && ryx_frame_data_get_height (get_image (frame)) == rect.height;
}

void
Streamer::mark_all (Client &client)
{
  client.pending.clear ();
  for (const auto &[id, source] : sources)
    if (fits (source.frame, source.rect))
      {
        RyxDiffmap *map = ryx_captured_frame_get_diffmap (source.frame);
        client.pending[id].assign (ryx_diffmap_get_columns (map) * ryx_diffmap_get_rows (map), 1);
      }
}

void
Streamer::add_client (guint32 id)
{
  std::unique_lock lock (mutex);
  Client &client = clients[id];

  client.texts[static_cast<gsize> (Topic::HEADS)] = heads_text;
  mark_all (client);
  wake (lock);
}

void
Streamer::remove_client (guint32 id)
{
  const std::lock_guard lock (mutex);
  clients.erase (id);
}

std::string
describe_heads (const std::vector<Head> &heads)
{
  std::string text;

  for (const Head &head : heads)
    text += format (",{\"id\":%u,\"name\":%s,\"x\":%d,\"y\":%d,\"width\":%u,\"height\":%u,\"primary\":%s}", head.id,
                    quote (head.name.c_str ()).c_str (), head.rect.x, head.rect.y, head.rect.width, head.rect.height,
                    head.primary ? "true" : "false");
  return format ("{\"type\":\"heads\",\"heads\":[%s]}", text.empty () ? "" : text.c_str () + 1);
}

void
Streamer::set_heads (const std::vector<Head> &heads)
{
  std::unique_lock lock (mutex);
  std::map<guint32, Source> old_sources = std::exchange (sources, {});

  for (const Head &head : heads)
    sources[head.id] = { head.rect, std::exchange (old_sources[head.id].frame, nullptr) };
  for (auto &[id, source] : old_sources)
    g_clear_object (&source.frame);

  heads_text = describe_heads (heads);
  for (auto &[id, client] : clients)
    {
      client.texts[static_cast<gsize> (Topic::HEADS)] = heads_text;
      mark_all (client);
    }
  wake (lock);
}

void
Streamer::take_frame (guint32 head, RyxCapturedFrame *frame)
{
  std::unique_lock lock (mutex);
  const auto found = sources.find (head);
  if (found == sources.end ())
    return;

  RyxDiffmap *map = ryx_captured_frame_get_diffmap (frame);
  const guint8 *marks = ryx_diffmap_get_marks (map);
  g_set_object (&found->second.frame, frame);
  for (auto &[id, client] : clients)
    {
      Marks &pending = client.pending[head];

      pending.resize (ryx_diffmap_get_columns (map) * ryx_diffmap_get_rows (map));
      std::transform (pending.begin (), pending.end (), marks, pending.begin (), std::bit_or ());
      if (!fits (frame, found->second.rect))
        client.pending.erase (head);
    }
  wake (lock);
}

void
Streamer::tell (Topic topic, const std::string &text, guint32 client, guint32 except)
{
  std::unique_lock lock (mutex);

  for (auto &[id, told] : clients)
    if (client ? id == client : id != except)
      told.texts[static_cast<gsize> (topic)] = text;
  wake (lock);
}

bool
Streamer::acknowledge (guint32 id, guint32 serial)
{
  std::unique_lock lock (mutex);
  const auto found = clients.find (id);
  if (found == clients.end ())
    return false;

  std::deque<guint32> &sent = found->second.unacknowledged;
  const auto acknowledged = std::find (sent.begin (), sent.end (), serial);
  if (acknowledged == sent.end ())
    return false;

  sent.erase (sent.begin (), acknowledged + 1);
  wake (lock);
  return true;
}

/* The first entry behind a key, and then from the beginning, that fits; end () when none does. */
template <typename Map, typename Predicate>
static auto
find_next (Map &map, guint32 key, Predicate fits)
{
  const auto next = std::find_if (map.upper_bound (key), map.end (), fits);

  return next != map.end () ? next : std::find_if (map.begin (), map.end (), fits);
}

/* What a client lacks of a head that may be sent now. */
std::map<guint32, Marks>::const_iterator
Streamer::choose_head (const Client &client) const
{
  const auto now = Clock::now ();

  return find_next (client.pending, client.last_head,
                    [&] (const auto &lacking) { return sources.at (lacking.first).due <= now; });
}

bool
Streamer::is_ready (const Client &client) const
{
  return client.unacknowledged.size () < most_unacknowledged
         && (choose_head (client) != client.pending.end ()
             || std::any_of (client.texts.begin (), client.texts.end (),
                             [] (const std::string &text) { return !text.empty (); }));
}

/* The thread, if there is work for it; it needs the lock. */
void
Streamer::wake (std::unique_lock<std::mutex> &lock)
{
  const bool has_work = choose_client () != clients.end ();

  lock.unlock ();
  if (has_work)
    work.notify_one ();
}

/* The client that has waited longest; end () when nobody can be served. */
std::map<guint32, Streamer::Client>::iterator
Streamer::choose_client ()
{
  return find_next (clients, last_served, [this] (const auto &entry) { return is_ready (entry.second); });
}

/* Serves one client, and with it all that lack the same of its next head; false when nobody can be served. */
bool
Streamer::plan_turn (Turn *turn)
{
  const auto chosen = choose_client ();
  if (chosen == clients.end ())
    return false;

  const auto lacking = choose_head (chosen->second);
  if (lacking != chosen->second.pending.end ())
    {
      turn->head = lacking->first;
      turn->marks = lacking->second;
      turn->frame = RYX_CAPTURED_FRAME (g_object_ref (sources[turn->head].frame));
    }

  turn->serial = ++last_serial;
  last_served = chosen->first;
  for (auto &[id, client] : clients)
    {
      const auto pending = client.pending.find (turn->head);
      const bool lacks_the_same = turn->frame && pending != client.pending.end () && pending->second == turn->marks;
      if (id != last_served && !(lacks_the_same && is_ready (client)))
        continue;

      for (std::string &text : client.texts)
        if (!text.empty ())
          turn->texts.emplace_back (id, std::exchange (text, {}));
      client.pending.erase (turn->head);
      client.last_head = turn->head;
      client.unacknowledged.push_back (turn->serial);
      turn->receivers.push_back (id);
    }
  return true;
}

/* Whether the update holds photographs. */
bool
Streamer::play_turn (const Turn &turn)
{
  bool has_photos;

  for (const auto &[id, text] : turn.texts)
    link->send (Kind::TEXT, id, text.c_str ());

  g_autoptr (GBytes) update = encoder.encode (turn.head, turn.serial, turn.frame, turn.marks, &has_photos);
  for (guint32 id : turn.receivers)
    link->send (Kind::UPDATE, id, g_bytes_get_data (update, nullptr), g_bytes_get_size (update));
  return has_photos;
}

/* Until there may be something to do. */
void
Streamer::wait (std::unique_lock<std::mutex> &lock)
{
  const auto now = Clock::now (), never = Clock::time_point::max ();
  auto next = never;

  for (const auto &[id, source] : sources)
    if (source.due > now)
      next = std::min (next, source.due);
  if (next == never)
    work.wait (lock);
  else
    work.wait_until (lock, next);
}

gpointer
Streamer::run (gpointer data)
{
  auto *streamer = static_cast<Streamer *> (data);
  std::unique_lock lock (streamer->mutex);

  while (!streamer->is_stopping)
    {
      Turn turn;

      if (streamer->plan_turn (&turn))
        {
          const auto start = Clock::now ();

          lock.unlock ();
          const bool has_photos = streamer->play_turn (turn);
          lock.lock ();
          const auto source = streamer->sources.find (turn.head);
          if (has_photos && source != streamer->sources.end ())
            source->second.due = start + photo_interval;
        }
      else
        streamer->wait (lock);
      g_clear_object (&turn.frame);
    }
  return nullptr;
}
