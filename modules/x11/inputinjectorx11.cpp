#define G_LOG_DOMAIN "RYX:x11:input"

#include "inputinjectorx11-private.h"

#include <cstring>
#include <memory>

#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

struct ModifierKey
{
  KeySym keysym;
  KeyCode RyxInputInjectorX11::*keycode;
  const gchar *not_found;
};

static const ModifierKey modifier_keys[] = {
  { XK_Shift_L, &RyxInputInjectorX11::left_shift_keycode, "Failed to get left shift keycode" },
  { XK_Shift_R, &RyxInputInjectorX11::right_shift_keycode, "Failed to get right shift keycode" },
  { XK_Control_L, &RyxInputInjectorX11::left_control_keycode, "Failed to get left control keycode" },
  { XK_Control_R, &RyxInputInjectorX11::right_control_keycode, "Failed to get right control keycode" },
  { XK_ISO_Level3_Shift, &RyxInputInjectorX11::altgr_keycode, "Failed to get altgr keycode" },
  { XK_Caps_Lock, &RyxInputInjectorX11::caps_lock_keycode, "Failed to get caps lock keycode" },
  { XK_Num_Lock, &RyxInputInjectorX11::num_lock_keycode, "Failed to get num lock keycode" },
  { XK_Alt_R, &RyxInputInjectorX11::right_alt_keycode, "Failed to get right alt keycode" },
  { XK_Alt_L, &RyxInputInjectorX11::left_alt_keycode, "Failed to get left alt keycode" },
};

static const unsigned xkb_map_components
  = XkbKeyTypesMask | XkbKeySymsMask | XkbModifierMapMask | XkbKeyActionsMask | XkbVirtualModsMask;

/* Below it a key would be released before an ordinary stroke is over. */
static const guint least_auto_repeat_delay = 25;

/* What the last channel leaves down is released. */
static const struct
{
  KeyCode RyxInputInjectorX11::*keycode;
  guint8 RyxInputInjectorX11::*pressed;
} tracked_modifiers[] = {
  { &RyxInputInjectorX11::left_shift_keycode, &RyxInputInjectorX11::left_shift_pressed },
  { &RyxInputInjectorX11::right_shift_keycode, &RyxInputInjectorX11::right_shift_pressed },
  { &RyxInputInjectorX11::left_control_keycode, &RyxInputInjectorX11::left_control_pressed },
  { &RyxInputInjectorX11::right_control_keycode, &RyxInputInjectorX11::right_control_pressed },
  { &RyxInputInjectorX11::left_alt_keycode, &RyxInputInjectorX11::left_alt_pressed },
  { &RyxInputInjectorX11::right_alt_keycode, &RyxInputInjectorX11::right_alt_pressed },
  { &RyxInputInjectorX11::altgr_keycode, &RyxInputInjectorX11::altgr_pressed },
  { &RyxInputInjectorX11::num_lock_keycode, &RyxInputInjectorX11::num_lock_pressed },
};

static void ryx_input_injector_x11_iface_init (RyxInputInjectorInterface *iface);
static void ryx_input_injector_x11_health_iface_init (RyxHealthInterface *iface);

G_DEFINE_DYNAMIC_TYPE_EXTENDED (RyxInputInjectorX11, ryx_input_injector_x11, G_TYPE_OBJECT, 0,
                                G_IMPLEMENT_INTERFACE (RYX_TYPE_INPUT_INJECTOR, ryx_input_injector_x11_iface_init)
                                  G_IMPLEMENT_INTERFACE (RYX_TYPE_HEALTH, ryx_input_injector_x11_health_iface_init))

/* The keyboard's state */

static int
get_modifiers_mask (RyxInputInjectorX11 *input_injector, KeyCode keycode)
{
  const XkbDescRec *xkb_desc = input_injector->xkb_desc;

  if (keycode == 0 || !xkb_desc || !xkb_desc->map || !xkb_desc->map->modmap || keycode > xkb_desc->max_key_code)
    return 0;
  return xkb_desc->map->modmap[keycode];
}

gboolean
get_controls (RyxInputInjectorX11 *input_injector, unsigned long which)
{
  return input_injector->xkb_desc
         && XkbGetControls (gdk_x11_get_default_xdisplay (), which, input_injector->xkb_desc) == Success;
}

