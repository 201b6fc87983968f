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

/* Brackets Xlib calls: their X errors are taken by pop (), or let go with the guard. */
class ErrorTrap
{
public:
  ErrorTrap () { gdk_error_trap_push (); }
  ~ErrorTrap ()
  {
    if (!popped)
      gdk_error_trap_pop ();
  }
  ErrorTrap (const ErrorTrap &) = delete;
  ErrorTrap &operator= (const ErrorTrap &) = delete;

  /* The X error code of the bracketed requests, 0 for none. Waits for the server. */
  int
  pop ()
  {
    popped = true;
    return gdk_error_trap_pop ();
  }

private:
  bool popped = false;
};
