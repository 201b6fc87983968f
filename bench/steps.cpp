/* The steps that no capture can do without, one at a time on a screen that was just drawn and copied: what each costs
 * this process and the X server with the process id given, in microseconds of CPU time. Prints a line of JSON: a list
 * of costs per step. The memory steps go through as many frames in turn as a reader keeps: one to compare with and one
 * being made.
 */

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>
#include <time.h>
#include <vector>

#include <sys/mman.h>
#include <sys/shm.h>
#include <xcb/shm.h>

#include "xserver.h"

struct Cost
{
  double own, server;
};

static double
read_clock (clockid_t clock)
{
  timespec time;
  clock_gettime (clock, &time);
  return time.tv_sec * 1e6 + time.tv_nsec / 1e3;
}

/* The server goes on for a moment after its answer. */
static void
let_server_rest ()
{
  std::this_thread::sleep_for (std::chrono::milliseconds (1));
}

class Screen
{
public:
  explicit Screen (pid_t server_pid) : client (nullptr)
  {
    clock_getcpuclockid (server_pid, &server_clock);
    width = client.screen->width_in_pixels, height = client.screen->height_in_pixels;
    size = size_t{ 4 } * width * height;

    const int id = shmget (IPC_PRIVATE, size, IPC_CREAT | 0600);
    pixels = static_cast<uint8_t *> (shmat (id, nullptr, 0));
    segment = xcb_generate_id (conn), pixmap = xcb_generate_id (conn), gc = xcb_generate_id (conn);
    xcb_shm_attach (conn, segment, static_cast<uint32_t> (id), 0);
    xcb_shm_create_pixmap (conn, pixmap, client.root, width, height, client.screen->root_depth, segment, 0);
    const uint32_t values[] = { XCB_SUBWINDOW_MODE_INCLUDE_INFERIORS, 0 };
    xcb_create_gc (conn, gc, client.root, XCB_GC_SUBWINDOW_MODE | XCB_GC_GRAPHICS_EXPOSURES, values);
    client.round_trip ();
    shmctl (id, IPC_RMID, nullptr);

    for (auto &frame : frames)
      {
        frame = static_cast<uint8_t *> (aligned_alloc (2 << 20, (size + (2 << 20) - 1) / (2 << 20) * (2 << 20)));
        madvise (frame, size, MADV_HUGEPAGE);
        memset (frame, 1, size);
      }
  }

  void
  draw_and_copy ()
  {
    const uint32_t colour = turn++ * 0x9e3779b1 | 1;
    const xcb_rectangle_t everything = { 0, 0, width, height };
    xcb_change_gc (conn, gc, XCB_GC_FOREGROUND, &colour);
    xcb_poly_fill_rectangle (conn, client.root, gc, 1, &everything);
    copy_area ();
  }

  Cost
  measure (const std::function<void ()> &step)
  {
    let_server_rest ();
    const double own = read_clock (CLOCK_THREAD_CPUTIME_ID), server = read_clock (server_clock);
    step ();
    const double own_end = read_clock (CLOCK_THREAD_CPUTIME_ID);
    let_server_rest ();
    return { own_end - own, read_clock (server_clock) - server };
  }

  void
  copy_area ()
  {
    free (xcb_request_check (conn, xcb_copy_area_checked (conn, client.root, pixmap, gc, 0, 0, 0, 0, width, height)));
  }
  void
  get_image ()
  {
    X_REPLY (conn, shm_get_image, client.root, 0, 0, width, height, ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment, 0);
  }
  void
  copy_memory ()
  {
    copied = frames[turn % frames.size ()];
    memcpy (copied, pixels, size);
  }
  void
  compare_memory ()
  {
    if (memcmp (copied, pixels, size) != 0)
      abort ();
  }
  void
  round_trip ()
  {
    X_REPLY (conn, get_input_focus);
  }

private:
  XcbClient client;
  xcb_connection_t *const conn = client.conn;
  clockid_t server_clock;
  uint16_t width, height;
  size_t size;
  uint8_t *pixels;
  std::array<uint8_t *, 2> frames;
  uint8_t *copied = nullptr; /* the frame that is equal to the pixels */
  xcb_shm_seg_t segment;
  xcb_pixmap_t pixmap;
  xcb_gcontext_t gc;
  uint32_t turn = 1;
};

int
main (int argc, char **argv)
{
  if (argc != 3)
    return fprintf (stderr, "Usage: steps SERVER-PID TURNS\n"), 2;

  Screen screen (atoi (argv[1]));
  const struct
  {
    const char *name;
    void (Screen::*run) ();
    bool is_on_new_pixels = true;
  } steps[] = {
    { "CopyArea, checked", &Screen::copy_area },  { "memcpy", &Screen::copy_memory },
    { "memcmp", &Screen::compare_memory, false }, { "ShmGetImage", &Screen::get_image },
    { "empty round trip", &Screen::round_trip },
  };
  std::array<std::vector<Cost>, std::size (steps)> costs;

  for (int turn = -2; turn < atoi (argv[2]); turn++)
    for (size_t i = 0; i < costs.size (); i++)
      {
        if (steps[i].is_on_new_pixels)
          screen.draw_and_copy ();
        const Cost cost = screen.measure ([&] { (screen.*steps[i].run) (); });
        if (turn >= 0)
          costs[i].push_back (cost);
      }

  for (size_t i = 0; i < costs.size (); i++)
    {
      printf ("%s\"%s\": [", i == 0 ? "{" : ", ", steps[i].name);
      for (const Cost &cost : costs[i])
        printf ("%s[%.1f, %.1f]", &cost == &costs[i][0] ? "" : ", ", cost.own, cost.server);
      printf ("]");
    }
  printf ("}\n");
  return 0;
}
