#pragma once

#include <ryx/macros.h>

G_BEGIN_DECLS

/**
 * RYX_INPUT_INJECTOR_EXTENSION_POINT:
 *
 * The extension point of #RyxInputInjector implementations.
 */
#define RYX_INPUT_INJECTOR_EXTENSION_POINT "ryx-input-injector-extension-point"

/**
 * RyxInputInjectorKeyLocation:
 * @RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD: the only key of its kind, or its usual place
 * @RYX_INPUT_INJECTOR_KEY_LOCATION_LEFT: the left one of two
 * @RYX_INPUT_INJECTOR_KEY_LOCATION_RIGHT: the right one of two
 * @RYX_INPUT_INJECTOR_KEY_LOCATION_NUMPAD: on the numeric keypad
 *
 * Where a key sits, with the values of `KeyboardEvent.location`.
 */
typedef enum
{
  RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD = 0,
  RYX_INPUT_INJECTOR_KEY_LOCATION_LEFT = 1,
  RYX_INPUT_INJECTOR_KEY_LOCATION_RIGHT = 2,
  RYX_INPUT_INJECTOR_KEY_LOCATION_NUMPAD = 3,
} RyxInputInjectorKeyLocation;

#define RYX_TYPE_INPUT_INJECTOR (ryx_input_injector_get_type ())

/**
 * RyxInputInjector:
 *
 * Plays a remote client's keyboard, pointer and touch screen into the session. It reports nothing
 * back: what can't be injected is logged. Used from the thread that owns the display, whose default
 * main context must run.
 */
RYX_API
G_DECLARE_INTERFACE (RyxInputInjector, ryx_input_injector, RYX, INPUT_INJECTOR, GObject)

/**
 * RyxInputInjectorInterface:
 * @parent_class: a whole object-class header; the slots follow it
 * @motion_event: see ryx_input_injector_motion_event()
 * @button_event: see ryx_input_injector_button_event()
 * @axis_event: see ryx_input_injector_axis_event()
 * @key_event: see ryx_input_injector_key_event()
 * @special_key_event: see ryx_input_injector_special_key_event()
 * @is_sas_event: see ryx_input_injector_is_sas_event()
 * @is_touch_enabled: see ryx_input_injector_is_touch_enabled()
 * @touch_event: see ryx_input_injector_touch_event()
 * @channel_connected: see ryx_input_injector_channel_connected()
 * @channel_disconnected: see ryx_input_injector_channel_disconnected()
 *
 * What an implementation fills in.
 */
struct _RyxInputInjectorInterface
{
  GObjectClass parent_class;

  void (*motion_event) (RyxInputInjector *injector, gint32 x, gint32 y, gboolean absolute);
  void (*button_event) (RyxInputInjector *injector, guint32 button_id, gboolean button_down);
  void (*axis_event) (RyxInputInjector *injector, guint32 axis_id, gint32 value);
  void (*key_event) (RyxInputInjector *injector, const gchar *character, RyxInputInjectorKeyLocation location,
                     gboolean key_down);
  void (*special_key_event) (RyxInputInjector *injector, const gchar *name, RyxInputInjectorKeyLocation location,
                             gboolean key_down);
  gboolean (*is_sas_event) (RyxInputInjector *injector, const gchar *name, RyxInputInjectorKeyLocation location,
                            gboolean key_down);
  gboolean (*is_touch_enabled) (RyxInputInjector *injector);
  void (*touch_event) (RyxInputInjector *injector, guint group_id, GArray *touches_array, guint channel_id);
  void (*channel_connected) (RyxInputInjector *injector, guint channel_id);
  void (*channel_disconnected) (RyxInputInjector *injector, guint channel_id);
};

/**
 * ryx_input_injector_motion_event:
 * @injector: an injector
 * @x: position or step to the right, in pixels of the whole screen
 * @y: position or step downwards, in pixels of the whole screen
 * @absolute: %TRUE for a position, %FALSE for a step
 *
 * Moves the pointer.
 */
RYX_API void ryx_input_injector_motion_event (RyxInputInjector *injector, gint32 x, gint32 y, gboolean absolute);

/**
 * ryx_input_injector_button_event:
 * @injector: an injector
 * @button_id: logical button: 1 left, 2 middle, 3 right, 4 to 7 wheel, 8 back, 9 forward
 * @button_down: %TRUE to press, %FALSE to release
 *
 * Presses or releases a pointer button.
 */
