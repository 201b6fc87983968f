#define G_LOG_DOMAIN "RYX:x11:input"

#include "inputinjectorx11-private.h"

#include <algorithm>
#include <span>

#include <X11/keysym.h>

#include "xcbreply.h"

/* A modifier that was changed for one key. */
struct AdjustedModifier
{
  KeyCode keycode;
  int pressed; /* or locked, if not 0 */
};

struct NumpadKey
{
  const char *character;
  guint keysym;
};

static const NumpadKey numpad_table[] = {
  { "0", XK_KP_0 },   { "1", XK_KP_1 },        { "2", XK_KP_2 },        { "3", XK_KP_3 },      { "4", XK_KP_4 },
  { "5", XK_KP_5 },   { "6", XK_KP_6 },        { "7", XK_KP_7 },        { "8", XK_KP_8 },      { "9", XK_KP_9 },
  { "+", XK_KP_Add }, { "-", XK_KP_Subtract }, { "*", XK_KP_Multiply }, { "/", XK_KP_Divide }, { ".", XK_KP_Decimal },
};

/* What the client holds */

static gboolean
is_shift_held (const RyxInputInjectorX11 *input_injector)
{
  return input_injector->left_shift_pressed || input_injector->right_shift_pressed;
}

static gboolean
is_control_held (const RyxInputInjectorX11 *input_injector)
{
  return input_injector->left_control_pressed || input_injector->right_control_pressed;
}

static gboolean
is_alt_held (const RyxInputInjectorX11 *input_injector)
{
  return input_injector->left_alt_pressed || input_injector->right_alt_pressed;
}

/* Adjusting modifiers */

static GSList *
prepend_adjusted_modifier (GSList *adjusted_modifiers, KeyCode keycode, int pressed)
{
  AdjustedModifier *modifier = g_slice_new (AdjustedModifier);

  modifier->keycode = keycode;
  modifier->pressed = pressed;
  return g_slist_prepend (adjusted_modifiers, modifier);
}

static void
free_adjusted_modifier (gpointer modifier)
{
  g_slice_free (AdjustedModifier, modifier);
}

static void
lock_modifiers (unsigned affected, unsigned values)
{
  XkbLockModifiers (gdk_x11_get_default_xdisplay (), XkbUseCoreKbd, affected, values);
}

static GSList *
release_if_held (GSList *adjusted_modifiers, KeyCode keycode, gboolean is_held)
{
  if (!is_held)
    return adjusted_modifiers;

  fake_key (keycode, FALSE);
  return prepend_adjusted_modifier (adjusted_modifiers, keycode, 0);
}

static GSList *
release_held_controls (const RyxInputInjectorX11 *input_injector, GSList *adjusted_modifiers)
{
  adjusted_modifiers
    = release_if_held (adjusted_modifiers, input_injector->left_control_keycode, input_injector->left_control_pressed);
  return release_if_held (adjusted_modifiers, input_injector->right_control_keycode,
                          input_injector->right_control_pressed);
}

static GSList *
release_held_alts (const RyxInputInjectorX11 *input_injector, GSList *adjusted_modifiers)
{
  adjusted_modifiers
    = release_if_held (adjusted_modifiers, input_injector->left_alt_keycode, input_injector->left_alt_pressed);
  return release_if_held (adjusted_modifiers, input_injector->right_alt_keycode, input_injector->right_alt_pressed);
}

static GSList *
adjust_caps_lock (const RyxInputInjectorX11 *input_injector, GSList *adjusted_modifiers, unsigned char state_mods)
{
  const gboolean lock = !(state_mods & LockMask);

  lock_modifiers (LockMask, lock ? LockMask : 0);
  return prepend_adjusted_modifier (adjusted_modifiers, input_injector->caps_lock_keycode, lock);
}

