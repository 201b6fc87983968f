#define G_LOG_DOMAIN "RYX:x11:input"

#include "inputinjectorx11-private.h"

#include <X11/extensions/XTest.h>

/* A key that is down and will be released when its time is up. */
struct KeyupTimeoutRequest
{
  GHashTable *pressed_keys; /* the table that owns this */
  int selected_keycode;
  guint source_id; /* 0 once the timer has fired */
};

void
fake_key (int keycode, gboolean is_press)
{
  /* The host may have closed the display before the timer fires or the instance ends. */
  if (Display *xdisplay = get_default_xdisplay ())
    XTestFakeKeyEvent (xdisplay, keycode, is_press, CurrentTime);
}

static void
inject_keycode_press (int keycode)
{
  ErrorTrap trap;
  fake_key (keycode, TRUE);
}

void
inject_keycode_release (int keycode)
{
  ErrorTrap trap;
  fake_key (keycode, FALSE);
}

void
free_keyup_timeout_request (gpointer data)
{
  auto *request = static_cast<KeyupTimeoutRequest *> (data);

  g_clear_handle_id (&request->source_id, g_source_remove);
  g_free (request);
}

static gboolean
on_keyup_timeout_request (gpointer data)
{
  auto *request = static_cast<KeyupTimeoutRequest *> (data);
  const int keycode = request->selected_keycode;

  /* This source is ending; freeing the request must not remove it again. */
  request->source_id = 0;
  if (g_hash_table_remove (request->pressed_keys, GINT_TO_POINTER (keycode)))
    release_surely ([=] { inject_keycode_release (keycode); });
  return FALSE;
}

/* Keys are up again before the server starts to repeat them. */
guint
scale_repeat_delay (guint repeat_delay)
{
  return static_cast<guint> (repeat_delay * 0.8);
}

static void
update_auto_repeat_delay (RyxInputInjectorX11 *input_injector)
{
  ErrorTrap trap;
  if (!get_controls (input_injector, XkbRepeatKeysMask))
    return;

  const guint repeat_delay = input_injector->xkb_desc->ctrls->repeat_delay;
  const guint delay = scale_repeat_delay (repeat_delay);
  if (delay == input_injector->auto_repeat_delay)
    return;

  input_injector->auto_repeat_delay = delay;
  g_info ("Current system keyboard repeat delay changed to %d", repeat_delay);
}

static void
add_delayed_keyup_event (RyxInputInjectorX11 *input_injector, int keycode)
{
  g_return_if_fail (input_injector->delayed_keyup_events != NULL);

  update_auto_repeat_delay (input_injector);

  auto *request = static_cast<KeyupTimeoutRequest *> (g_malloc0 (sizeof (KeyupTimeoutRequest)));
  request->pressed_keys = input_injector->delayed_keyup_events;
  request->selected_keycode = keycode;
  request->source_id = g_timeout_add (input_injector->auto_repeat_delay, on_keyup_timeout_request, request);
  g_hash_table_insert (input_injector->delayed_keyup_events, GINT_TO_POINTER (keycode), request);
}

static void
remove_delayed_keyup_event (RyxInputInjectorX11 *input_injector, int keycode)
{
  g_return_if_fail (input_injector->delayed_keyup_events != NULL);

  g_hash_table_remove (input_injector->delayed_keyup_events, GINT_TO_POINTER (keycode));
}

gboolean
is_kept_down (const RyxInputInjectorX11 *input_injector, int keycode)
{
  return input_injector->delayed_keyup_events
         && g_hash_table_contains (input_injector->delayed_keyup_events, GINT_TO_POINTER (keycode));
}

void
request_keydown (RyxInputInjectorX11 *input_injector, int keycode, gboolean has_modifiers)
{
  if (input_injector->auto_repeat_enabled)
    remove_delayed_keyup_event (input_injector, keycode);
  else
    has_modifiers = TRUE;

  inject_keycode_press (keycode);
  if (has_modifiers)
    inject_keycode_release (keycode);
  else
    add_delayed_keyup_event (input_injector, keycode);
}

void
request_keyup (RyxInputInjectorX11 *input_injector, int keycode)
{
  if (!input_injector->auto_repeat_enabled)
    return; /* released at its key-down */

  remove_delayed_keyup_event (input_injector, keycode);
  inject_keycode_release (keycode);
}

/* Tries every key of the table before it waits for the server. */
void
release_kept_keys (RyxInputInjectorX11 *input_injector)
{
  release_surely ([=] {
    GHashTableIter iter;
    gpointer request;

    g_hash_table_iter_init (&iter, input_injector->delayed_keyup_events);
    while (g_hash_table_iter_next (&iter, nullptr, &request))
      inject_keycode_release (static_cast<KeyupTimeoutRequest *> (request)->selected_keycode);
  });
}
