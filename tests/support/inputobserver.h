#pragma once

#include <string>

#include <X11/XKBlib.h>

#include "capture.h"

using TestInjector = std::unique_ptr<RyxInputInjector, ObjectDeleter>;

/* The module's injector on GDK's default display. */
TestInjector create_injector ();

/* The injector gets to know what the server has announced so far. */
void settle ();

/* Presses and releases a key for each character. */
void type (const TestInjector &injector, const std::string &text, RyxInputInjectorKeyLocation location);

/* A plain X client with the keyboard focus and the pointer in its window. It says what arrives there, with characters
 * from the server's keymap by Xlib alone, and what the server's keyboard is like. It reads events only when asked, so
 * it is as slow as the test likes. */
class InputObserver
{
public:
  explicit InputObserver (const char *name);
  ~InputObserver () { XCloseDisplay (display); }
  InputObserver (const InputObserver &) = delete;

  /* The presses since the start or `forget`: "c", "^c" with Control, "<KP_0>" or "(1)" for a button; and the keys that
   * went down and up, "+38-38". */
  std::string text ();
  std::string strokes ();
  void forget ();

  /* What the server's keyboard is like: "37 38 mods 4 locked 0 group 0 latched 0", with the keys that are down. */
  std::string keyboard ();

  Display *const display;

private:
  void look ();
  void take_key (XKeyEvent &event);

  std::string seen_text, seen_strokes;
};
