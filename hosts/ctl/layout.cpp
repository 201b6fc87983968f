#include "commands.h"

#include <csignal>

#include "log.h"

/* What X can tell of a size and of a position. */
static const guint64 max_size = 65535;
static const guint64 max_position = 32767;

/* Digits only, and moves @text behind them. */
static gboolean
parse_number (const gchar **text, guint64 min, guint64 max, guint32 *number)
{
  if (!g_ascii_isdigit (**text))
    return FALSE;

  gchar *end;
  const guint64 value = g_ascii_strtoull (*text, &end, 10);
  *text = end;
  *number = static_cast<guint32> (value);
  return value >= min && value <= max;
}

static gboolean
parse_character (const gchar **text, gchar character)
{
  return *(*text)++ == character;
}

/* WxH+X+Y, and nothing more. */
static gboolean
parse_geometry (const gchar *text, RyxRect *rect)
{
  return parse_number (&text, 1, max_size, &rect->width) && parse_character (&text, 'x')
         && parse_number (&text, 1, max_size, &rect->height) && parse_character (&text, '+')
         && parse_number (&text, 0, max_position, &rect->x) && parse_character (&text, '+')
         && parse_number (&text, 0, max_position, &rect->y) && parse_character (&text, '\0');
}

/* A new layout; NULL with @error set. */
static RyxDisplayLayout *
parse_layout (gchar **words, GError **error)
{
  g_autoptr (GPtrArray) heads
    = g_ptr_array_new_with_free_func (reinterpret_cast<GDestroyNotify> (ryx_display_head_unref));

  for (; *words; words++)
    {
      RyxRect rect;

      if (!parse_geometry (*words, &rect))
        {
          set_usage_error (error, "layout: \"%s\" is not a head's geometry (WxH+X+Y)", *words);
          return nullptr;
        }
      g_ptr_array_add (heads, ryx_display_head_new (*words, &rect, heads->len == 0));
    }

  if (heads->len == 0)
    {
      set_usage_error (error, "layout: no head was given (WxH+X+Y)");
      return nullptr;
    }
  return ryx_display_layout_new (heads->len, reinterpret_cast<RyxDisplayHead **> (heads->pdata));
}

/* Between a switch-off and the switch-on behind it, the end of the program would leave the screen black: signals wait.
 */
class SignalDelay
{
public:
  SignalDelay ()
  {
    sigset_t all;
    sigfillset (&all);
    pthread_sigmask (SIG_BLOCK, &all, &previous);
  }
  ~SignalDelay () { pthread_sigmask (SIG_SETMASK, &previous, nullptr); }
  SignalDelay (const SignalDelay &) = delete;
  SignalDelay &operator= (const SignalDelay &) = delete;

private:
  sigset_t previous;
};

static gboolean
request_layout (RyxDisplayLayout *layout, GError **error)
{
  g_autoptr (GObject) manager
    = G_OBJECT (ryx_host_create (RYX_DISPLAY_LAYOUT_MANAGER_EXTENSION_POINT, nullptr, error, nullptr));
  const SignalDelay signal_delay;
  const LogDelay log_delay;

  return manager && ryx_display_layout_manager_request_layout (RYX_DISPLAY_LAYOUT_MANAGER (manager), layout, error);
}

static gboolean
run_layout (const Command *command, gchar ***argv, GError **error)
{
  if (!parse_options (command, nullptr, argv, error))
    return FALSE;

  g_autoptr (RyxDisplayLayout) wanted = parse_layout (*argv + 1, error);
  if (!wanted || !open_session (error) || !request_layout (wanted, error))
    return FALSE;

  g_autoptr (RyxDisplayLayout) layout = get_layout (error);
  if (!layout)
    return FALSE;

  print_heads (layout);
  return TRUE;
}

const Command layout_command = {
  .name = "layout",
  .arguments = "WxH+X+Y …",
  .summary = "Reshape the screen to these heads, and show what it became",
  .description = "Sizes and positions are in pixels. The monitors of the session get the heads in the order given;\n"
                 "monitors are switched on or off until there is one for each head. Sizes are rounded down to\n"
                 "multiples of 8 and brought between 640x480 and 4096x4096. The output is that of “ryxctl heads”.",
  .run = run_layout,
};
