#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <ryx/ryx.h>

#include "encoder.h"
#include "link.h"

struct Head
{
  guint32 id;
  std::string name;
  RyxRect rect;
  bool primary;
};

/* As the message that tells a client of them. */
std::string describe_heads (const std::vector<Head> &heads);

/* What a client is told beside pixels. Of each sort the newest text waits for its turn, and takes the place of an older
 * one: a client that is slow misses what is over. */
enum class Topic
{
  HEADS,
  MESSAGE,
  EVICTED_CURSOR,
  CURSOR,
  POINTER,
};

/* Brings the heads' pictures and a few texts to each client at the pace of its acknowledgements. They are encoded from
 * the newest frame at the time of sending, and once for all clients that lack the same blocks: by whoever brings the
 * frame, or by a thread of its own when clients could not take it at once. What a client has not been sent yet costs a
 * byte per block, however long it takes. */
class Streamer
{
public:
  explicit Streamer (Link *client_link);
  ~Streamer ();
  Streamer (const Streamer &) = delete;
  Streamer &operator= (const Streamer &) = delete;

  /* Any thread. */
  void add_client (guint32 client);
  void remove_client (guint32 client);
  void set_heads (const std::vector<Head> &new_heads);
  void take_frame (guint32 head, RyxCapturedFrame *frame);

  /* client 0: all but @except. */
  void tell (Topic topic, const std::string &text, guint32 client = 0, guint32 except = 0);

  /* False when the client was not sent that. */
  bool acknowledge (guint32 client, guint32 serial);

private:
  using Clock = std::chrono::steady_clock;

  static constexpr gsize most_unacknowledged = 2;
  static constexpr auto photo_interval = std::chrono::milliseconds (30);
  static constexpr auto never = Clock::time_point::max ();
  static constexpr gsize n_topics = 5;

  struct Source
  {
    RyxRect rect;
    RyxCapturedFrame *frame;    /* the newest; NULL before the first */
    Clock::time_point due = {}; /* not before then: moving pictures need no more */
  };

  struct Client
  {
    std::deque<guint32> unacknowledged;
    std::map<guint32, Marks> pending; /* per head, what it lacks; no entry: nothing */
    std::array<std::string, n_topics> texts;
    guint32 last_head = 0;
  };

  /* One update, and the texts that go before it. */
  struct Turn
  {
    guint32 head = 0, serial = 0;
    Marks marks;
    RyxCapturedFrame *frame = nullptr; /* NULL: there are only texts */
    std::vector<std::pair<guint32, std::string>> texts;
    std::vector<guint32> receivers;
  };

  static gpointer run (gpointer streamer);
  void wake (std::unique_lock<std::mutex> &lock);
  bool plan_turn (Turn *turn);
  bool play_turn (const Turn &turn);
  bool serve (std::unique_lock<std::mutex> &lock);
  void wait (std::unique_lock<std::mutex> &lock);
  std::map<guint32, Marks>::const_iterator choose_head (const Client &client, Clock::time_point now) const;
  Clock::time_point get_due (const Client &client) const;
  Clock::time_point get_due () const;
  void mark_all (Client &client);

  Link *const link;
  std::mutex mutex; /* of all that follows */
  std::condition_variable work;
  std::map<guint32, Source> sources;
  std::map<guint32, Client> clients;
  std::string heads_text;
  guint32 last_served = 0, last_serial = 0;
  bool is_stopping = false;
  bool is_playing = false;          /* a thread has the encoder */
  Clock::time_point next_look = {}; /* of the thread, while it waits */
  Encoder encoder;
  GThread *thread;
};
