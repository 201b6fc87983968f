#include "access.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ryxweb.h"

static constexpr gsize least_token = 16, most_token = 128;

static gboolean
make_token (std::string *token, GError **error)
{
  guint8 bytes[16];

  if (getrandom (bytes, sizeof bytes, 0) != sizeof bytes)
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "The system gives no random numbers");
      return FALSE;
    }
  for (guint8 byte : bytes)
    *token += { "0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15] };
  return TRUE;
}

static gboolean
fail_file (GError **error, const gchar *file, const gchar *reason)
{
  g_set_error (error, G_IO_ERROR, G_IO_ERROR_FAILED, "The token file %s %s", file, reason);
  return FALSE;
}

/* What others can read is no secret. */
static gboolean
read_token (int fd, const gchar *file, std::string *token, GError **error)
{
  gchar text[most_token + 2] = {};
  struct stat status;

  if (fstat (fd, &status) != 0 || !S_ISREG (status.st_mode) || status.st_uid != geteuid () || (status.st_mode & 077))
    return fail_file (error, file, "must be a file of yours that nobody else can read (chmod 600)");
  if (read (fd, text, sizeof text - 1) < 0)
    return fail_file (error, file, g_strerror (errno));

  *token = g_strchomp (text);
  if (token->size () < least_token || token->size () > most_token
      || token->find_first_not_of ("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_")
           != std::string::npos)
    return fail_file (error, file, "must hold 16 to 128 letters, digits, - and _");
  return TRUE;
}

static gboolean
open_token_file (const gchar *file, std::string *token, GError **error)
{
  int fd = open (file, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  gboolean is_done;

  if (fd >= 0)
    is_done = read_token (fd, file, token, error);
  else if (errno != ENOENT || (fd = open (file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) < 0)
    return fail_file (error, file, g_strerror (errno));
  else
    is_done = make_token (token, error)
              && (dprintf (fd, "%s\n", token->c_str ()) > 0 || fail_file (error, file, g_strerror (errno)));
  close (fd);
  return is_done;
}

gboolean
Access::open (GError **error)
{
  if (!(options.token_file ? open_token_file (options.token_file, &token, error) : make_token (&token, error)))
    return FALSE;

  g_autofree gchar *digest = g_compute_checksum_for_string (G_CHECKSUM_SHA256, token.c_str (), -1);
  cookie_name = std::string ("ryx-") + std::string (digest, 8);
  return TRUE;
}

/* In a time that tells nothing about the token. */
bool
Access::is_token (const gchar *text) const
{
  const gsize length = strlen (text);
  guint8 difference = length != token.size ();

  for (gsize i = 0; i < token.size (); i++)
    difference |= token[i] ^ text[i < length ? i : 0];
  return difference == 0;
}

bool
Access::has_cookie (SoupServerMessage *message) const
{
  const gchar *header = soup_message_headers_get_list (soup_server_message_get_request_headers (message), "Cookie");
  g_auto (GStrv) cookies = g_strsplit (header ? header : "", ";", 64);

  for (gchar **cookie = cookies; *cookie; cookie++)
    {
      gchar *value = strchr (g_strstrip (*cookie), '=');
      if (value && std::string (*cookie, value) == cookie_name && is_token (value + 1))
        return true;
    }
  return false;
}

static void
refuse (SoupServerMessage *message, guint status, const gchar *sentence)
{
  soup_server_message_set_status (message, status, nullptr);
  soup_server_message_set_response (message, "text/plain; charset=utf-8", SOUP_MEMORY_COPY, sentence,
                                    strlen (sentence));
}

/* A browser says from which page a socket is opened, or a request made that changes something. */
static bool
is_foreign (SoupServerMessage *message)
{
  SoupMessageHeaders *headers = soup_server_message_get_request_headers (message);
  const gchar *host = soup_message_headers_get_one (headers, "Host");
  const gchar *origin = soup_message_headers_get_one (headers, "Origin");
  const bool is_handshake = soup_message_headers_get_one (headers, "Upgrade") != nullptr;

  if (!origin)
    return is_handshake;
  const gchar *authority = strstr (origin, "://");
  return !host || !authority || g_ascii_strcasecmp (authority + 3, host) != 0;
}

static void
add_headers (SoupMessageHeaders *headers)
{
  static const gchar *const lines[][2] = {
    { "Content-Security-Policy", "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
                                 "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'" },
    { "X-Frame-Options", "DENY" },
    { "X-Content-Type-Options", "nosniff" },
    { "Cross-Origin-Resource-Policy", "same-origin" },
    { "Cross-Origin-Opener-Policy", "same-origin" },
    { "Referrer-Policy", "no-referrer" },
    { "Cache-Control", "no-store" },
  };

  for (const auto &[name, value] : lines)
    soup_message_headers_replace (headers, name, value);
}

bool
Access::check (SoupServerMessage *message, GUri *uri) const
{
  SoupMessageHeaders *headers = soup_server_message_get_response_headers (message);
  const gchar *query = g_uri_get_query (uri);

  soup_message_body_set_accumulate (soup_server_message_get_request_body (message), FALSE);
  add_headers (headers);
  if (!g_str_equal (soup_server_message_get_method (message), "GET"))
    refuse (message, SOUP_STATUS_METHOD_NOT_ALLOWED, "There is nothing to do but to look.\n");
  else if (is_foreign (message))
    refuse (message, SOUP_STATUS_FORBIDDEN, "Another site's page can't come in here.\n");
  else if (query && g_str_has_prefix (query, "token=") && is_token (query + strlen ("token=")))
    {
      g_autofree gchar *cookie = g_strdup_printf ("%s=%s; Path=/; HttpOnly; SameSite=Strict%s", cookie_name.c_str (),
                                                  token.c_str (), options.tls_cert ? "; Secure" : "");
      soup_message_headers_append (headers, "Set-Cookie", cookie);
      soup_message_headers_append (headers, "Location", "/"); /* whatever name a tunnel gives this place */
      soup_server_message_set_status (message, SOUP_STATUS_SEE_OTHER, nullptr);
    }
  else if (!has_cookie (message) || query)
    refuse (message, SOUP_STATUS_FORBIDDEN,
            "Open the address that ryx-web has printed; it holds this session's key.\n");
  else
    return true;
  return false;
}
