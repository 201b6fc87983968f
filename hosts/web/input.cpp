#include "input.h"

#include <algorithm>

#include "message.h"

/* More keys or buttons are not held by any hand. */
static constexpr gsize most_held = 32;
static constexpr gint most_steps = 10; /* of the wheel, in a message */

Input::Input (RyxInputInjector *input_injector, std::function<void (const gchar *held)> on_held)
    : injector (input_injector), held_changed (std::move (on_held))
{
}

Input::~Input ()
{
  set_controller (0);
  g_object_unref (injector);
}

/* The injector lets go of modifiers with its last channel, also of those that it pressed by itself. */
void
Input::set_controller (guint32 client)
{
  release ();
  if (controller)
    ryx_input_injector_channel_disconnected (injector, controller);
  controller = client;
  if (controller)
    ryx_input_injector_channel_connected (injector, controller);
}

bool
Input::is_controller (guint32 client) const
{
  return controller == client;
}

guint32
Input::get_mover (guint x, guint y) const
{
  return x == pointer_x && y == pointer_y ? controller : 0;
}

static bool
is_character (const std::string &name)
{
  return !name.empty () && !*g_utf8_next_char (name.c_str ()) && !g_unichar_iscntrl (g_utf8_get_char (name.c_str ()));
}

void
Input::inject_key (const Key &key, bool down)
{
  if (is_character (key.name))
    ryx_input_injector_key_event (injector, key.name.c_str (), key.location, down);
  else
    ryx_input_injector_special_key_event (injector, key.name.c_str (), key.location, down);
}

void
Input::press_key (const Key &key, bool down)
{
  const bool was_held = std::erase (keys, key) > 0;

  if (!is_character (key.name) && !ryx_special_key_string_to_keyval (key.name.c_str (), key.location))
    return;
  if (down && keys.size () == most_held)
    return;
  if (down)
    keys.push_back (key);
  if (down != was_held)
    tell_held (); /* before it is down: who dies between the two leaves nothing */
  inject_key (key, down);
}

void
Input::press_button (guint32 button, bool down)
{
  const bool was_held = std::erase (buttons, button) > 0;

  if (down) /* there are no more than nine */
    buttons.push_back (button);
  if (down != was_held)
    tell_held ();
  ryx_input_injector_button_event (injector, button, down);
}

void
Input::turn_wheel (guint32 axis, gint64 steps)
{
  for (gint64 i = 0; i < MIN (ABS (steps), most_steps); i++)
    ryx_input_injector_axis_event (injector, axis, steps > 0 ? 1 : -1);
}

bool
Input::play (const gchar *type, JsonObject *message)
{
  if (g_str_equal (type, "key"))
    press_key (
      { get_text (message, "key"), static_cast<RyxInputInjectorKeyLocation> (get_number (message, "location") & 3) },
      get_truth (message, "down"));
  else if (g_str_equal (type, "motion"))
    {
      pointer_x = CLAMP (get_number (message, "x"), 0, G_MAXSHORT);
      pointer_y = CLAMP (get_number (message, "y"), 0, G_MAXSHORT);
      ryx_input_injector_motion_event (injector, pointer_x, pointer_y, TRUE);
    }
  else if (g_str_equal (type, "button"))
    press_button (CLAMP (get_number (message, "button"), 1, 9), get_truth (message, "down"));
  else if (g_str_equal (type, "wheel"))
    {
      turn_wheel (0, get_number (message, "x"));
      turn_wheel (1, get_number (message, "y"));
    }
  else if (g_str_equal (type, "release"))
    release ();
  else
    return false;
  return true;
}

/* Last pressed, first released: a modifier outlives the key that needed it. */
void
Input::release ()
{
  if (keys.empty () && buttons.empty ())
    return;

  for (guint32 button : buttons)
    ryx_input_injector_button_event (injector, button, FALSE);
  std::for_each (keys.rbegin (), keys.rend (), [this] (const Key &key) { inject_key (key, false); });
  buttons.clear ();
  keys.clear ();
  tell_held ();
}

/* As the messages that release it. */
void
Input::tell_held ()
{
  std::string held;

  for (const Key &key : keys)
    held += format (",{\"type\":\"key\",\"key\":%s,\"location\":%d}", quote (key.name.c_str ()).c_str (), key.location);
  for (guint32 button : buttons)
    held += format (",{\"type\":\"button\",\"button\":%u}", button);
  held_changed (held.empty () ? "" : format ("{\"held\":[%s]}", held.c_str () + 1).c_str ());
}

void
Input::release_left (JsonObject *held)
{
  JsonArray *releases = json_object_get_array_member (held, "held");

  for (guint i = 0; i < json_array_get_length (releases); i++)
    {
      JsonObject *release = json_array_get_object_element (releases, i);
      play (get_text (release, "type"), release);
    }
  tell_held ();
}
