/* What the browser tests look at a session with: a plain X client that is told line by line what to draw, do or tell.
 * Each line gets one line as its answer. */
#include <cmath>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>

#include "faultproxy.h"
#include "inputobserver.h"

#include <X11/Xutil.h>

static std::string
describe_pointer (Display *display)
{
  Window window;
  int x, y, dummy;
  unsigned mask;

  XQueryPointer (display, DefaultRootWindow (display), &window, &window, &x, &y, &dummy, &dummy, &mask);
  return std::to_string (x) + " " + std::to_string (y) + " " + std::to_string (mask >> 8); /* the buttons */
}

/* A shape of X11/cursorfont.h, or 0 for a cursor without a pixel. */
static void
define_cursor (Display *display, Window root, unsigned shape)
{
  const char nothing = 0;
  const Pixmap mask = XCreateBitmapFromData (display, root, &nothing, 1, 1);
  XColor black = {};

  XDefineCursor (display, root,
                 shape ? XCreateFontCursor (display, shape)
                       : XCreatePixmapCursor (display, mask, mask, &black, &black, 0, 0));
  XFreePixmap (display, mask);
}

/* Soft colours with a grain. */
static unsigned
get_photo_pixel (unsigned x, unsigned y)
{
  const int grain = (x * 7919 + y) * 2654435761u >> 29;
  const double u = x / 97.0, v = y / 61.0;

  return unsigned (120 + 100 * std::sin (u + v) + grain) << 16
         | unsigned (120 + 100 * std::sin (v - 2 * u) + grain) << 8 | unsigned (120 + 100 * std::cos (u) + grain);
}

int
main (int, char **argv)
{
  InputObserver input (argv[1]);
  Display *const display = input.display;
  const Window root = DefaultRootWindow (display);
  Painter painter (argv[1]);
  struct _XGC *const gc = DefaultGC (display, 0);
  XSetForeground (display, gc, 0x91a2b0);
  int x = 0, y = 0;
  unsigned width = 0, height = 0, number = 0;
  std::istringstream line;

  const std::map<std::string, std::function<std::string ()>> commands = {
    { "text", [&] { return input.text (); } },
    { "keyboard", [&] { return input.keyboard (); } },
    { "pointer", [&] { return describe_pointer (display); } },
    { "forget", [&] { return input.forget (), ""; } },
    { "grab", [&] { return XGrabServer (display), ""; } },
    { "ungrab", [&] { return XUngrabServer (display), ""; } },
    { "warp", [&] { return line >> x >> y, XWarpPointer (display, None, root, 0, 0, 0, 0, x, y), ""; } },
    { "cursor", [&] { return line >> number, define_cursor (display, root, number), ""; } },
    { "fill",
      [&] {
        line >> x >> y >> width >> height >> number;
        return painter.fill (x, y, width, height, number), "";
      } },
    { "write",
      [&] {
        const char words[] = "mwMW@#%&gB8mwMW@#%&gB8mwMW@#%&gB8";
        line >> x >> y >> number;
        for (unsigned i = 0; i < number; i++)
          XDrawString (display, root, gc, x, y + 12 * i, words, sizeof words - 1);
        return "";
      } },
    { "photo",
      [&] {
        line >> x >> y >> width >> height;
        XImage *image = XGetImage (display, root, x, y, width, height, AllPlanes, ZPixmap);
        for (unsigned i = 0; i < width * height; i++)
          XPutPixel (image, i % width, i / width, get_photo_pixel (i % width, i / width));
        XPutImage (display, root, gc, image, 0, 0, x, y, width, height);
        return XDestroyImage (image), "";
      } },
    { "image", /* into a file, four bytes a pixel: blue, green, red and nothing */
      [&] {
        std::string file;
        line >> x >> y >> width >> height >> file;
        const std::vector<uint8_t> pixels = painter.image (x, y, width, height);
        std::ofstream (file, std::ios::binary).write (as<char> (pixels.data ()), pixels.size ());
        return "";
      } },
  };

  for (std::string text, command; std::getline (std::cin, text);)
    {
      line = std::istringstream (text);
      line >> command;
      const std::string answer = commands.at (command) ();
      XSync (display, False);
      std::cout << answer << std::endl;
    }
  return 0;
}
