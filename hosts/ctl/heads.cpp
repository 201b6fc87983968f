#include "commands.h"

#include <cstdio>
#include <cstring>

#include <gdk/gdk.h>

#include "json.h"

static void
print_head (RyxDisplayHead *head)
{
  RyxRect rect;
  ryx_display_head_get_rect (head, &rect);

  g_print ("%-16s %10u %6d %6d %6u %6u\n", ryx_display_head_get_name (head), ryx_display_head_get_output_id (head),
           static_cast<gint> (rect.x), static_cast<gint> (rect.y), rect.width, rect.height);
}

static void
add_head_to_json (JsonBuilder *json, RyxDisplayHead *head)
{
  RyxRect rect;
  ryx_display_head_get_rect (head, &rect);

  json_builder_begin_object (json);
  add_json_string (json, "name", ryx_display_head_get_name (head));
  add_json_int (json, "output_id", ryx_display_head_get_output_id (head));
  add_json_int (json, "x", static_cast<gint> (rect.x));
  add_json_int (json, "y", static_cast<gint> (rect.y));
  add_json_int (json, "width", rect.width);
  add_json_int (json, "height", rect.height);
  add_json_boolean (json, "primary", ryx_display_head_get_primary (head));
  json_builder_end_object (json);
}

void
print_heads (RyxDisplayLayout *layout)
{
  guint32 n_heads;
  RyxDisplayHead **heads = ryx_display_layout_get_heads (layout, &n_heads);

  if (!global_options.json)
    {
      g_print ("%-16s %10s %6s %6s %6s %6s\n", "HEAD", "OUTPUT", "X", "Y", "WIDTH", "HEIGHT");
      for (guint32 i = 0; i < n_heads; i++)
        print_head (heads[i]);
      return;
    }

  g_autoptr (JsonBuilder) json = json_builder_new ();
  json_builder_begin_array (json);
  for (guint32 i = 0; i < n_heads; i++)
    add_head_to_json (json, heads[i]);
  json_builder_end_array (json);
  print_json (json);
}

RyxDisplayLayout *
get_layout (GError **error)
{
  g_autoptr (GObject) enumerator
    = G_OBJECT (ryx_host_create (RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT, nullptr, error, nullptr));

  return enumerator ? ryx_display_enumerator_get_display_layout (RYX_DISPLAY_ENUMERATOR (enumerator), error) : nullptr;
}

static gboolean
is_same_layout (RyxDisplayLayout *a, RyxDisplayLayout *b)
{
  guint32 n_a, n_b;
  RyxDisplayHead **heads_a = ryx_display_layout_get_heads (a, &n_a);
  RyxDisplayHead **heads_b = ryx_display_layout_get_heads (b, &n_b);

  if (n_a != n_b)
    return FALSE;
  for (guint32 i = 0; i < n_a; i++)
    {
      RyxRect rect_a, rect_b;
      ryx_display_head_get_rect (heads_a[i], &rect_a);
      ryx_display_head_get_rect (heads_b[i], &rect_b);

      if (ryx_display_head_get_output_id (heads_a[i]) != ryx_display_head_get_output_id (heads_b[i])
          || memcmp (&rect_a, &rect_b, sizeof (RyxRect)) != 0)
        return FALSE;
    }
  return TRUE;
}

/* Prints the layouts that follow one another, until the user has seen enough. */
struct LayoutWatch
{
  InterruptibleLoop loop;
  RyxDisplayLayout *shown = nullptr;
  GError *failure = nullptr;

  LayoutWatch () = default;
  ~LayoutWatch () { g_clear_object (&shown); }
  LayoutWatch (const LayoutWatch &) = delete;
  LayoutWatch &operator= (const LayoutWatch &) = delete;

  void
  look ()
  {
    /* One change may be signalled twice before the loop ends. */
    if (failure)
      return;

    g_autoptr (RyxDisplayLayout) layout = get_layout (&failure);
    if (!layout)
      {
        loop.quit ();
        return;
      }
    if (shown && is_same_layout (layout, shown))
      return;

    if (shown && !global_options.json)
      g_print ("\n");
    print_heads (layout);
    fflush (stdout);
    g_set_object (&shown, layout);
  }
};

static gboolean
watch_heads (GError **error)
{
  LayoutWatch watch;
  GdkScreen *screen = gdk_screen_get_default ();
  const auto on_change = +[] (GdkScreen *, gpointer data) { static_cast<LayoutWatch *> (data)->look (); };

  g_signal_connect (screen, "monitors-changed", G_CALLBACK (on_change), &watch);
  g_signal_connect (screen, "size-changed", G_CALLBACK (on_change), &watch);

  watch.look ();
  if (!watch.failure)
    watch.loop.run ();
  g_signal_handlers_disconnect_by_data (screen, &watch);

  if (!watch.failure)
    return TRUE;
  g_propagate_error (error, watch.failure);
  return FALSE;
}

static gboolean
run_heads (const Command *command, gchar ***argv, GError **error)
{
  gboolean watch = FALSE;
  const GOptionEntry entries[] = {
    { "watch", 0, 0, G_OPTION_ARG_NONE, &watch, "Print again whenever the layout changes", nullptr },
    {},
  };

  if (!parse_options_only (command, entries, argv, error) || !open_session (error))
    return FALSE;
  if (watch)
    return watch_heads (error);

  g_autoptr (RyxDisplayLayout) layout = get_layout (error);
  if (!layout)
    return FALSE;

  print_heads (layout);
  return TRUE;
}

const Command heads_command = {
  .name = "heads",
  .arguments = nullptr,
  .summary = "Show the heads of the session: name, output id, position and size in pixels",
  .description = "With --json: an array of objects with the keys name, output_id, x, y, width, height and\n"
                 "primary. An output id of 0 means that the head has no RandR output.",
  .run = run_heads,
};
