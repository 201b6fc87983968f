#include "readerwaker.h"

#include <cstdlib>

#include <gio/gio.h>
#include <xcb/damage.h>
#include <xcb/xfixes.h>

struct ReaderWaker::Connection
{
  xcb_connection_t *conn;
  xcb_window_t root = XCB_NONE;
  xcb_xfixes_region_t pixel = XCB_NONE;

  explicit Connection (xcb_connection_t *connection) : conn (connection) {}
  ~Connection () { xcb_disconnect (conn); }
  Connection (const Connection &) = delete;
  Connection &operator= (const Connection &) = delete;
};

/* Both extensions turn down clients that did not ask for their version. A reader waits with Damage 1.0 too, which can't
 * wake it. */
static bool
has_damage (xcb_connection_t *conn, bool *can_wake)
{
  const auto *damage = xcb_get_extension_data (conn, &xcb_damage_id);
  const auto *xfixes = xcb_get_extension_data (conn, &xcb_xfixes_id);
  if (!damage || !damage->present || !xfixes || !xfixes->present)
    return false;

  const auto damage_cookie = xcb_damage_query_version (conn, 1, 1);
  const auto xfixes_cookie = xcb_xfixes_query_version (conn, 5, 0);
  auto *damage_version = xcb_damage_query_version_reply (conn, damage_cookie, nullptr);
  auto *xfixes_version = xcb_xfixes_query_version_reply (conn, xfixes_cookie, nullptr);
  const bool is_usable = damage_version && xfixes_version;
  *can_wake = is_usable && damage_version->minor_version >= 1;

  free (damage_version);
  free (xfixes_version);
  return is_usable;
}

ReaderWaker::ReaderWaker (std::unique_ptr<Connection> open_connection) : connection (std::move (open_connection)) {}

ReaderWaker::~ReaderWaker () = default;

std::unique_ptr<ReaderWaker>
ReaderWaker::connect (GError **error)
{
  int screen_number = 0;
  auto connection = std::make_unique<Connection> (xcb_connect (nullptr, &screen_number));

  if (xcb_connection_has_error (connection->conn))
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "Cannot open a second connection to the display");
      return nullptr;
    }
  bool can_wake = false;
  if (!has_damage (connection->conn, &can_wake))
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED, "The display can't report damage");
      return nullptr;
    }
  if (!can_wake)
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "The display's Damage extension is too old");
      return nullptr;
    }

  auto screens = xcb_setup_roots_iterator (xcb_get_setup (connection->conn));
  while (screen_number-- > 0 && screens.rem > 1)
    xcb_screen_next (&screens);
  if (screens.rem == 0)
    {
      g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_FAILED, "The display has no screen");
      return nullptr;
    }

  const xcb_rectangle_t origin = { 0, 0, 1, 1 };
  connection->root = screens.data->root;
  connection->pixel = xcb_generate_id (connection->conn);
  xcb_xfixes_create_region (connection->conn, connection->pixel, 1, &origin);
  xcb_flush (connection->conn);
  return std::unique_ptr<ReaderWaker> (new ReaderWaker (std::move (connection)));
}

void
ReaderWaker::wake ()
{
  xcb_damage_add (connection->conn, connection->root, connection->pixel);
  xcb_flush (connection->conn);
}