static gboolean
check_xkb_group_mode (RyxInputInjectorX11 *input_injector)
{
  g_assert (input_injector->xkb_desc != NULL);

  ErrorTrap trap;
  const gboolean is_known = get_controls (input_injector, XkbGroupsWrapMask);
  trap.pop ();

  if (!is_known)
    {
      g_warning ("Unable to query Xkb controls");
      return FALSE;
    }
  if (input_injector->xkb_desc->ctrls->groups_wrap & (XkbClampIntoRange | XkbRedirectIntoRange))
    {
      g_warning ("Unable to use keyboard groupd because Xkb does not wrap into range");
      return FALSE;
    }
  return TRUE;
}

static void
update_modifier_keycodes (RyxInputInjectorX11 *input_injector)
{
  g_debug ("Updating modifier keycodes");

  ErrorTrap trap;
  for (const ModifierKey &key : modifier_keys)
    {
      input_injector->*key.keycode = XKeysymToKeycode (gdk_x11_get_default_xdisplay (), key.keysym);
      if (input_injector->*key.keycode == 0)
        g_warning ("%s", key.not_found);
    }
  if (trap.pop () != 0)
    g_warning ("Failed to get modifier keycodes");

  input_injector->altgrmask = get_modifiers_mask (input_injector, input_injector->altgr_keycode);
  if (input_injector->altgrmask == 0)
    g_warning ("Failed to get altgr modifier mask from keycode %d", input_injector->altgr_keycode);

  input_injector->numlockmask = get_modifiers_mask (input_injector, input_injector->num_lock_keycode);
  if (input_injector->numlockmask == 0)
    g_warning ("Failed to get num lock modifier mask from keycode %d", input_injector->num_lock_keycode);

  input_injector->rightaltmask = get_modifiers_mask (input_injector, input_injector->right_alt_keycode);
  if (input_injector->rightaltmask == 0)
    g_warning ("Failed to get right alt modifier mask from keycode %d", input_injector->right_alt_keycode);
}

static void
log_keyboard_layout (RyxInputInjectorX11 *input_injector)
{
  const XkbDescRec *xkb_desc = input_injector->xkb_desc;
  if (!xkb_desc || !xkb_desc->names || xkb_desc->names->symbols == None)
    {
      g_warning ("Cannot get keyboard layout: symbols names missing");
      return;
    }

  ErrorTrap trap;
  const std::unique_ptr<char, XFreeDeleter> name (
    XGetAtomName (gdk_x11_get_default_xdisplay (), xkb_desc->names->symbols));
  if (trap.pop () != 0 || !name)
    g_warning ("Cannot get keyboard layout: error getting symbols name");
  else
    g_info ("Current keyboard layout state: %s", name.get ());
}

static gboolean
update_xkb_desc (XkbDescPtr xkb_desc)
{
  Display *xdisplay = gdk_x11_get_default_xdisplay ();
  ErrorTrap trap;

  /* Else Xlib copies the old actions into room that it measures by the new symbols: too little for some maps. */
  XkbFreeServerMap (xkb_desc, XkbAllServerInfoMask, True);
  const Status status = XkbGetUpdatedMap (xdisplay, xkb_map_components, xkb_desc);
  XkbGetNames (xdisplay, XkbSymbolsNameMask, xkb_desc);
  return trap.pop () == 0 && status == Success;
}

/* Whoever holds one will release it at the key where it is then. */
static void
release_moved_modifiers (RyxInputInjectorX11 *input_injector, const RyxInputInjectorX11 &earlier)
{
  for (const auto &modifier : tracked_modifiers)
    if (input_injector->*modifier.pressed && input_injector->*modifier.keycode != earlier.*modifier.keycode)
      {
        release_surely ([&] { inject_keycode_release (earlier.*modifier.keycode); });
        input_injector->*modifier.pressed = FALSE;
      }
}

