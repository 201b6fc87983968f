#include "inputobserver.h"

#include <X11/Xutil.h>

TestInjector
create_injector ()
{
  load_module ();
  return TestInjector (
    RYX_INPUT_INJECTOR (ryx_host_create (RYX_INPUT_INJECTOR_EXTENSION_POINT, "inputinjectorx11", nullptr, nullptr)));
}

void
settle ()
{
  gdk_display_sync (gdk_display_get_default ());
  while (g_main_context_iteration (nullptr, FALSE))
    ;
}

void
type (const TestInjector &injector, const std::string &text, RyxInputInjectorKeyLocation location)
{
  for (const char *c = text.c_str (); *c; c = g_utf8_next_char (c))
    for (bool down : { true, false })
      {
        ryx_input_injector_key_event (injector.get (), std::string (c, g_utf8_next_char (c) - c).c_str (), location,
                                      down);
        settle ();
      }
}

InputObserver::InputObserver (const char *name) : display (XOpenDisplay (name))
{
  const Window window = XCreateSimpleWindow (display, DefaultRootWindow (display), 0, 0, 400, 400, 0, 0, 0);

  XSelectInput (display, window, KeyPressMask | KeyReleaseMask | ButtonPressMask);
  XMapRaised (display, window);
  XWarpPointer (display, None, window, 0, 0, 0, 0, 200, 200);
  XSetInputFocus (display, window, RevertToPointerRoot, CurrentTime);
  XkbSetDetectableAutoRepeat (display, True, nullptr); /* no releases that nobody made */
  XSync (display, False);
}

/* As for a new keyboard. Xlib by itself fetches those keys that the notices read so far name, and drops notices that
 * come in the meantime. */
static void
reload_keymap (Display *display)
{
  XkbMapNotifyEvent event = {};

  XkbQueryExtension (display, nullptr, &event.type, nullptr, nullptr, nullptr);
  event.xkb_type = XkbNewKeyboardNotify;
  event.display = display;
  XkbRefreshKeyboardMapping (&event);
}

void
InputObserver::take_key (XKeyEvent &event)
{
  const bool has_control = event.state & ControlMask;
  KeySym keysym = NoSymbol;
  char utf8[8] = {};

  seen_strokes += (event.type == KeyPress ? "+" : "-") + std::to_string (event.keycode);
  if (event.type == KeyPress)
    reload_keymap (display);
  event.state &= ~ControlMask; /* which would make it a control character */
  XLookupString (&event, utf8, sizeof utf8, &keysym, nullptr);
  const gunichar character = gdk_keyval_to_unicode (keysym);
  const char *name = XKeysymToString (keysym);
  if (event.type == KeyRelease || IsModifierKey (keysym))
    return;
  if (g_unichar_isprint (character) && !IsKeypadKey (keysym))
    seen_text += (has_control ? "^" : "") + std::string (utf8, g_unichar_to_utf8 (character, utf8));
  else
    seen_text += std::string ("<") + (name ? name : "?") + ">";
}

void
InputObserver::look ()
{
  XSync (display, False);
  for (int n = XPending (display); n > 0; n--) /* no more than that: a program that goes on typing would not be left */
    {
      XEvent event;
      XNextEvent (display, &event);
      if (event.type == KeyPress || event.type == KeyRelease)
        take_key (event.xkey);
      else if (event.type == ButtonPress)
        seen_text += "(" + std::to_string (event.xbutton.button) + ")";
    }
}

std::string
InputObserver::text ()
{
  look ();
  return seen_text;
}

std::string
InputObserver::strokes ()
{
  look ();
  return seen_strokes;
}

void
InputObserver::forget ()
{
  look ();
  seen_text = seen_strokes = "";
}

std::string
InputObserver::keyboard ()
{
  char keys[32];
  XkbStateRec state = {};
  std::string result;

  XQueryKeymap (display, keys);
  for (int keycode = 0; keycode < 256; keycode++)
    if (keys[keycode / 8] & 1 << keycode % 8)
      result += std::to_string (keycode) + " ";

  XkbGetState (display, XkbUseCoreKbd, &state);
  g_autofree gchar *modifiers = g_strdup_printf ("mods %x locked %x group %d latched %d", state.mods, state.locked_mods,
                                                 state.group, gint16 (state.latched_group));
  return result + modifiers;
}