static GSList *
adjust_shift (const RyxInputInjectorX11 *input_injector, GSList *adjusted_modifiers, unsigned char level_mods)
{
  if (level_mods & ShiftMask)
    {
      fake_key (input_injector->left_shift_keycode, TRUE);
      return prepend_adjusted_modifier (adjusted_modifiers, input_injector->left_shift_keycode, 1);
    }

  adjusted_modifiers
    = release_if_held (adjusted_modifiers, input_injector->left_shift_keycode, input_injector->left_shift_pressed);
  return release_if_held (adjusted_modifiers, input_injector->right_shift_keycode, input_injector->right_shift_pressed);
}

static gboolean
has_control_with (unsigned char diff, int mask)
{
  return mask != 0 && (diff & ControlMask) && (diff & mask) == mask;
}

/* Brings the modifiers from @state_mods to @level_mods as far as the key needs it; returns what was changed, the last
 * change first. A key type that knows Lock is served by Caps Lock, which interferes with nothing the client holds. */
static GSList *
adjust_modifiers_for_level (RyxInputInjectorX11 *input_injector, unsigned char state_mods, unsigned char level_mods,
                            gboolean affected_by_caps_lock)
{
  const unsigned char diff = state_mods ^ level_mods;
  GSList *adjusted_modifiers = nullptr;
  ErrorTrap trap;

  if (affected_by_caps_lock)
    {
      if (!(diff & ShiftMask) != !(diff & LockMask))
        adjusted_modifiers = adjust_caps_lock (input_injector, adjusted_modifiers, state_mods);
    }
  else if (diff & ShiftMask)
    adjusted_modifiers = adjust_shift (input_injector, adjusted_modifiers, level_mods);

  if (diff & input_injector->altgrmask)
    {
      const int altgr = level_mods & input_injector->altgrmask;
      fake_key (input_injector->altgr_keycode, altgr != 0);
      adjusted_modifiers = prepend_adjusted_modifier (adjusted_modifiers, input_injector->altgr_keycode, altgr);
    }

  if (diff & input_injector->numlockmask)
    {
      const int num_lock = level_mods & input_injector->numlockmask;
      lock_modifiers (input_injector->numlockmask, num_lock ? input_injector->numlockmask : 0);
      adjusted_modifiers = prepend_adjusted_modifier (adjusted_modifiers, input_injector->num_lock_keycode, num_lock);
    }

  /* Clients without an AltGr key send it as Control and Alt. */
  if (has_control_with (diff, input_injector->rightaltmask))
    {
      adjusted_modifiers = release_held_controls (input_injector, adjusted_modifiers);
      adjusted_modifiers = release_held_alts (input_injector, adjusted_modifiers);
    }
  if (has_control_with (diff, input_injector->altgrmask))
    adjusted_modifiers = release_held_controls (input_injector, adjusted_modifiers);

  return adjusted_modifiers;
}

static void
restore_adjusted_modifiers (RyxInputInjectorX11 *input_injector, GSList *adjusted_modifiers)
{
  ErrorTrap trap;

  for (GSList *link = adjusted_modifiers; link; link = link->next)
    {
      const auto *modifier = static_cast<AdjustedModifier *> (link->data);

      if (modifier->keycode == input_injector->caps_lock_keycode)
        lock_modifiers (LockMask, modifier->pressed ? 0 : LockMask);
      else if (modifier->keycode == input_injector->num_lock_keycode)
        lock_modifiers (input_injector->numlockmask, modifier->pressed ? 0 : input_injector->numlockmask);
      else
        fake_key (modifier->keycode, !modifier->pressed);
    }
}

/* Finding keys */

static gboolean
is_numpad_key (guint32 keysym)
{
  for (const NumpadKey &key : numpad_table)
    if (key.keysym == keysym)
      return TRUE;
  return FALSE;
}

static gboolean
get_keyboard_state (XkbStateRec *state)
{
  Display *xdisplay = get_default_xdisplay ();
  ErrorTrap trap;

  if (xdisplay && XkbGetState (xdisplay, XkbUseCoreKbd, state) == Success)
    return TRUE;

  g_warning ("Failed to get the current keyboard state");
  return FALSE;
}

static gboolean
get_keycode_range (int *min_keycode, int *max_keycode)
{
  ErrorTrap trap;

  XDisplayKeycodes (gdk_x11_get_default_xdisplay (), min_keycode, max_keycode);
  if (trap.pop () == 0)
    return TRUE;

  g_warning ("Failed to get min and max display keycodes");
  return FALSE;
}