static void
on_keys_changed (GdkKeymap *, gpointer user_data)
{
  auto *input_injector = static_cast<RyxInputInjectorX11 *> (user_data);

  g_info ("Keys changed: updating map");
  g_assert (input_injector->xkb_desc != NULL);

  if (!update_xkb_desc (input_injector->xkb_desc))
    {
      g_warning ("Unable to update XKB map");
      return;
    }

  const RyxInputInjectorX11 earlier = *input_injector;
  check_xkb_group_mode (input_injector);
  update_modifier_keycodes (input_injector);
  release_moved_modifiers (input_injector, earlier);
  log_keyboard_layout (input_injector);

  if (input_injector->pending_keysym != 0)
    inject_key (input_injector, input_injector->pending_keysym, TRUE);
}

/* Pointer */

static void
ryx_input_injector_x11_motion_event (RyxInputInjector *, gint32 x, gint32 y, gboolean absolute)
{
  send_and_flush ([=] {
    Display *xdisplay = get_default_xdisplay ();
    ErrorTrap trap;

    if (!xdisplay)
      return;
    if (absolute)
      XTestFakeMotionEvent (xdisplay, 0, x, y, CurrentTime);
    else
      XTestFakeRelativeMotionEvent (xdisplay, x, y, CurrentTime);
  });
}

static void
inject_button (guint physical_button, gboolean button_down)
{
  Display *xdisplay = get_default_xdisplay ();
  ErrorTrap trap;

  if (xdisplay)
    XTestFakeButtonEvent (xdisplay, physical_button, button_down != FALSE, CurrentTime);
}

static void
ryx_input_injector_x11_button_event (RyxInputInjector *input_injector, guint32 button_id, gboolean button_down)
{
  const RyxInputInjectorX11 *injector = RYX_INPUT_INJECTOR_X11 (input_injector);

  /* The server may report more buttons than the map has room for. */
  if (button_id > injector->n_buttons || button_id >= G_N_ELEMENTS (injector->buttons_map))
    {
      g_warning ("Ignoring button id %u", button_id);
      return;
    }

  const guint physical_button = injector->buttons_map[button_id];
  if (physical_button == 0)
    return;

  const auto send = [=] { inject_button (physical_button, button_down); };
  if (button_down)
    send_and_flush (send);
  else
    release_surely (send);
}

static guint32
get_wheel_button (guint32 axis_id, gint32 value)
{
  switch (axis_id)
    {
    case 0:
      return value > 0 ? 7 : 6;
    case 1:
      return value > 0 ? 5 : 4;
    default:
      return 0;
    }
}

static void
ryx_input_injector_x11_axis_event (RyxInputInjector *input_injector, guint32 axis_id, gint32 value)
{
  const guint32 button = get_wheel_button (axis_id, value);
  if (value == 0 || button == 0)
    return;

  ryx_input_injector_x11_button_event (input_injector, button, TRUE);
  ryx_input_injector_x11_button_event (input_injector, button, FALSE);
}

/* Special keys */

static gboolean
is_modifier (RyxInputInjectorX11 *input_injector, KeyCode keycode)
{
  return get_modifiers_mask (input_injector, keycode) != 0;
}

static void
track_adjust_modifier_state (RyxInputInjectorX11 *input_injector, KeyCode keycode, gboolean is_press)
{
  for (const auto &modifier : tracked_modifiers)
    if (keycode == input_injector->*modifier.keycode)
      input_injector->*modifier.pressed = is_press;
}

static KeyCode
get_keycode (guint32 keysym)
{
  Display *xdisplay = get_default_xdisplay ();
  ErrorTrap trap;

  const KeyCode keycode = xdisplay ? XKeysymToKeycode (xdisplay, keysym) : 0;
  return trap.pop () == 0 ? keycode : 0;
}

static void
inject_modifier (RyxInputInjectorX11 *input_injector, KeyCode keycode, gboolean key_down)
{
  ErrorTrap trap;

  track_adjust_modifier_state (input_injector, keycode, key_down);
  fake_key (keycode, key_down);
}

