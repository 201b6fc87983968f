#pragma once

#include "input.h"
#include "streamer.h"

/* Tells clients what the session's pointer looks like and, unless they moved it themselves, where it is. */
class Pointer
{
public:
  /* Takes the monitor. */
  Pointer (RyxPointerMonitor *pointer_monitor, const Input *client_input, Streamer *text_streamer);
  ~Pointer ();
  Pointer (const Pointer &) = delete;
  Pointer &operator= (const Pointer &) = delete;

  void start ();
  void stop ();

  /* Tells a client that is new all that the others know. */
  void introduce (guint32 client);

  /* The client lacks the picture of this cursor. */
  void require (guint32 client, const gchar *id);

private:
  static constexpr guint nowhere = G_MAXUINT; /* before the first look */

  static void on_moved (Pointer *pointer, guint x, guint y);
  static void on_changed (Pointer *pointer, RyxCursor *cursor, gboolean is_new, guint64 evicted);
  static void on_retrieved (Pointer *pointer, RyxCursor *cursor);

  RyxPointerMonitor *const monitor;
  const Input *const input;
  Streamer *const streamer;
  RyxCursor *shown = nullptr; /* NULL before the first */
  guint x = nowhere, y = nowhere;
  bool was_told = false; /* also to who moves it, since its own last move */
  guint32 asking = 0;    /* who required the cursor that is being retrieved */
};
