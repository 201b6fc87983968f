#include "screen.h"

#include <utility>

#include <gdk/gdk.h>
#include <unistd.h>

#include "message.h"
#include "ryxweb.h"

static constexpr guint block_size = 16;
static constexpr guint most_heads = 64;
static constexpr guint retry_ms = 1000;

Screen::Screen (Streamer *frame_streamer) : streamer (frame_streamer) {}

Screen::~Screen ()
{
  g_clear_handle_id (&retry_source, g_source_remove);
  if (enumerator)
    g_signal_handlers_disconnect_by_data (gdk_screen_get_default (), this);
  g_clear_object (&enumerator);
  g_clear_object (&manager);
}

gboolean
Screen::open (GError **error)
{
  enumerator = G_OBJECT (ryx_host_create (RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT, nullptr, error, nullptr));
  if (!enumerator || !read_layout (error))
    return FALSE;

  find_original ();
  GdkScreen *screen = gdk_screen_get_default ();
  g_signal_connect_swapped (screen, "monitors-changed", G_CALLBACK (on_change), this);
  g_signal_connect_swapped (screen, "size-changed", G_CALLBACK (on_change), this);
  return TRUE;
}

static bool
is_same_head (const Head &a, const Head &b)
{
  return a.id == b.id && a.name == b.name && a.primary == b.primary && a.rect.x == b.rect.x && a.rect.y == b.rect.y
         && a.rect.width == b.rect.width && a.rect.height == b.rect.height;
}

gboolean
Screen::read_layout (GError **error)
{
  g_autoptr (RyxDisplayLayout) layout
    = ryx_display_enumerator_get_display_layout (RYX_DISPLAY_ENUMERATOR (enumerator), error);
  if (!layout)
    return FALSE;

  guint32 n_heads;
  RyxDisplayHead **layout_heads = ryx_display_layout_get_heads (layout, &n_heads);
  std::vector<Head> found (n_heads);
  for (guint32 i = 0; i < n_heads; i++)
    {
      found[i] = { ryx_display_head_get_output_id (layout_heads[i]),
                   ryx_display_head_get_name (layout_heads[i]),
                   {},
                   ryx_display_head_get_primary (layout_heads[i]) != FALSE };
      ryx_display_head_get_rect (layout_heads[i], &found[i].rect);
    }
  if (std::equal (found.begin (), found.end (), heads.begin (), heads.end (), is_same_head))
    return TRUE;

  heads = std::move (found);
  streamer->set_heads (heads);
  follow_heads ();
  return TRUE;
}

void
Screen::on_change (Screen *screen)
{
  g_autoptr (GError) error = nullptr;

  if (!screen->read_layout (&error))
    g_warning ("Cannot read the layout: %s", error->message);
}

/* A reader follows its output wherever it goes; one whose output went would capture the whole screen. */
void
Screen::follow_heads ()
{
  std::map<guint32, std::unique_ptr<CaptureThread>> old_readers = std::move (readers);

  readers.clear ();
  if (is_watched)
    for (const Head &head : heads)
      {
        readers[head.id] = std::move (old_readers[head.id]);
        if (!readers[head.id])
          start_reader (head.id);
      }
}

void
Screen::start_reader (guint32 head)
{
  CaptureOptions options;
  options.screen_id = head;
  options.screen_name = "ryx-web";
  options.output_id = head;
  options.block_size = block_size;
  const CaptureThread::Handlers handlers = {
    .frame =
      [this, head] (RyxCapturedFrame *frame, GError **) {
        streamer->take_frame (head, frame);
        return TRUE;
      },
    .ended =
      [this, head] {
        g_autoptr (GError) error = nullptr;
        readers[head]->stop (&error);
        retry (head, error);
      },
  };

  g_autoptr (GError) error = nullptr;
  readers[head] = CaptureThread::start (options, handlers, &error);
  if (!readers[head])
    retry (head, error);
}

/* A reader that can't be had now may be in a second: its output may just be changing. */
void
Screen::retry (guint32 head, const GError *error)
{
  const auto on_timeout = [] (gpointer data) -> gboolean {
    auto *screen = static_cast<Screen *> (data);

    screen->retry_source = 0;
    for (guint32 failed : std::exchange (screen->failed_readers, {}))
      screen->readers.erase (failed);
    screen->follow_heads ();
    return G_SOURCE_REMOVE;
  };

  if (error)
    streamer->tell (Topic::MESSAGE, describe_message (error->message));
  failed_readers.push_back (head);
  if (retry_source == 0)
    retry_source = g_timeout_add (retry_ms, on_timeout, this);
}

