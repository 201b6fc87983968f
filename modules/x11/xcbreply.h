#pragma once

#include <cstdlib>
#include <memory>
#include <span>

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

/* Both are empty when the connection broke: then nothing was answered at all. So they are when the server is broken
 * and sends less than the fixed part of its reply. */
template <typename Reply> struct XcbAnswer
{
  XcbReply<Reply> reply;
  XcbError error;
};

template <typename Reply>
gsize
get_reply_size (const Reply *reply)
{
  return 32 + gsize{ reply->length } * 4;
}

/* A list of the reply as far as it lies in the reply: nobody but the server has counted it. */
template <typename Reply, typename Item>
std::span<const Item>
get_list (const Reply *reply, const Item *first, gsize n_items)
{
  const auto start = reinterpret_cast<guintptr> (first);
  const guintptr end = reinterpret_cast<guintptr> (reply) + get_reply_size (reply);

  return { first, start < end ? MIN (n_items, (end - start) / sizeof (Item)) : 0 };
}

template <typename Cookie, typename Reply>
XcbAnswer<Reply>
await_reply (xcb_connection_t *conn, Cookie cookie,
             Reply *(*read) (xcb_connection_t *, Cookie, xcb_generic_error_t **) )
{
  xcb_generic_error_t *error = nullptr;
  XcbReply<Reply> reply (read (conn, cookie, &error));

  if (reply && get_reply_size (reply.get ()) < sizeof (Reply))
    reply.reset ();
  return { std::move (reply), XcbError (error) };
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

/* Whether the screens, their depths and their visuals lie in the set-up; xcb's iterators go by its counts. */
inline bool
is_setup_whole (const xcb_setup_t *setup)
{
  const gsize setup_size = 8 + gsize{ setup->length } * 4;
  gsize size = sizeof *setup; /* of what has been seen */
  const auto *bytes = reinterpret_cast<const guint8 *> (setup);
  const auto has = [&] (gsize more) { return size + more <= setup_size; };

  if (!has (0))
    return false;

  size += (setup->vendor_len + 3) / 4 * 4 + gsize{ setup->pixmap_formats_len } * sizeof (xcb_format_t);
  for (guint n_screens = setup->roots_len; n_screens > 0; n_screens--)
    {
      if (!has (sizeof (xcb_screen_t)))
        return false;

      guint n_depths = reinterpret_cast<const xcb_screen_t *> (bytes + size)->allowed_depths_len;
      size += sizeof (xcb_screen_t);
      for (; n_depths > 0 && has (sizeof (xcb_depth_t)); n_depths--)
        size += sizeof (xcb_depth_t)
                + reinterpret_cast<const xcb_depth_t *> (bytes + size)->visuals_len * sizeof (xcb_visualtype_t);
      if (n_depths > 0)
        return false;
    }
  return has (0);
}

/* The root at a position in the connection's list of screens, NULL when the list ends before. */
inline xcb_screen_t *
get_screen (xcb_connection_t *conn, int number)
{
  if (!is_setup_whole (xcb_get_setup (conn)))
    return nullptr;

  xcb_screen_iterator_t screens = xcb_setup_roots_iterator (xcb_get_setup (conn));
  for (; screens.rem > 0; xcb_screen_next (&screens))
    if (number-- == 0)
      return screens.data;
  return nullptr;
}

/* FALSE with @error set when the server's RandR can't be used, or when there is no connection. */
inline gboolean
require_randr_1_2 (xcb_connection_t *conn, GError **error)
{
  if (!conn || !find_extension (conn, &xcb_randr_id))
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "RandR extension not available");
      return FALSE;
    }

  const auto version = await_reply (conn, xcb_randr_query_version (conn, 1, 2), xcb_randr_query_version_reply).reply;
  if (!version)
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "Failed to get RandR version");
      return FALSE;
    }

  const bool is_recent = version->major_version > 1 || (version->major_version == 1 && version->minor_version >= 2);
  if (!is_recent)
    g_set_error (error, G_IO_ERROR, G_IO_ERROR_FAILED, "RandR version is too old (%d.%d, 1.2 required)",
                 version->major_version, version->minor_version);
  return is_recent;
}

inline std::span<const xcb_randr_crtc_t>
get_crtcs (const xcb_randr_get_screen_resources_reply_t *resources)
{
  return get_list (resources, xcb_randr_get_screen_resources_crtcs (resources), resources->num_crtcs);
}

inline std::span<const xcb_randr_output_t>
get_crtc_outputs (const xcb_randr_get_crtc_info_reply_t *crtc)
{
  return get_list (crtc, xcb_randr_get_crtc_info_outputs (crtc), crtc->num_outputs);
}

/* The name in the reply is not terminated. */
inline gchar *
get_output_name (const xcb_randr_get_output_info_reply_t *output)
{
  const auto name = get_list (output, xcb_randr_get_output_info_name (output), output->name_len);
  return g_strndup (reinterpret_cast<const gchar *> (name.data ()), name.size ());
}