RYX_API void ryx_input_injector_button_event (RyxInputInjector *injector, guint32 button_id, gboolean button_down);

/**
 * ryx_input_injector_axis_event:
 * @injector: an injector
 * @axis_id: 0 the horizontal wheel, 1 the vertical wheel
 * @value: its sign is the direction: positive is right or down; 0 does nothing
 *
 * Turns a wheel by one step.
 */
RYX_API void ryx_input_injector_axis_event (RyxInputInjector *injector, guint32 axis_id, gint32 value);

/**
 * ryx_input_injector_key_event:
 * @injector: an injector
 * @character: the characters to type, in UTF-8
 * @location: where the key sits; matters for keypad characters
 * @key_down: %TRUE for a key press, %FALSE for its release
 *
 * Types characters, with whatever key and modifiers produce them in the session.
 */
RYX_API void ryx_input_injector_key_event (RyxInputInjector *injector, const gchar *character,
                                           RyxInputInjectorKeyLocation location, gboolean key_down);

/**
 * ryx_input_injector_special_key_event:
 * @injector: an injector
 * @name: a UI Events key name such as "ArrowLeft", "Control" or "F5"; see
 *   ryx_special_key_string_to_keyval()
 * @location: where the key sits
 * @key_down: %TRUE for a press, %FALSE for a release
 *
 * Presses or releases a named key. Modifiers stay down until they are released; Shift, Control, Alt, AltGr
 * and Num Lock also come up when the last channel goes.
 */
RYX_API void ryx_input_injector_special_key_event (RyxInputInjector *injector, const gchar *name,
                                                   RyxInputInjectorKeyLocation location, gboolean key_down);

/**
 * ryx_input_injector_is_sas_event:
 * @injector: an injector
 * @name: a UI Events key name
 * @location: where the key sits
 * @key_down: %TRUE for a press, %FALSE for a release
 *
 * Asks about the key combination that no program of the session may see.
 *
 * Returns: whether this event completes the session's secure attention sequence.
 */
RYX_API gboolean ryx_input_injector_is_sas_event (RyxInputInjector *injector, const gchar *name,
                                                  RyxInputInjectorKeyLocation location, gboolean key_down);

/**
 * ryx_input_injector_is_touch_enabled:
 * @injector: an injector
 *
 * Asks whether there is a touch screen to play to.
 *
 * Returns: whether touch events have an effect.
 */
RYX_API gboolean ryx_input_injector_is_touch_enabled (RyxInputInjector *injector);

/**
 * ryx_input_injector_touch_event: (skip)
 * @injector: an injector
 * @group_id: which touch group the touches belong to
 * @touches_array: the touches; borrowed for the call
 * @channel_id: the channel that they came through
 *
 * Plays touches.
 */
RYX_API void ryx_input_injector_touch_event (RyxInputInjector *injector, guint group_id, GArray *touches_array,
                                             guint channel_id);

/**
 * ryx_input_injector_channel_connected:
 * @injector: an injector
 * @channel_id: a name of the channel in log lines
 *
 * Says that a client's input channel is there now.
 */
RYX_API void ryx_input_injector_channel_connected (RyxInputInjector *injector, guint channel_id);

/**
 * ryx_input_injector_channel_disconnected:
 * @injector: an injector
 * @channel_id: the channel that was connected
 *
 * Says that a client's input channel is gone. With the last one Shift, Control, Alt, AltGr and Num Lock are
 * released if they are held. What else the client held, Meta for one, is for the host to release.
 */
RYX_API void ryx_input_injector_channel_disconnected (RyxInputInjector *injector, guint channel_id);

/**
 * ryx_special_key_string_to_keyval:
 * @name: a `KeyboardEvent.key` value of the UI Events standard that names a key rather than a character
 * @location: picks the left, right or keypad variant, as `KeyboardEvent.location` does; where a key has
 *   no variant at that location, its standard one counts
 *
 * "Meta" and "OS" are the logo key, which is Super in X; "AltGraph" is the key that chooses the third
 * level, wherever it sits. "Dead" has no keysym: it hides which accent was pressed, and the character
 * that is composed with it arrives as itself. Single characters are no names. Any thread.
 *
 * Returns: the X keysym of that key, 0 when the name is unknown.
 */
RYX_API guint ryx_special_key_string_to_keyval (const gchar *name, RyxInputInjectorKeyLocation location);

G_END_DECLS
