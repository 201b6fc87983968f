#pragma once

#include <X11/Xlib-xcb.h>
#include <gdk/gdk.h>
#include <gdk/gdkx.h>
#include <xcb/xcb.h>

/* GDK's default X display; NULL when there is none, which gdk_x11_get_default_xdisplay () does not look for. */
inline Display *
get_default_xdisplay (void)
{
  return gdk_display_get_default () ? gdk_x11_get_default_xdisplay () : nullptr;
}

/* The connection behind GDK's default display, borrowed; NULL when there is none or it broke. */
inline xcb_connection_t *
get_xcb_connection (void)
{
  Display *xdisplay = get_default_xdisplay ();
  if (!xdisplay)
    return nullptr;

  xcb_connection_t *conn = XGetXCBConnection (xdisplay);
  return xcb_connection_has_error (conn) ? nullptr : conn;
}

class ServerGrab
{
public:
  ServerGrab () { gdk_x11_grab_server (); }
  ~ServerGrab () { gdk_x11_ungrab_server (); }
  ServerGrab (const ServerGrab &) = delete;
  ServerGrab &operator= (const ServerGrab &) = delete;
};

/* Brackets Xlib calls: their X errors are taken by pop (), or let go with the guard. Traps nest.
 *
 * GDK's own trap takes the errors that have arrived when it is popped, but those of requests without a reply arrive
 * later, outside of it, and end the process. So the outermost trap waits for the server while requests are unanswered.
 * The inner ones don't wait: what their last requests met with shows in the trap around them. */
class ErrorTrap
{
public:
  ErrorTrap ()
  {
    depth++;
    gdk_error_trap_push ();
  }
  ~ErrorTrap ()
  {
    if (!popped)
      pop ();
  }
  ErrorTrap (const ErrorTrap &) = delete;
  ErrorTrap &operator= (const ErrorTrap &) = delete;

  /* The code of an X error that arrived since the trap was set, 0 for none. */
  int
  pop ()
  {
    popped = true;
    if (--depth == 0)
      await_answers ();
    return gdk_error_trap_pop ();
  }

private:
  static void
  await_answers ()
  {
    Display *xdisplay = get_default_xdisplay ();
    if (xdisplay && XLastKnownRequestProcessed (xdisplay) + 1 != XNextRequest (xdisplay))
      XSync (xdisplay, False);
  }

  inline static unsigned depth = 0;
  bool popped = false;
};