/* The key goes out as the keyboard is: no group or level is chosen for it, and it is never added to the keymap. */
static void
inject_special_key_event (RyxInputInjectorX11 *input_injector, guint32 keysym, gboolean key_down)
{
  const KeyCode keycode = get_keycode (keysym);
  if (keycode == 0)
    {
      g_warning ("Failed to get keycode for keysym %u (0x%x)", keysym, keysym);
      return;
    }

  const gboolean is_taken = send_and_flush ([=] {
    if (is_modifier (input_injector, keycode))
      inject_modifier (input_injector, keycode, key_down);
    else if (key_down)
      request_keydown (input_injector, keycode, FALSE);
    else
      request_keyup (input_injector, keycode);
  });

  const gboolean stays_down
    = key_down && (is_modifier (input_injector, keycode) || is_kept_down (input_injector, keycode));
  if (!is_taken && !stays_down)
    send_and_flush ([=] { inject_keycode_release (keycode); });
}

static void
ryx_input_injector_x11_special_key_event (RyxInputInjector *input_injector, const gchar *name,
                                          RyxInputInjectorKeyLocation location, gboolean key_down)
{
  RETURN_IF_FOREIGN (input_injector);
  g_return_if_fail (name != NULL);

  const guint32 keysym = ryx_special_key_string_to_keyval (name, location);
  if (keysym == 0)
    {
      g_info ("Unknown special key: %s (location: %d)", name, location);
      return;
    }
  inject_special_key_event (RYX_INPUT_INJECTOR_X11 (input_injector), keysym, key_down);
}

/* What the module leaves to others */

static gboolean
ryx_input_injector_x11_is_sas_event (RyxInputInjector *, const gchar *, RyxInputInjectorKeyLocation, gboolean)
{
  return FALSE;
}

static gboolean
ryx_input_injector_x11_is_touch_enabled (RyxInputInjector *)
{
  return FALSE;
}

static void
ryx_input_injector_x11_touch_event (RyxInputInjector *, guint, GArray *, guint)
{
}

/* Channels */

static void
release_pressed_modifiers (const RyxInputInjectorX11 *input_injector)
{
  for (const auto &modifier : tracked_modifiers)
    if (input_injector->*modifier.pressed)
      fake_key (input_injector->*modifier.keycode, FALSE);
}

static void
forget_pressed_modifiers (RyxInputInjectorX11 *input_injector)
{
  for (const auto &modifier : tracked_modifiers)
    input_injector->*modifier.pressed = FALSE;
}

static void
ryx_input_injector_x11_channel_connected (RyxInputInjector *input_injector, guint channel_id)
{
  RETURN_IF_FOREIGN (input_injector);

  RyxInputInjectorX11 *injector = RYX_INPUT_INJECTOR_X11 (input_injector);
  injector->num_channel_connected++;
  g_debug ("Channel %u connected (total connected: %u)", channel_id, injector->num_channel_connected);
}

static void
ryx_input_injector_x11_channel_disconnected (RyxInputInjector *input_injector, guint channel_id)
{
  RETURN_IF_FOREIGN (input_injector);

  RyxInputInjectorX11 *injector = RYX_INPUT_INJECTOR_X11 (input_injector);
  if (injector->num_channel_connected == 0)
    {
      g_warning ("Channel %u disconnected, but no channel is connected", channel_id);
      return;
    }

  injector->num_channel_connected--;
  g_debug ("Channel %u disconnected (total connected: %u)", channel_id, injector->num_channel_connected);
  if (injector->num_channel_connected > 0)
    return;

  release_surely ([=] { release_pressed_modifiers (injector); });
  forget_pressed_modifiers (injector);
}

/* Life */

static const gchar keymap_key[] = "ryx-keymap";

/* The keymap may outlive its place as GDK's default one, so the instance keeps it. */
static void
follow_keymap (RyxInputInjectorX11 *input_injector)
{
  GdkKeymap *keymap = gdk_keymap_get_default ();

  g_signal_connect (keymap, "keys-changed", G_CALLBACK (on_keys_changed), input_injector);
  g_object_set_data_full (G_OBJECT (input_injector), keymap_key, g_object_ref (keymap), g_object_unref);
}

static void
unfollow_keymap (RyxInputInjectorX11 *input_injector)
{
  if (gpointer keymap = g_object_get_data (G_OBJECT (input_injector), keymap_key))
    g_signal_handlers_disconnect_by_data (keymap, input_injector);
}