/* The key's symbols, a row for each group, as far as the description has them: it tells what the server says. */
static std::span<const KeySym>
get_symbols (const XkbDescRec *xkb_desc, int key)
{
  const gsize offset = xkb_desc->map->key_sym_map[key].offset, n_known = xkb_desc->map->size_syms;
  const gsize n_symbols = XkbKeyNumGroups (xkb_desc, key) * XkbKeyGroupsWidth (xkb_desc, key);

  return { xkb_desc->map->syms + MIN (offset, n_known), MIN (n_symbols, n_known - MIN (offset, n_known)) };
}

static const XkbKeyTypeRec *
get_key_type (const XkbDescRec *xkb_desc, int key, int group)
{
  const guint type = XkbKeyKeyTypeIndex (xkb_desc, key, group);
  if (type < xkb_desc->map->num_types)
    return &xkb_desc->map->types[type];

  g_warning ("Unexpected key type %u, the map only contains %u types", type, xkb_desc->map->num_types);
  return nullptr;
}

/* A key that has the keysym in @current_group, else the first one that has it in another group. */
static gboolean
find_keycode (RyxInputInjectorX11 *input_injector, guint32 keysym, int current_group, int *keycode, int *level,
              int *group)
{
  const XkbDescRec *xkb_desc = input_injector->xkb_desc;
  int min_keycode, max_keycode;
  gboolean found = FALSE;

  if (!get_keycode_range (&min_keycode, &max_keycode))
    return FALSE;

  /* The description ends with its own range, should that be the narrower one. */
  for (int key = MAX (min_keycode, xkb_desc->min_key_code); key <= MIN (max_keycode, xkb_desc->max_key_code); key++)
    {
      const auto symbols = get_symbols (xkb_desc, key);
      const int width = XkbKeyGroupsWidth (xkb_desc, key);

      for (int i = 0; i < static_cast<int> (symbols.size ()); i++)
        {
          if (symbols[i] != keysym || (found && i / width != current_group))
            continue;

          found = TRUE;
          *keycode = key;
          *level = i % width;
          *group = i / width;
          if (*group == current_group)
            return TRUE;
        }
    }
  return found;
}

static gboolean
is_affected_by_caps_lock (const XkbKeyTypeRec *type)
{
  for (int i = 0; i < type->map_count; i++)
    if (type->map[i].active && (type->map[i].mods.mask & LockMask))
      return TRUE;
  return FALSE;
}

/* The modifiers that select the level. Keypad digits are reached with Num Lock rather than with Shift. */
static gboolean
find_level_mods (RyxInputInjectorX11 *input_injector, const XkbKeyTypeRec *type, guint32 keysym, int level,
                 unsigned char *level_mods)
{
  const gboolean is_numpad = is_numpad_key (keysym);

  *level_mods = 0;
  if (level >= type->num_levels)
    {
      g_warning ("Unexpected level %d, the map only contains %d levels", level, type->num_levels);
      return FALSE;
    }
  if (level == 0)
    return TRUE;

  for (int i = 0; i < type->map_count; i++)
    {
      const XkbKTMapEntryRec &entry = type->map[i];
      if (!entry.active || entry.level != level)
        continue;

      *level_mods = entry.mods.mask;
      if (!is_numpad || (*level_mods & input_injector->numlockmask))
        return TRUE;
    }
  if (*level_mods != 0)
    return TRUE;

  g_warning ("Unable to find active map entry for level %d", level);
  return FALSE;
}

/* Adding keysyms */

/* Puts a keycode without symbols into @keycode, 0 if the keysym is in the server's keymap already, which has then not
 * been announced yet. FALSE when the keymap can't be read or is full. */
