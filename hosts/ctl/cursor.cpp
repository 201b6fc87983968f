#include "commands.h"

#include <cstdio>

#include "json.h"
#include "picture.h"

/* A visible cursor is reported within a few hundredths of a second. */
static const guint hidden_after_ms = 2000;

static void
print_header ()
{
  g_print ("%10s %6s %6s %9s %9s %6s %6s\n", "ID", "WIDTH", "HEIGHT", "HOTSPOT-X", "HOTSPOT-Y", "X", "Y");
}

static void
print_cursor (RyxCursor *cursor, guint x, guint y)
{
  if (!global_options.json)
    {
      g_print ("%10" G_GUINT64_FORMAT " %6u %6u %9u %9u %6u %6u\n", ryx_cursor_get_id (cursor),
               ryx_cursor_get_width (cursor), ryx_cursor_get_height (cursor), ryx_cursor_get_hotspot_x (cursor),
               ryx_cursor_get_hotspot_y (cursor), x, y);
      return;
    }

  g_autoptr (JsonBuilder) json = json_builder_new ();
  json_builder_begin_object (json);
  add_json_int (json, "id", ryx_cursor_get_id (cursor));
  add_json_int (json, "width", ryx_cursor_get_width (cursor));
  add_json_int (json, "height", ryx_cursor_get_height (cursor));
  add_json_int (json, "hotspot_x", ryx_cursor_get_hotspot_x (cursor));
  add_json_int (json, "hotspot_y", ryx_cursor_get_hotspot_y (cursor));
  add_json_int (json, "x", x);
  add_json_int (json, "y", y);
  json_builder_end_object (json);
  print_json (json);
}

static GdkPixbuf *
make_cursor_picture (RyxCursor *cursor, GError **error)
{
  const guint width = ryx_cursor_get_width (cursor), height = ryx_cursor_get_height (cursor);
  const auto *argb = static_cast<const guint8 *> (g_bytes_get_data (ryx_cursor_get_pixels (cursor), nullptr));
  GdkPixbuf *picture = new_picture (TRUE, width, height, error);

  for (guint y = 0; picture && y < height; y++)
    {
      guchar *rgba = gdk_pixbuf_get_pixels (picture) + static_cast<gsize> (y) * gdk_pixbuf_get_rowstride (picture);

      for (guint x = 0; x < width; x++, argb += 4, rgba += 4)
        {
          rgba[0] = argb[1];
          rgba[1] = argb[2];
          rgba[2] = argb[3];
          rgba[3] = argb[0];
        }
    }
  return picture;
}

/* One run of the command. The monitor reports on every look; what has not changed is not shown again. */
class CursorRun
{
public:
  CursorRun (gboolean is_watch, const gchar *png_file) : watch (is_watch), png (png_file) {}

  gboolean
  run (GError **error)
  {
    g_autoptr (GObject) monitor
      = G_OBJECT (ryx_host_create (RYX_POINTER_MONITOR_EXTENSION_POINT, nullptr, error, nullptr));
    if (!monitor)
      return FALSE;

    g_signal_connect_swapped (monitor, "cursor-moved", G_CALLBACK (on_moved), this);
    g_signal_connect_swapped (monitor, "cursor-changed", G_CALLBACK (on_changed), this);

    const guint timeout = watch ? 0 : g_timeout_add (hidden_after_ms, on_timeout, this);
    ryx_pointer_monitor_start (RYX_POINTER_MONITOR (monitor));
    loop.run ();
    ryx_pointer_monitor_stop (RYX_POINTER_MONITOR (monitor));
    if (timeout)
      g_source_remove (timeout);

    if (!failure)
      return TRUE;
    g_propagate_error (error, failure);
    return FALSE;
  }

private:
  static void
  on_moved (CursorRun *run, guint x, guint y)
  {
    run->x = x;
    run->y = y;
  }

  static void
  on_changed (CursorRun *run, RyxCursor *cursor, gboolean, guint64)
  {
    run->show (cursor);
  }

  static gboolean
  on_timeout (gpointer data)
  {
    auto *run = static_cast<CursorRun *> (data);

    if (!run->is_shown)
      run->failure = g_error_new_literal (G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "No visible cursor was reported");
    run->loop.quit ();
    return G_SOURCE_CONTINUE;
  }

  void
  show (RyxCursor *cursor)
  {
    const bool is_new_shape = !is_shown || ryx_cursor_get_id (cursor) != shown_id;
    if (!is_new_shape && x == shown_x && y == shown_y)
      return;

    if (g_strcmp0 (png, "-") != 0)
      {
        if (!is_shown && !global_options.json)
          print_header ();
        print_cursor (cursor, x, y);
        fflush (stdout);
      }

    const bool is_written = !png || !is_new_shape || write_picture (cursor);
    if (!is_written || !watch)
      loop.quit ();

    is_shown = true;
    shown_id = ryx_cursor_get_id (cursor);
    shown_x = x;
    shown_y = y;
  }

  bool
  write_picture (RyxCursor *cursor)
  {
    g_autoptr (GdkPixbuf) picture = make_cursor_picture (cursor, &failure);
    return picture && save_png (picture, png, &failure);
  }

  InterruptibleLoop loop;
  const gboolean watch;
  const gchar *const png;
  guint x = 0, y = 0; /* as told last */
  bool is_shown = false;
  guint64 shown_id = 0;
  guint shown_x = 0, shown_y = 0;
  GError *failure = nullptr;
};

static gboolean
run_cursor (const Command *command, gchar ***argv, GError **error)
{
  gboolean watch = FALSE;
  g_autofree gchar *png = nullptr;
  const GOptionEntry entries[] = {
    { "watch", 0, 0, G_OPTION_ARG_NONE, &watch, "Print a line whenever the pointer moves or its shape changes",
      nullptr },
    { "png", 0, 0, G_OPTION_ARG_FILENAME, &png,
      "Write the shape, with its transparency, to a PNG; “-” is standard output", "FILE" },
    {},
  };

  if (!parse_options_only (command, entries, argv, error))
    return FALSE;
  if (watch && g_strcmp0 (png, "-") == 0)
    return set_usage_error (error, "cursor: with --watch, --png needs a file");
  if (!open_session (error))
    return FALSE;
  return CursorRun (watch, png).run (error);
}

const Command cursor_command = {
  .name = "cursor",
  .arguments = nullptr,
  .summary = "Show the pointer's shape and position: id, size, hotspot, position in pixels",
  .description = "With --json: an object with the keys id, width, height, hotspot_x, hotspot_y, x and y, or with\n"
                 "--watch one for each change. With --watch, the file of --png always holds the latest shape.",
  .run = run_cursor,
};
