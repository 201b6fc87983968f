/* What goes on in a session, until it is killed: "typing" puts a character on the screen ten times a second,
 * "scrolling" a line of text below 40 others fifteen times, "video" moves coloured clouds in 640x360 pixels 25 times,
 * and "echo" changes the colour of a square whenever a key goes down. */

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "xserver.h"

class Scene : XcbClient
{
public:
  Scene () : XcbClient (nullptr)
  {
    const uint32_t window_values[] = { 0xffffff, 1, XCB_EVENT_MASK_KEY_PRESS };
    xcb_create_window (conn, XCB_COPY_FROM_PARENT, window, root, 0, 0, WIDTH, HEIGHT, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                       XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK,
                       window_values);
    xcb_map_window (conn, window);
    xcb_open_font (conn, font, 5, "10x20");
    const uint32_t gc_values[] = { 0, 0xffffff, font, 0 };
    xcb_create_gc (conn, gc, window, XCB_GC_FOREGROUND | XCB_GC_BACKGROUND | XCB_GC_FONT | XCB_GC_GRAPHICS_EXPOSURES,
                   gc_values);
    xcb_set_input_focus (conn, XCB_INPUT_FOCUS_POINTER_ROOT, window, XCB_CURRENT_TIME);
    round_trip ();
  }

  int
  run (const std::string &name)
  {
    if (name == "typing")
      run_steadily (10, &Scene::type_character);
    else if (name == "scrolling")
      run_steadily (15, &Scene::scroll_line);
    else if (name == "video")
      run_steadily (25, &Scene::show_picture);
    else if (name == "echo")
      echo ();
    return 1;
  }

private:
  static constexpr uint16_t WIDTH = 1000, HEIGHT = 820, LINE = 20, COLUMN = 10;
  static constexpr uint16_t VIDEO_WIDTH = 640, VIDEO_HEIGHT = 360;

  void
  run_steadily (int rate, void (Scene::*step) ())
  {
    for (auto next = std::chrono::steady_clock::now (); round_trip (); std::this_thread::sleep_until (next), turn++)
      {
        (this->*step) ();
        next += std::chrono::nanoseconds (1000000000 / rate);
      }
  }

  char
  character (unsigned i) const
  {
    return static_cast<char> (i * i % 7 == 0 ? ' ' : 'a' + i * 11 % 26);
  }

  void
  type_character ()
  {
    const char text = character (turn);
    const unsigned columns = WIDTH / COLUMN;
    xcb_image_text_8 (conn, 1, window, gc, static_cast<int16_t> (turn % columns * COLUMN),
                      static_cast<int16_t> ((turn / columns % 40 + 1) * LINE), &text);
  }

  void
  scroll_line ()
  {
    char text[WIDTH / COLUMN];
    for (unsigned i = 0; i < sizeof text; i++)
      text[i] = character (turn * 31 + i);
    xcb_copy_area (conn, window, window, gc, 0, LINE, 0, 0, WIDTH, HEIGHT - LINE);
    xcb_image_text_8 (conn, sizeof text, window, gc, 0, HEIGHT - 5, text);
  }

  void
  show_picture ()
  {
    std::vector<uint32_t> pixels;
    const float t = static_cast<float> (turn) / 10;
    const auto shade = [] (float value) { return static_cast<uint32_t> (127 + 120 * value); };

    for (unsigned row = 0; row < VIDEO_HEIGHT; row++)
      for (unsigned column = 0; column < VIDEO_WIDTH; column++)
        {
          const float x = static_cast<float> (column) / 60, y = static_cast<float> (row) / 60;
          pixels.push_back (shade (std::sin (x + t)) << 16 | shade (std::sin (y - t)) << 8
                            | shade (std::sin (x + y + t)));
        }
    for (unsigned row = 0; row < VIDEO_HEIGHT; row += 60) /* in pieces that fit into a request */
      xcb_put_image (conn, XCB_IMAGE_FORMAT_Z_PIXMAP, window, gc, VIDEO_WIDTH, 60, 100,
                     static_cast<int16_t> (100 + row), 0, screen->root_depth, VIDEO_WIDTH * 60 * 4,
                     reinterpret_cast<const uint8_t *> (&pixels[row * VIDEO_WIDTH]));
  }

  void
  echo ()
  {
    const xcb_rectangle_t square = { 100, 100, 16, 16 };
    while (XOwned<xcb_generic_event_t> event{ xcb_wait_for_event (conn) })
      if ((event->response_type & 0x7f) == XCB_KEY_PRESS)
        {
          const uint32_t colour = turn++ % 2 ? 0x2040c0 : 0xc04020;
          xcb_change_gc (conn, gc, XCB_GC_FOREGROUND, &colour);
          xcb_poly_fill_rectangle (conn, window, gc, 1, &square);
          xcb_flush (conn);
        }
  }

  const xcb_window_t window = xcb_generate_id (conn);
  const xcb_gcontext_t gc = xcb_generate_id (conn);
  const xcb_font_t font = xcb_generate_id (conn);
  unsigned turn = 0;
};

int
main (int argc, char **argv)
{
  if (argc != 2)
    return fprintf (stderr, "Usage: scene typing|scrolling|video|echo\n"), 2;
  return Scene ().run (argv[1]);
}