static gboolean
find_free_keycode (KeySym keysym, const gchar *name, int *keycode)
{
  xcb_connection_t *conn = get_xcb_connection ();
  int min_keycode, max_keycode;
  if (!conn || !get_keycode_range (&min_keycode, &max_keycode))
    return FALSE;

  /* Xlib would not tell how many keysyms there are. */
  const auto mapping = await_reply (conn, xcb_get_keyboard_mapping (conn, min_keycode, max_keycode - min_keycode + 1),
                                    xcb_get_keyboard_mapping_reply)
                         .reply;
  if (!mapping)
    {
      g_warning ("Failed to get min and max display keycodes");
      return FALSE;
    }

  const gsize width = mapping->keysyms_per_keycode;
  for (*keycode = min_keycode + 1; *keycode <= max_keycode; (*keycode)++)
    {
      const gsize position = (*keycode - min_keycode) * width;
      if (position + width > mapping->length)
        break;

      const std::span row (xcb_get_keyboard_mapping_keysyms (mapping.get ()) + position, width);
      if (std::ranges::count (row, NoSymbol) == std::ssize (row))
        return TRUE;
      if (std::ranges::count (row, keysym) > 0)
        {
          g_info ("%s was already added to the keymap", name);
          *keycode = 0;
          return TRUE;
        }
    }

  g_debug ("No space to add keysym %s to keymap", name);
  return FALSE;
}

static gboolean
change_keymap (int keycode, KeySym keysym)
{
  ErrorTrap trap;

  XChangeKeyboardMapping (gdk_x11_get_default_xdisplay (), keycode, 1, &keysym, 1);
  gdk_display_sync (gdk_display_get_default ());
  if (trap.pop () == 0)
    return TRUE;

  g_warning ("Failed to change keyboard map");
  return FALSE;
}

/* The keysym is typed when the server's announcement of the changed keymap has come. */
static gboolean
add_keysym_to_keymap (RyxInputInjectorX11 *input_injector, KeySym keysym)
{
  const gchar *name = gdk_keyval_name (keysym);
  int keycode;

  g_info ("Failed to find keysym %s, trying to add to keymap", name);
  if (input_injector->pending_keysym != 0)
    return FALSE;

  input_injector->pending_keysym = keysym;
  g_assert (keysym != NoSymbol);

  if (find_free_keycode (keysym, name, &keycode) && (keycode == 0 || change_keymap (keycode, keysym)))
    return TRUE;

  g_warning ("Unable to add keysym %s to keymap", name);
  input_injector->pending_keysym = 0;
  return FALSE;
}

/* Typing */

/* The latch lasts for the next key press; it counts from the effective group, and the keyboard wraps it into range.
 * Returns by how many groups, 0 for no latch. */
static int
latch_group (RyxInputInjectorX11 *input_injector, int effective_group, int group)
{
  const XkbControlsRec *ctrls = input_injector->xkb_desc->ctrls;
  if (group == effective_group || !ctrls || ctrls->num_groups == 0)
    return 0;

  ErrorTrap trap;
  const int latch = (group - effective_group) % ctrls->num_groups;
  XkbLatchGroup (gdk_x11_get_default_xdisplay (), XkbUseCoreKbd, latch);
  return latch;
}

static void
undo_latch (int latch)
{
  if (latch == 0)
    return;

  ErrorTrap trap;
  XkbLatchGroup (gdk_x11_get_default_xdisplay (), XkbUseCoreKbd, -latch);
}

static void
note_group (RyxInputInjectorX11 *input_injector, int group)
{
  if (group == input_injector->current_group)
    return;

  input_injector->current_group = group;
  g_info ("Keyboard group changed to %d", group);
}

static GSList *
adjust_modifiers (RyxInputInjectorX11 *input_injector, unsigned char state_mods, unsigned char level_mods,
                  gboolean affected_by_caps_lock)
{
  /* Shortcuts are sent as the client holds them. */
  if (is_control_held (input_injector) && !is_alt_held (input_injector))
    return nullptr;
  return adjust_modifiers_for_level (input_injector, state_mods, level_mods, affected_by_caps_lock);
}

