#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <stdlib.h>
#include <sys/types.h>

#include <gdk/gdk.h>
#include <xcb/xcb.h>

/* A private X server on a free display. It starts in the constructor and is gone, sockets and all, with the object;
 * it ends as well when the test process dies. A server that cannot be started ends the test program. */
class XServer
{
public:
  enum Kind
  {
    XVFB,       /* one output; the screen is 1280x1024x24 unless the arguments hold "-screen" */
    XORG_DUMMY, /* sixteen outputs, two of them connected; modes can be created */
    XVNC,       /* in place of Xvfb when RYX_TEST_SERVER is "xvnc", with the same arguments, */
    XEPHYR      /* or "xephyr"; the tests that these can't run are skipped */
  };

  explicit XServer (Kind kind, const std::vector<std::string> &arguments = {});
  ~XServer () { kill (); }
  XServer (const XServer &) = delete;

  /* What starts in Xvfb's place, "xvnc" or "xephyr"; "" when that is Xvfb. */
  static std::string stand_in ();

  const char *
  display () const
  {
    return name.c_str ();
  }
  pid_t
  pid () const
  {
    return process;
  }

  /* No farewell: the server's clients see their connections break. */
  void kill ();

private:
  XServer () = default;
  void start (std::vector<std::string> command);

  std::unique_ptr<XServer> parent; /* whose window the screen is, for Xephyr */
  pid_t process = 0;
  std::string number, name; /* "57", ":57" */
};

/* While it lives, `display` is GDK's default display and $DISPLAY. Xlib ends the process when it loses a connection, so
 * the server must outlive this object. */
class GdkDisplayScope
{
public:
  explicit GdkDisplayScope (const char *display);
  ~GdkDisplayScope ();
  GdkDisplayScope (const GdkDisplayScope &) = delete;

  GdkDisplay *const display;

private:
  GdkDisplay *const previous;
  const std::string previous_name;
};

/* A connection of its own, to look at the server from the side. */
class XcbClient
{
public:
  explicit XcbClient (const char *display);
  ~XcbClient () { xcb_disconnect (conn); }
  XcbClient (const XcbClient &) = delete;

  /* Everything sent so far is done. False: the connection is broken, or the server did not answer in time, as when
   * another client holds a server grab. */
  bool round_trip (unsigned timeout_ms = 10000);

  /* RandR's, in its order; none without RandR. */
  std::vector<uint32_t> outputs () const;

  xcb_connection_t *const conn;
  xcb_screen_t *const screen; /* NULL when the connection was refused */
  const xcb_window_t root;
};

/* What xcb hands over; X_REPLY makes a round trip and has the reply, or NULL. */
struct XDeleter
{
  void
  operator() (void *memory) const
  {
    free (memory);
  }
};
template <typename T> using XOwned = std::unique_ptr<T, XDeleter>;
#define X_REPLY(conn, request, ...)                                                                                    \
  XOwned<xcb_##request##_reply_t> (                                                                                    \
    xcb_##request##_reply (conn, xcb_##request (conn __VA_OPT__ (, ) __VA_ARGS__), nullptr))

/* Runs the default main context until the condition holds. Its last value. */
bool wait_until (const std::function<bool ()> &condition, unsigned timeout_ms = 10000);
