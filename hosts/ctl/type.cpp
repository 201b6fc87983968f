#include "commands.h"

#include <cerrno>
#include <cstring>

#include <glib-unix.h>
#include <unistd.h>

#include "injector.h"

struct ControlKey
{
  gunichar character;
  const gchar *name;
};

static const ControlKey control_keys[] = {
  { '\b', "Backspace" }, { '\t', "Tab" }, { '\n', "Enter" }, { '\r', "Enter" }, { 0x1b, "Escape" }, { 0x7f, "Delete" },
};

static const gchar *
get_control_key (gunichar character)
{
  for (const ControlKey &key : control_keys)
    if (key.character == character)
      return key.name;
  return nullptr;
}

static const gunichar invalid = -1, incomplete = -2; /* as GLib says it */

static gunichar
read_character (const gchar *text, gsize length)
{
  return *text ? g_utf8_get_char_validated (text, length) : 0;
}

static gboolean
check_character (gunichar character, guint64 position, GError **error)
{
  if (character == invalid || character == incomplete)
    {
      g_set_error (error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA,
                   "type: the text is not valid UTF-8 at byte %" G_GUINT64_FORMAT, position);
      return FALSE;
    }
  if (g_unichar_iscntrl (character) && !get_control_key (character))
    {
      g_set_error (error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA,
                   "type: no key makes the control character U+%04X at byte %" G_GUINT64_FORMAT, character, position);
      return FALSE;
    }
  return TRUE;
}

/* Types text that comes in pieces, cut anywhere. */
class Typist
{
public:
  explicit Typist (InjectorSession *for_session) : session (for_session), pending (g_byte_array_new ()) {}
  ~Typist () { g_byte_array_unref (pending); }
  Typist (const Typist &) = delete;
  Typist &operator= (const Typist &) = delete;

  gboolean
  take (const void *bytes, gsize length, GError **error)
  {
    gsize n_typed = 0;

    g_byte_array_append (pending, static_cast<const guint8 *> (bytes), length);
    while (n_typed < pending->len && !session->loop.was_interrupted ())
      {
        const auto *text = reinterpret_cast<const gchar *> (pending->data) + n_typed;
        const gunichar character = read_character (text, pending->len - n_typed);

        if (character == incomplete) /* the rest of it is still to come */
          break;
        if (!check_character (character, n_bytes + n_typed, error))
          return FALSE;
        type_character (character);
        n_typed += g_utf8_next_char (text) - text;
      }

    g_byte_array_remove_range (pending, 0, n_typed);
    n_bytes += n_typed;
    return TRUE;
  }

  gboolean
  finish (GError **error)
  {
    return session->check_interruption (error) && (pending->len == 0 || check_character (incomplete, n_bytes, error));
  }

private:
  void
  type_character (gunichar character)
  {
    const gchar *control_key = get_control_key (character);
    const bool is_second_of_line_end = character == '\n' && previous == '\r';

    if (!control_key)
      {
        gchar utf8[8] = {};
        g_unichar_to_utf8 (character, utf8);
        session->type (utf8);
      }
    else if (!is_second_of_line_end)
      session->strike (control_key);
    previous = character;
  }

  InjectorSession *const session;
  GByteArray *const pending; /* the beginning of a character, between two pieces */
  gunichar previous = 0;
  guint64 n_bytes = 0;
};

/* Types what comes through standard input, as it comes. */
class InputTyper
{
public:
  explicit InputTyper (InjectorSession *for_session) : session (for_session), typist (for_session) {}

  gboolean
  run (GError **error)
  {
    const guint source
      = g_unix_fd_add (STDIN_FILENO, static_cast<GIOCondition> (G_IO_IN | G_IO_HUP | G_IO_ERR), on_input, this);

    session->loop.run ();
    g_source_remove (source);
    if (failure)
      {
        g_propagate_error (error, failure);
        return FALSE;
      }
    return typist.finish (error);
  }

private:
  static gboolean
  on_input (gint, GIOCondition, gpointer data)
  {
    auto *typer = static_cast<InputTyper *> (data);

    if (!typer->take_piece ())
      typer->session->loop.quit ();
    return G_SOURCE_CONTINUE;
  }

  /* FALSE at the end. */
  gboolean
  take_piece ()
  {
    gchar piece[4096];
    const gssize length = read (STDIN_FILENO, piece, sizeof piece);

    if (length < 0)
      {
        const int code = errno;
        g_set_error (&failure, G_IO_ERROR, g_io_error_from_errno (code), "Cannot read standard input: %s",
                     g_strerror (code));
      }
    return length > 0 && typist.take (piece, length, &failure);
  }

  InjectorSession *const session;
  Typist typist;
  GError *failure = nullptr;
};

static gboolean
check_text (const gchar *text, GError **error)
{
  g_autoptr (GError) failure = nullptr;
  const gsize length = strlen (text);
  gsize i = 0;

  while (i < length)
    {
      if (!check_character (read_character (text + i, length - i), i, &failure))
        return set_usage_error (error, "%s", failure->message);
      i += g_utf8_next_char (text + i) - (text + i);
    }
  return TRUE;
}

static gboolean
type_text (const gchar *text, GError **error)
{
  InjectorSession session;
  if (!check_text (text, error) || !session.open (error))
    return FALSE;

  Typist typist (&session);
  return typist.take (text, strlen (text), error) && typist.finish (error);
}

static gboolean
type_input (GError **error)
{
  InjectorSession session;

  return session.open (error) && InputTyper (&session).run (error);
}

static gboolean
run_type (const Command *command, gchar ***argv, GError **error)
{
  if (!parse_options (command, nullptr, argv, error))
    return FALSE;

  gchar **words = *argv + 1;
  if (!*words)
    return set_usage_error (error, "type: a text is missing");
  if (g_str_equal (*words, "-") && !words[1])
    return type_input (error);

  g_autofree gchar *text = g_strjoinv (" ", words);
  return type_text (text, error);
}

const Command type_command = {
  .name = "type",
  .arguments = "TEXT … | -",
  .summary = "Type a text (UTF-8); “-” types what standard input brings",
  .description = "Several words are typed with a space between them. Line ends, tabs, backspaces, escapes and deletes\n"
                 "strike their keys. A character that the keyboard map lacks is added to it and stays there.",
  .run = run_type,
};
