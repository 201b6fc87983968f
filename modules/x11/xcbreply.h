#pragma once

#include <cstdlib>
#include <memory>

#include <gio/gio.h>
#include <xcb/randr.h>
#include <xcb/xcb.h>

struct FreeDeleter
{
  void
  operator() (void *memory) const
  {
    free (memory);
  }
};

template <typename T> using XcbReply = std::unique_ptr<T, FreeDeleter>;
using XcbError = XcbReply<xcb_generic_error_t>;
using XcbEvent = XcbReply<xcb_generic_event_t>;

/* Both are empty when the connection broke: then nothing was answered at all. */
template <typename Reply> struct XcbAnswer
{
  XcbReply<Reply> reply;
  XcbError error;
};

template <typename Cookie, typename Reply>
XcbAnswer<Reply>
await_reply (xcb_connection_t *conn, Cookie cookie,
             Reply *(*read) (xcb_connection_t *, Cookie, xcb_generic_error_t **) )
{
  xcb_generic_error_t *error = nullptr;
  Reply *reply = read (conn, cookie, &error);
  return { XcbReply<Reply> (reply), XcbError (error) };
}

/* For a checked request without a reply; empty when the server took it. */
inline XcbError
await_check (xcb_connection_t *conn, xcb_void_cookie_t cookie)
{
  return XcbError (xcb_request_check (conn, cookie));
}

/* The two numbers that messages quote, 0 and 0 when the connection broke and left no X error. */
inline guint
response_type_of (const XcbError &x_error)
{
  return x_error ? x_error->response_type : 0;
}

inline guint
error_code_of (const XcbError &x_error)
{
  return x_error ? x_error->error_code : 0;
}

/* Sets @error to the formatted text with the X error's numbers appended; returns FALSE. */
G_GNUC_PRINTF (5, 6)
inline gboolean
set_x_error (GError **error, GQuark domain, gint code, const XcbError &x_error, const gchar *format, ...)
{
  va_list args;
  va_start (args, format);
  g_autofree gchar *text = g_strdup_vprintf (format, args);
  va_end (args);

  g_set_error (error, domain, code, "%s (response_type: %u error_code: %u)", text, response_type_of (x_error),
               error_code_of (x_error));
  return FALSE;
}

/* NULL when the server has no such extension, or when the connection broke. */
inline const xcb_query_extension_reply_t *
find_extension (xcb_connection_t *conn, xcb_extension_t *id)
{
  const xcb_query_extension_reply_t *extension = xcb_get_extension_data (conn, id);
  return extension && extension->present ? extension : nullptr;
}

/* The root at a position in the connection's list of screens, NULL when the list ends before. */
inline xcb_screen_t *
get_screen (xcb_connection_t *conn, int number)
{
  xcb_screen_iterator_t screens = xcb_setup_roots_iterator (xcb_get_setup (conn));

  for (; screens.rem > 0; xcb_screen_next (&screens))
    if (number-- == 0)
      return screens.data;
  return nullptr;
}

inline bool
is_randr_1_2 (const xcb_randr_query_version_reply_t &version)
{
  return version.major_version > 1 || (version.major_version == 1 && version.minor_version >= 2);
}

/* The name in the reply is not terminated. */
inline gchar *
get_output_name (const xcb_randr_get_output_info_reply_t *output)
{
  return g_strndup (reinterpret_cast<const gchar *> (xcb_randr_get_output_info_name (output)),
                    xcb_randr_get_output_info_name_length (output));
}