static void
ryx_input_injector_x11_finalize (GObject *object)
{
  RyxInputInjectorX11 *input_injector = RYX_INPUT_INJECTOR_X11 (object);

  unfollow_keymap (input_injector);
  if (input_injector->xkb_desc)
    XkbFreeKeyboard (input_injector->xkb_desc, 0, True);
  if (input_injector->delayed_keyup_events)
    {
      if (g_hash_table_size (input_injector->delayed_keyup_events) > 0)
        release_kept_keys (input_injector);
      g_hash_table_destroy (input_injector->delayed_keyup_events);
    }

  g_debug ("X11 input injector %p finalized", static_cast<gpointer> (input_injector));
  G_OBJECT_CLASS (ryx_input_injector_x11_parent_class)->finalize (object);
}

static void
ryx_input_injector_x11_class_init (RyxInputInjectorX11Class *klass)
{
  G_OBJECT_CLASS (klass)->finalize = ryx_input_injector_x11_finalize;
}

static void
ryx_input_injector_x11_class_finalize (RyxInputInjectorX11Class *)
{
}

static void
ryx_input_injector_x11_iface_init (RyxInputInjectorInterface *iface)
{
  iface->motion_event = ryx_input_injector_x11_motion_event;
  iface->button_event = ryx_input_injector_x11_button_event;
  iface->axis_event = ryx_input_injector_x11_axis_event;
  iface->key_event = ryx_input_injector_x11_key_event;
  iface->special_key_event = ryx_input_injector_x11_special_key_event;
  iface->is_sas_event = ryx_input_injector_x11_is_sas_event;
  iface->is_touch_enabled = ryx_input_injector_x11_is_touch_enabled;
  iface->touch_event = ryx_input_injector_x11_touch_event;
  iface->channel_connected = ryx_input_injector_x11_channel_connected;
  iface->channel_disconnected = ryx_input_injector_x11_channel_disconnected;
}

/* The host's default answers for its health. */
static void
ryx_input_injector_x11_health_iface_init (RyxHealthInterface *)
{
}

/* A server may leave out what it was asked for. */
static gboolean
is_description_whole (const XkbDescRec *xkb_desc)
{
  const XkbClientMapRec *map = xkb_desc->map;
  return map && map->types && map->syms && map->key_sym_map;
}

static void
init_xkb_desc (RyxInputInjectorX11 *input_injector)
{
  Display *xdisplay = gdk_x11_get_default_xdisplay ();
  ErrorTrap trap;

  input_injector->xkb_desc = XkbGetMap (xdisplay, xkb_map_components, XkbUseCoreKbd);
  if (input_injector->xkb_desc && !is_description_whole (input_injector->xkb_desc))
    XkbFreeKeyboard (g_steal_pointer (&input_injector->xkb_desc), 0, True);
  if (input_injector->xkb_desc)
    XkbGetNames (xdisplay, XkbSymbolsNameMask, input_injector->xkb_desc);
  trap.pop ();

  if (!input_injector->xkb_desc)
    {
      g_warning ("Unable to get XKB map");
      return;
    }

  g_info ("Initialized XKB description");
  if (!check_xkb_group_mode (input_injector))
    return;
  update_modifier_keycodes (input_injector);
  log_keyboard_layout (input_injector);
  follow_keymap (input_injector);
}

static gboolean
is_autorepeat_wanted (void)
{
  g_autoptr (GSettings) settings = ryx_settings_new ("com.quorlane.ryx.input");
  return g_settings_get_boolean (settings, "enable-autorepeat");
}

static void
disable_small_autorepeat (RyxInputInjectorX11 *input_injector)
{
  if (!input_injector->auto_repeat_enabled)
    return;

  g_info ("Disabling autorepeat for RYX since repeat delay is too small");
  input_injector->auto_repeat_enabled = FALSE;
}

