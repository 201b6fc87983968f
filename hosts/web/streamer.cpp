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
  serve (lock); /* here: another thread would have to be woken for it */
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
Streamer::choose_head (const Client &client, Clock::time_point now) const
{
  return find_next (client.pending, client.last_head,
                    [&] (const auto &lacking) { return sources.at (lacking.first).due <= now; });
}

/* When a client may be served. */
Streamer::Clock::time_point
Streamer::get_due (const Client &client) const
{
  auto due = never;

  if (client.unacknowledged.size () >= most_unacknowledged)
    return never;
  if (std::any_of (client.texts.begin (), client.texts.end (), [] (const std::string &text) { return !text.empty (); }))
    return {};
  for (const auto &[head, marks] : client.pending)
    due = std::min (due, sources.at (head).due);
  return due;
}

/* When there is something to do; never while another thread does it. */
Streamer::Clock::time_point
Streamer::get_due () const
{
  auto due = never;

  if (!is_playing)
    for (const auto &[id, client] : clients)
      due = std::min (due, get_due (client));
  return due;
}

/* The thread, if it has to look sooner than it will by itself; it needs the lock. */
void
Streamer::wake (std::unique_lock<std::mutex> &lock)
{
  const bool is_needed = get_due () < next_look;

  lock.unlock ();
  if (is_needed)
    work.notify_one ();
}

/* Serves one client, and with it all that lack the same of its next head; false when nobody can be served. */
bool
Streamer::plan_turn (Turn *turn)
{
  const auto now = Clock::now ();
  const auto is_ready = [&] (const auto &entry) { return get_due (entry.second) <= now; };
  const auto chosen = find_next (clients, last_served, is_ready);
  if (chosen == clients.end ())
    return false;

  const auto lacking = choose_head (chosen->second, now);
  if (lacking != chosen->second.pending.end ())
    {
      turn->head = lacking->first;
      turn->marks = lacking->second;
      turn->frame = RYX_CAPTURED_FRAME (g_object_ref (sources[turn->head].frame));
    }

  turn->serial = last_serial = (last_serial + 1) & G_MAXINT; /* JSON's reader has no more bits */
  last_served = chosen->first;
  for (auto &entry : clients)
    {
      auto &[id, client] = entry;
      const auto pending = client.pending.find (turn->head);
      const bool lacks_the_same = turn->frame && pending != client.pending.end () && pending->second == turn->marks;
      if (id != last_served && !(lacks_the_same && is_ready (entry)))
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

/* Serves who waits, unless another thread does; false when there is nothing to do. */
bool
Streamer::serve (std::unique_lock<std::mutex> &lock)
{
  Turn turn;
  if (is_playing || !plan_turn (&turn))
    return false;

  const auto start = Clock::now ();
  is_playing = true;
  lock.unlock ();
  const bool has_photos = play_turn (turn);
  g_clear_object (&turn.frame);
  lock.lock ();
  is_playing = false;

  const auto source = sources.find (turn.head);
  if (has_photos && source != sources.end ())
    source->second.due = start + photo_interval;
  return true;
}

/* Until there may be something to do. */
void
Streamer::wait (std::unique_lock<std::mutex> &lock)
{
  next_look = get_due ();
  if (next_look == never)
    work.wait (lock);
  else
    work.wait_until (lock, next_look);
  next_look = {};
}

gpointer
Streamer::run (gpointer data)
{
  auto *streamer = static_cast<Streamer *> (data);
  std::unique_lock lock (streamer->mutex);

  while (!streamer->is_stopping)
    if (!streamer->serve (lock))
      streamer->wait (lock);
  return nullptr;
}
