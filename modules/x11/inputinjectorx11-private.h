#pragma once

#include <type_traits>

#include <X11/XKBlib.h>

#include "gdkdisplay.h"
#include "inputinjectorx11.h"

/* What the injector's sources share: inputinjectorx11.cpp is the instance's life, special keys and the pointer,
 * inputinjectorx11-keys.cpp types characters, inputinjectorx11-keyup.cpp lets keys go again. */

struct _RyxInputInjectorX11
{
  GObject parent_instance;

  guint n_buttons;
  guchar buttons_map[16]; /* by logical button: the physical one, from 1; 0 where there is none */

  XkbDescPtr xkb_desc; /* of the core keyboard; NULL if it could not be read */
  int current_group;   /* the one of the last key, -1 before the first */

  guint num_channel_connected;

  KeySym pending_keysym; /* added to the keymap, and typed when the server has announced that; 0 for none */

  KeyCode left_shift_keycode; /* 0 where the keymap has no such key, as for those that follow */
  KeyCode right_shift_keycode;
  KeyCode left_control_keycode;
  KeyCode right_control_keycode;
  KeyCode altgr_keycode;
  KeyCode caps_lock_keycode;
  KeyCode num_lock_keycode;
  KeyCode left_alt_keycode;
  KeyCode right_alt_keycode;

  int altgrmask; /* real modifiers, 0 if unknown */
  int numlockmask;
  int rightaltmask;

  guint8 left_shift_pressed; /* by the client, as for those that follow */
  guint8 right_shift_pressed;
  guint8 left_control_pressed;
  guint8 right_control_pressed;
  guint8 left_alt_pressed;
  guint8 right_alt_pressed;
  guint8 altgr_pressed;
  guint8 num_lock_pressed;

  guint auto_repeat_delay;          /* in milliseconds */
  GHashTable *delayed_keyup_events; /* keycode: KeyupTimeoutRequest; NULL without autorepeat */
  gboolean auto_repeat_enabled;
};

/* GObject zero-fills instances and frees them: no C++ constructor or destructor would run. */
static_assert (std::is_trivial_v<RyxInputInjectorX11>);

struct XFreeDeleter
{
  void
  operator() (void *memory) const
  {
    XFree (memory);
  }
};

/* A failed check prints these very words. */
/* clang-format off */
#define RETURN_IF_FOREIGN(input_injector) g_return_if_fail (RYX_IS_INPUT_INJECTOR_X11(input_injector))
/* clang-format on */

/* Reads parts of the keyboard's controls into the description; to be called in an error trap. */
gboolean get_controls (RyxInputInjectorX11 *input_injector, unsigned long which);

/* inputinjectorx11-keyup.cpp: nothing but the timers and release_kept_keys flushes. */
void fake_key (int keycode, gboolean is_press);
void inject_keycode_release (int keycode);
void request_keydown (RyxInputInjectorX11 *input_injector, int keycode, gboolean has_modifiers);
void request_keyup (RyxInputInjectorX11 *input_injector, int keycode);
gboolean is_kept_down (const RyxInputInjectorX11 *input_injector, int keycode);
void release_kept_keys (RyxInputInjectorX11 *input_injector);
guint scale_repeat_delay (guint repeat_delay);
void free_keyup_timeout_request (gpointer request);

/* inputinjectorx11-keys.cpp */
void inject_key (RyxInputInjectorX11 *input_injector, guint32 keysym, gboolean key_down);
void ryx_input_injector_x11_key_event (RyxInputInjector *input_injector, const gchar *character,
                                       RyxInputInjectorKeyLocation location, gboolean key_down);

/* Runs @send and waits until the server has taken what it sent; FALSE when the server refused something. */
template <typename Send>
gboolean
send_and_flush (Send send)
{
  ErrorTrap trap;

  send ();
  gdk_flush ();
  return trap.pop () == 0;
}

/* A key that stays down is worse than a release too many. */
template <typename Release>
void
release_surely (Release release)
{
  if (!send_and_flush (release))
    send_and_flush (release);
}