/* The server's mode in words; turns autorepeat off if the server does. */
static gchar *
follow_server_repeat_mode (RyxInputInjectorX11 *input_injector)
{
  XKeyboardState keyboard = {};
  ErrorTrap trap;
  XGetKeyboardControl (gdk_x11_get_default_xdisplay (), &keyboard);
  if (trap.pop () != 0)
    keyboard.global_auto_repeat = -1; /* Xlib has filled in what it happened to find */

  switch (keyboard.global_auto_repeat)
    {
    case AutoRepeatModeOff:
      g_info ("Disabling autorepeat for RYX as OS mode is AutoRepeatModeOff");
      input_injector->auto_repeat_enabled = FALSE;
      return g_strdup ("off");
    case AutoRepeatModeOn:
      return g_strdup ("on");
    default:
      return g_strdup_printf ("<%d>", keyboard.global_auto_repeat);
    }
}

static void
init_keyboard_repeat (RyxInputInjectorX11 *input_injector)
{
  input_injector->auto_repeat_enabled = is_autorepeat_wanted ();
  g_info ("Keyboard autorepeat is %s", input_injector->auto_repeat_enabled ? "enabled" : "disabled");

  ErrorTrap trap;
  g_autofree gchar *mode = follow_server_repeat_mode (input_injector);
  const gboolean is_known = get_controls (input_injector, XkbRepeatKeysMask);
  trap.pop ();

  const guint delay = is_known ? input_injector->xkb_desc->ctrls->repeat_delay : 0;
  const guint interval = is_known ? input_injector->xkb_desc->ctrls->repeat_interval : 0;
  g_info ("Current system keyboard repeat: %s, delay: %d, rate %d", mode, delay, interval ? 1000 / interval : 0);

  input_injector->auto_repeat_delay = scale_repeat_delay (delay);
  if (input_injector->auto_repeat_delay < least_auto_repeat_delay)
    disable_small_autorepeat (input_injector);
  if (input_injector->auto_repeat_enabled)
    input_injector->delayed_keyup_events
      = g_hash_table_new_full (g_direct_hash, g_direct_equal, nullptr, free_keyup_timeout_request);
}

static void
init_buttons_map (RyxInputInjectorX11 *input_injector)
{
  unsigned char mapping[G_N_ELEMENTS (input_injector->buttons_map)] = {};

  memset (input_injector->buttons_map, 0, sizeof input_injector->buttons_map);

  ErrorTrap trap;
  const int n_buttons = XGetPointerMapping (gdk_x11_get_default_xdisplay (), mapping, G_N_ELEMENTS (mapping));
  if (trap.pop () != 0)
    {
      g_warning ("Failed to get pointer mapping");
      return;
    }
  if (n_buttons < 0)
    {
      g_warning ("pointer mapping reported a negative number of buttons");
      return;
    }

  input_injector->n_buttons = n_buttons;
  for (int i = 0; i < MIN (n_buttons, static_cast<int> (G_N_ELEMENTS (mapping))); i++)
    if (mapping[i] > 0 && mapping[i] < G_N_ELEMENTS (input_injector->buttons_map))
      input_injector->buttons_map[mapping[i]] = i + 1;
  g_debug ("Buttons map initialized (num buttons: %u)", input_injector->n_buttons);
}

static gboolean
init_extensions (void)
{
  Display *xdisplay = get_default_xdisplay ();
  int opcode, event_base, error_base, major, minor;
  ErrorTrap trap;

  if (!xdisplay || !XTestQueryExtension (xdisplay, &event_base, &error_base, &major, &minor))
    {
      g_warning ("XTEST Extension is not supported.");
      return FALSE;
    }
  if (!XkbQueryExtension (xdisplay, &opcode, &event_base, nullptr, nullptr, nullptr))
    {
      g_warning ("XKB Extension is not supported.");
      return FALSE;
    }

  /* What is injected goes on while another client holds a server grab. */
  XTestGrabControl (xdisplay, True);
  return TRUE;
}

static void
ryx_input_injector_x11_init (RyxInputInjectorX11 *input_injector)
{
  ErrorTrap trap; /* for what the others still wait for */

  if (!init_extensions ())
    return;

  input_injector->current_group = -1;
  init_xkb_desc (input_injector);
  init_keyboard_repeat (input_injector);
  init_buttons_map (input_injector);
  input_injector->pending_keysym = 0;
}

void
ryx_input_injector_x11_register (GIOModule *module)
{
  ryx_input_injector_x11_register_type (G_TYPE_MODULE (module));
}
