#pragma once

#include <map>
#include <memory>
#include <string>

#include <json-glib/json-glib.h>

#include "capturethread.h"
#include "streamer.h"

/* The heads of the session, each with a reader while somebody watches, and their layout: follows it, changes it, and
 * brings back the one that was found. */
class Screen
{
public:
  explicit Screen (Streamer *frame_streamer);
  ~Screen ();
  Screen (const Screen &) = delete;
  Screen &operator= (const Screen &) = delete;

  gboolean open (GError **error);

  void start_readers ();
  void stop_readers ();

  /* Asks for the heads of a client's message; FALSE with @error set when they can't be had. */
  gboolean request (JsonObject *message, GError **error);

  /* Comes back to the layout that was there before the first request. */
  void restore ();

private:
  static void on_change (Screen *screen);
  gboolean read_layout (GError **error);
  void find_original ();
  void set_original (const std::string &layout);
  void start_reader (guint32 head);
  void retry (guint32 head, const GError *error);
  void follow_heads ();

  Streamer *const streamer;
  GObject *enumerator = nullptr, *manager = nullptr;
  std::vector<Head> heads;
  std::string original; /* a layout message; empty: nothing was changed */
  std::map<guint32, std::unique_ptr<CaptureThread>> readers;
  std::vector<guint32> failed_readers;
  guint retry_source = 0;
  bool is_watched = false;
};