/* The press of a key that is down uses no latch up. */
static void
check_state (const XkbStateRec *previous, int latch)
{
  XkbStateRec state;
  if (!get_keyboard_state (&state))
    return;

  if (state.latched_group != 0 && state.latched_group == static_cast<guint16> (previous->latched_group + latch))
    undo_latch (latch);
  if (state.mods != previous->mods)
    g_warning ("Modifiers state changed! (current state: 0x%.2x, was: 0x%.2x)", state.mods, previous->mods);
}

static void
request_key (RyxInputInjectorX11 *input_injector, int keycode, GSList *adjusted_modifiers, gboolean key_down)
{
  if (key_down)
    request_keydown (input_injector, keycode, adjusted_modifiers != nullptr);
  else
    request_keyup (input_injector, keycode);
  restore_adjusted_modifiers (input_injector, adjusted_modifiers);
}

/* The server refused a request, nobody knows which: whatever may be left changed by that is put back once more. */
static void
put_back_again (RyxInputInjectorX11 *input_injector, int keycode, GSList *adjusted_modifiers)
{
  send_and_flush ([=] {
    if (!is_kept_down (input_injector, keycode))
      inject_keycode_release (keycode);
    restore_adjusted_modifiers (input_injector, adjusted_modifiers);
  });
}

void
inject_key (RyxInputInjectorX11 *input_injector, guint32 keysym, gboolean key_down)
{
  ErrorTrap trap;
  XkbStateRec state;
  int keycode, level, group;
  unsigned char level_mods;

  if (!get_keyboard_state (&state))
    return;
  if (!find_keycode (input_injector, keysym, state.group, &keycode, &level, &group))
    {
      add_keysym_to_keymap (input_injector, keysym);
      return;
    }

  input_injector->pending_keysym = 0;
  const int latch = latch_group (input_injector, state.group, group);
  note_group (input_injector, group);

  const XkbKeyTypeRec *type = get_key_type (input_injector->xkb_desc, keycode, group);
  if (!type || !find_level_mods (input_injector, type, keysym, level, &level_mods))
    {
      undo_latch (latch);
      return;
    }

  GSList *adjusted_modifiers
    = adjust_modifiers (input_injector, state.mods, level_mods, is_affected_by_caps_lock (type));
  request_key (input_injector, keycode, adjusted_modifiers, key_down);
  if (!key_down)
    undo_latch (latch); /* a release has not used it up; it would change the next key */
  gdk_flush ();
  if (trap.pop () != 0)
    put_back_again (input_injector, keycode, adjusted_modifiers);
  g_slist_free_full (adjusted_modifiers, free_adjusted_modifier);

  check_state (&state, latch);
}

static guint32
get_numpad_keysym (const gchar *character, guint32 keysym)
{
  for (const NumpadKey &key : numpad_table)
    if (g_strcmp0 (character, key.character) == 0)
      keysym = key.keysym;
  return keysym;
}

static gunichar
apply_held_case (const RyxInputInjectorX11 *input_injector, gunichar code_point)
{
  if (!is_control_held (input_injector) || !g_unichar_isalpha (code_point))
    return code_point;
  return is_shift_held (input_injector) ? g_unichar_toupper (code_point) : g_unichar_tolower (code_point);
}

void
ryx_input_injector_x11_key_event (RyxInputInjector *input_injector, const gchar *character,
                                  RyxInputInjectorKeyLocation location, gboolean key_down)
{
  RETURN_IF_FOREIGN (input_injector);
  g_return_if_fail (character != NULL);

  RyxInputInjectorX11 *injector = RYX_INPUT_INJECTOR_X11 (input_injector);
  if (!g_utf8_validate (character, -1, nullptr))
    {
      g_warning ("Received invalid key event");
      return;
    }
  if (!injector->xkb_desc)
    {
      g_warning ("No keyboard description, dropping key event");
      return;
    }

  for (; *character; character = g_utf8_next_char (character))
    {
      const gunichar code_point = apply_held_case (injector, g_utf8_get_char (character));
      guint32 keysym = gdk_unicode_to_keyval (code_point);

      if (location == RYX_INPUT_INJECTOR_KEY_LOCATION_NUMPAD)
        keysym = get_numpad_keysym (character, keysym);
      inject_key (injector, keysym, key_down);
    }
}
