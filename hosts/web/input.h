#pragma once

#include <functional>
#include <string>
#include <vector>

#include <json-glib/json-glib.h>
#include <ryx/ryx.h>

/* The keyboard and the pointer of the one client that controls. What it holds down is up again when it lets go, loses
 * control or leaves. */
class Input
{
public:
  Input (RyxInputInjector *input_injector, std::function<void (const gchar *held)> on_held);
  ~Input ();
  Input (const Input &) = delete;
  Input &operator= (const Input &) = delete;

  /* 0: nobody controls. */
  void set_controller (guint32 client);
  bool is_controller (guint32 client) const;

  /* Plays a message of the controller's; false when it is none of this class. */
  bool play (const gchar *type, JsonObject *message);
  void release ();

  /* Releases what a session before this one left down, as it was told by on_held. */
  void release_left (JsonObject *held);

  /* The controller if it moved the pointer there by itself, else 0. */
  guint32 get_mover (guint x, guint y) const;

private:
  struct Key
  {
    std::string name;
    RyxInputInjectorKeyLocation location;
    bool operator== (const Key &) const = default;
  };

  void inject_key (const Key &key, bool down);
  void press_key (const Key &key, bool down);
  void press_button (guint32 button, bool down);
  void turn_wheel (guint32 axis, gint64 steps);
  void tell_held ();

  RyxInputInjector *const injector;
  const std::function<void (const gchar *held)> held_changed;
  guint32 controller = 0;
  std::vector<Key> keys; /* that are down, in the order of their presses; buttons likewise */
  std::vector<guint32> buttons;
  guint pointer_x = 0, pointer_y = 0; /* as moved last */
};
