/* Draws on the screen of $DISPLAY, as steadily as asked: COUNT rectangles of WIDTHxHEIGHT pixels, in another colour
 * RATE times a second, spread over the screen in as many columns as rows. It ends when it is killed. */

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>
#include <time.h>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "xserver.h"

struct Costs
{
  static constexpr size_t N_KEPT = 1023;
  uint64_t n_draws;
  uint64_t nanoseconds[N_KEPT]; /* of draw n at n modulo their number */
};

static Costs *
map_costs (const char *path)
{
  const int fd = open (path, O_RDWR | O_CREAT, 0644);
  if (fd < 0 || ftruncate (fd, sizeof (Costs)) != 0)
    g_error ("%s can't be written", path);
  return static_cast<Costs *> (mmap (nullptr, sizeof (Costs), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
}

static uint64_t
read_clock (clockid_t clock)
{
  timespec time;
  clock_gettime (clock, &time);
  return time.tv_sec * 1000000000u + time.tv_nsec;
}

static std::vector<xcb_rectangle_t>
spread (const xcb_screen_t *screen, unsigned width, unsigned height, unsigned count)
{
  const auto columns = static_cast<unsigned> (std::ceil (std::sqrt (count)));
  std::vector<xcb_rectangle_t> rectangles;

  for (unsigned i = 0; i < count; i++)
    {
      const unsigned x = i % columns * screen->width_in_pixels / columns;
      const unsigned y = i / columns * screen->height_in_pixels / columns;
      rectangles.push_back ({ static_cast<int16_t> (x), static_cast<int16_t> (y),
                              static_cast<uint16_t> (std::min<unsigned> (width, screen->width_in_pixels - x)),
                              static_cast<uint16_t> (std::min<unsigned> (height, screen->height_in_pixels - y)) });
    }
  return rectangles;
}

int
main (int argc, char **argv)
{
  unsigned width, height, count, rate;
  if (argc != 6 || sscanf (argv[1], "%ux%u", &width, &height) != 2 || sscanf (argv[2], "%u", &count) != 1
      || sscanf (argv[3], "%u", &rate) != 1 || rate == 0)
    return fprintf (stderr, "Usage: painter WIDTHxHEIGHT COUNT RATE SERVER-PID COSTS\n"), 2;

  clockid_t server_clock;
  clock_getcpuclockid (atoi (argv[4]), &server_clock);
  Costs *costs = map_costs (argv[5]);
  XcbClient client (nullptr);
  const auto rectangles = spread (client.screen, width, height, count);
  const xcb_window_t window = xcb_generate_id (client.conn);
  const xcb_gcontext_t gc = xcb_generate_id (client.conn);
  const uint32_t window_values[] = { 0, 1 };
  xcb_create_window (client.conn, XCB_COPY_FROM_PARENT, window, client.root, 0, 0, client.screen->width_in_pixels,
                     client.screen->height_in_pixels, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                     XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, window_values);
  xcb_map_window (client.conn, window);
  xcb_create_gc (client.conn, gc, window, 0, nullptr);

  auto next = std::chrono::steady_clock::now ();
  for (uint32_t tick = 1; !xcb_connection_has_error (client.conn); tick++)
    {
      const uint32_t colour = tick * 0x9e3779b1 | 1;
      const uint64_t start = read_clock (server_clock);
      xcb_grab_server (client.conn); /* nobody else is served until the clock was read again */
      xcb_change_gc (client.conn, gc, XCB_GC_FOREGROUND, &colour);
      for (const xcb_rectangle_t &rectangle : rectangles) /* of one request, Damage tells the bounding box */
        xcb_poly_fill_rectangle (client.conn, window, gc, 1, &rectangle);
      client.round_trip ();
      costs->nanoseconds[costs->n_draws % Costs::N_KEPT] = read_clock (server_clock) - start;
      costs->n_draws++;
      xcb_ungrab_server (client.conn);
      xcb_flush (client.conn);

      next += std::chrono::nanoseconds (1000000000 / rate);
      std::this_thread::sleep_until (next);
    }
  return 1;
}
