#pragma once

#include <memory>

#include <glib.h>

/* Wakes readers that wait for something to be drawn: reports one pixel of the screen as damaged, without
 * drawing. Every reader of the display returns from its grab, with a tiny frame or an empty one. */
class ReaderWaker
{
public:
  /* Connects to the display that $DISPLAY names, over a connection of its own; NULL with @error set when that
   * fails, with G_IO_ERROR_NOT_SUPPORTED when the display can't report damage (then no reader waits for any). */
  static std::unique_ptr<ReaderWaker> connect (GError **error);
  ~ReaderWaker ();
  ReaderWaker (const ReaderWaker &) = delete;
  ReaderWaker &operator= (const ReaderWaker &) = delete;

  /* Any thread, one at a time. */
  void wake ();

private:
  struct Connection;
  explicit ReaderWaker (std::unique_ptr<Connection> connection);

  std::unique_ptr<Connection> connection;
};
