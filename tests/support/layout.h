#pragma once

#include <string>

#include <ryx/ryx.h>

#include "xserver.h"

std::string replace_all (std::string text, const std::string &from, const std::string &to);

/* The heads that the module's enumerator tells, as "NAME:ID WxH+X+Y, …", or its error's message. */
std::string enumerate_heads ();

/* Asks the module's layout manager for heads: "800x600+0+0 640x480+800+0". The error's message, "" when there is none.
 */
std::string request_layout (const char *geometries);

/* What the server itself says about its layout, to a client that has nothing to do with the one under test. */
class LayoutObserver
{
public:
  explicit LayoutObserver (XcbClient &asking_client) : client (asking_client) {}

  /* False: the server answered something with an error, or not in time. */
  bool look ();

  std::string heads;    /* "1440x600: DUMMY0 800x600+0+0, DUMMY1 640x480+800+0" */
  std::string mode_ids; /* of all CRTCs */
  std::string
    own_modes; /* what the layout manager has left, a line each: name@outputs clock: horizontal, vertical, flags */

  /* Brings the first outputs to heads of listed sizes, and takes away the layout manager's modes. */
  void arrange (const char *geometries);

private:
  XcbClient &client;
};