void
Screen::start_readers ()
{
  is_watched = true;
  follow_heads ();
}

void
Screen::stop_readers ()
{
  is_watched = false;
  follow_heads ();
}

/* New; NULL with @error set. */
static RyxDisplayLayout *
make_layout (JsonObject *message, GError **error)
{
  g_autoptr (GPtrArray) heads
    = g_ptr_array_new_with_free_func (reinterpret_cast<GDestroyNotify> (ryx_display_head_unref));
  JsonNode *node = json_object_get_member (message, "heads");
  JsonArray *wanted = node && JSON_NODE_HOLDS_ARRAY (node) ? json_node_get_array (node) : nullptr;

  for (guint i = 0; wanted && i < MIN (json_array_get_length (wanted), most_heads); i++)
    {
      JsonNode *element = json_array_get_element (wanted, i);
      JsonObject *head = JSON_NODE_HOLDS_OBJECT (element) ? json_node_get_object (element) : nullptr;
      const gint x = head ? get_number (head, "x") : 0, y = head ? get_number (head, "y") : 0;
      const gint width = head ? get_number (head, "width") : 0, height = head ? get_number (head, "height") : 0;
      if (x < 0 || y < 0 || x > G_MAXSHORT || y > G_MAXSHORT || width < 1 || height < 1 || width > G_MAXUINT16
          || height > G_MAXUINT16)
        {
          g_set_error (error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "There is no head of %dx%d at %d, %d", width,
                       height, x, y);
          return nullptr;
        }

      const RyxRect rect = { static_cast<guint32> (x), static_cast<guint32> (y), static_cast<guint32> (width),
                             static_cast<guint32> (height) };
      g_ptr_array_add (heads, ryx_display_head_new ("", &rect, i == 0));
    }
  if (heads->len > 0)
    return ryx_display_layout_new (heads->len, reinterpret_cast<RyxDisplayHead **> (heads->pdata));

  g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "A layout needs a head");
  return nullptr;
}

/* The display itself keeps the layout to come back to: it ends with the display, and not with a session that was
 * killed. */
static GdkAtom
get_original_property ()
{
  /* Of this gate, also when it is gone. */
  static GdkAtom property = gdk_atom_intern (format ("_RYX_WEB_LAYOUT_%d", getppid ()).c_str (), FALSE);

  return property;
}

static GdkAtom
get_original_type ()
{
  return gdk_atom_intern_static_string ("UTF8_STRING");
}

void
Screen::find_original ()
{
  g_autofree guchar *text = nullptr;
  gint length = 0;

  if (gdk_property_get (gdk_get_default_root_window (), get_original_property (), get_original_type (), 0, 1 << 20,
                        FALSE, nullptr, nullptr, &length, &text))
    original.assign (reinterpret_cast<const gchar *> (text), length);
}

void
Screen::set_original (const std::string &layout)
{
  GdkWindow *root = gdk_get_default_root_window ();

  original = layout;
  if (layout.empty ())
    gdk_property_delete (root, get_original_property ());
  else
    gdk_property_change (root, get_original_property (), get_original_type (), 8, GDK_PROP_MODE_REPLACE,
                         reinterpret_cast<const guchar *> (layout.data ()), layout.size ());
  gdk_flush ();
}

gboolean
Screen::request (JsonObject *message, GError **error)
{
  g_autoptr (RyxDisplayLayout) layout = make_layout (message, error);
  if (!layout)
    return FALSE;
  if (!manager)
    manager = G_OBJECT (ryx_host_create (RYX_DISPLAY_LAYOUT_MANAGER_EXTENSION_POINT, nullptr, error, nullptr));
  if (!manager)
    return FALSE;

  if (original.empty () && options.restore_layout)
    set_original (describe_heads (heads));
  return ryx_display_layout_manager_request_layout (RYX_DISPLAY_LAYOUT_MANAGER (manager), layout, error);
}

void
Screen::restore ()
{
  if (original.empty ())
    return;

  g_autoptr (JsonObject) message = parse_message (original);
  g_autoptr (GError) error = nullptr;
  if (!message || !request (message, &error))
    g_warning ("Cannot come back to the layout that was found: %s", error ? error->message : "it is unknown");
  set_original ("");
}
