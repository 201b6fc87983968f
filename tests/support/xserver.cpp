#include "xserver.h"

#include <algorithm>
#include <memory>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <xcb/randr.h>
#include <xcb/xcbext.h>

static const char dummy_configuration[] = TEST_SUPPORT_DIR "/xorg-dummy.conf";

std::string
XServer::stand_in ()
{
  const char *wanted = getenv ("RYX_TEST_SERVER");
  return wanted ? wanted : "";
}

static XServer::Kind
server_in_place_of (XServer::Kind kind)
{
  const std::string stand_in = kind == XServer::XVFB ? XServer::stand_in () : "";
  return stand_in == "xvnc" ? XServer::XVNC : stand_in == "xephyr" ? XServer::XEPHYR : kind;
}

static const char *
program (XServer::Kind kind)
{
  /* Not the Xorg of $PATH: that is a wrapper which insists on a console. */
  static const char *const programs[] = { "/usr/bin/Xvfb", "/usr/lib/xorg/Xorg", "/usr/bin/Xvnc", "/usr/bin/Xephyr" };
  return programs[kind];
}

using Words = std::vector<std::string>;

static void
append (Words &words, const Words &more)
{
  words.insert (words.end (), more.begin (), more.end ());
}

/* The words that start a server as Xvfb's arguments say. */
static Words
server_command (XServer::Kind kind, Words arguments, const XServer *parent)
{
  Words command = { program (kind), "-displayfd", "3", "-noreset", "-nolisten", "tcp" };
  std::string screen = "1280x1024x24";

  if (kind == XServer::XORG_DUMMY)
    append (command, { "-config", dummy_configuration, "-logfile", "/dev/null", "-novtswitch", "-sharevts" });
  else if (const auto place = std::ranges::find (arguments, "-screen"); place != arguments.end ())
    {
      screen = place[2];
      arguments.erase (place, place + 3);
    }
  const size_t depth = screen.rfind ('x');
  if (kind == XServer::XVFB)
    append (command, { "-screen", "0", screen });
  else if (kind == XServer::XVNC)
    append (command, { "-geometry", screen.substr (0, depth), "-depth", screen.substr (depth + 1), "-rfbport", "-1",
                       "-SecurityTypes", "None" });
  else if (kind == XServer::XEPHYR)
    {
      append (command, { "-screen", screen, "-no-host-grab" });
      command.insert (command.begin (), { "/usr/bin/env", std::string ("DISPLAY=") + parent->display () });
    }
  append (command, arguments);
  return command;
}

XServer::XServer (Kind kind, const Words &arguments)
{
  kind = server_in_place_of (kind);
  if (kind == XEPHYR)
    {
      parent.reset (new XServer);
      parent->start (server_command (XVFB, {}, nullptr));
    }
  start (server_command (kind, arguments, parent.get ()));
}

void
XServer::start (Words command)
{
  std::vector<char *> argv;
  for (auto &argument : command)
    argv.push_back (argument.data ());
  argv.push_back (nullptr);

  const int output = memfd_create ("server output", MFD_CLOEXEC);
  const pid_t parent = getpid ();
  int ready[2];
  if (output < 0 || pipe2 (ready, O_CLOEXEC) != 0)
    g_error ("No descriptors for a server: %s", g_strerror (errno));
  process = fork ();
  if (process == 0)
    {
      dup2 (output, STDOUT_FILENO);
      dup2 (output, STDERR_FILENO);
      dup2 (fcntl (ready[1], F_DUPFD, 4), 3); /* a copy: it would stay closed on exec if it had that number already */
      setsid ();                              /* an interrupt from the terminal is for the test */
      prctl (PR_SET_PDEATHSIG, SIGTERM);
      if (getppid () == parent)
        execv (argv[0], argv.data ());
      _exit (127);
    }

  char text[4096];
  close (ready[1]);
  while (process > 0 && read (ready[0], text, 1) == 1 && g_ascii_isdigit (text[0]))
    number += text[0];
  close (ready[0]);
  if (number.empty ())
    g_error ("%s did not start: %.*s", argv[0], int (pread (output, text, sizeof text, 0)), text);
  close (output);
  name = ":" + number;
}

void
XServer::kill ()
{
  if (process <= 0)
    return;
  /* As long as the server lives nobody else takes its display number, so its socket's name goes first. (A server that
   * was started with -displayfd has no lock file.) */
  unlink (("/tmp/.X11-unix/X" + number).c_str ());
  ::kill (process, SIGKILL);
  while (waitpid (process, nullptr, 0) < 0 && errno == EINTR)
    ;
  process = 0;
}

static GdkDisplay *
open_gdk_display (const char *name)
{
  static const bool parsed = (gdk_parse_args (nullptr, nullptr), true);
  GdkDisplay *display = parsed ? gdk_display_open (name) : nullptr;

  if (!display)
    g_error ("GDK cannot open display %s", name);
  return display;
}

GdkDisplayScope::GdkDisplayScope (const char *name)
    : display (open_gdk_display (name)), previous (gdk_display_get_default ()),
      previous_name (g_getenv ("DISPLAY") ? g_getenv ("DISPLAY") : "")
{
  gdk_display_manager_set_default_display (gdk_display_manager_get (), display);
  g_setenv ("DISPLAY", name, TRUE);
}

GdkDisplayScope::~GdkDisplayScope ()
{
  gdk_display_manager_set_default_display (gdk_display_manager_get (), previous);
  gdk_display_close (display);
  g_setenv ("DISPLAY", previous_name.c_str (), TRUE);
}

static xcb_screen_t *
first_screen (xcb_connection_t *conn)
{
  return xcb_connection_has_error (conn) ? nullptr : xcb_setup_roots_iterator (xcb_get_setup (conn)).data;
}

XcbClient::XcbClient (const char *display)
    : conn (xcb_connect (display, nullptr)), screen (first_screen (conn)), root (screen ? screen->root : XCB_NONE)
{
}

bool
XcbClient::round_trip (unsigned timeout_ms)
{
  const auto cookie = xcb_get_input_focus (conn);
  struct pollfd ready = { xcb_get_file_descriptor (conn), POLLIN, 0 };
  void *reply = nullptr;
  xcb_generic_error_t *error = nullptr;

  xcb_flush (conn);
  while (!xcb_poll_for_reply (conn, cookie.sequence, &reply, &error))
    if (poll (&ready, 1, timeout_ms) == 0)
      {
        xcb_discard_reply (conn, cookie.sequence);
        return false;
      }
  free (error);
  return XOwned<void> (reply) != nullptr;
}

std::vector<uint32_t>
XcbClient::outputs () const
{
  if (!xcb_get_extension_data (conn, &xcb_randr_id)->present)
    return {};
  const auto resources = X_REPLY (conn, randr_get_screen_resources, root);
  const auto *ids = xcb_randr_get_screen_resources_outputs (resources.get ());
  return { ids, ids + xcb_randr_get_screen_resources_outputs_length (resources.get ()) };
}

static gboolean
keep_ticking (gpointer)
{
  return G_SOURCE_CONTINUE;
}

bool
wait_until (const std::function<bool ()> &condition, unsigned timeout_ms)
{
  const gint64 deadline = g_get_monotonic_time () + gint64 (timeout_ms) * 1000;
  /* What the condition looks at need not wake the context: look again every few milliseconds. */
  const guint ticks = g_timeout_add (5, keep_ticking, nullptr);
  bool holds;

  while (!(holds = condition ()) && g_get_monotonic_time () < deadline)
    g_main_context_iteration (nullptr, TRUE);
  g_source_remove (ticks);
  return holds;
}
