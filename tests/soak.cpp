/* Uses all of the module at once while other clients do what they like to the same server: see `usage`. */

#include <gtest/gtest.h> /* before Xlib, which defines None */

#include <atomic>
#include <filesystem>
#include <mutex>
#include <random>

#include <malloc.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <X11/cursorfont.h>
#include <X11/extensions/XTest.h>
#include <glib-unix.h>
#include <xcb/res.h>

#include "capturethread.h"
#include "ctl.h"
#include "faultproxy.h"
#include "inputobserver.h"
#include "layout.h"

static const char usage[]
  = "Usage: scripts/soak SECONDS\n\n"
    "Uses two readers, the injector, the pointer monitor and the layout manager in one process on an Xorg of its own,\n"
    "while other clients draw, type, change cursors, layouts and keymaps, and are killed. Ends, at SIGINT earlier, "
    "with\n"
    "its checks and a line of figures; the exit status is 1 when anything grew or went wrong.\n";

#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
static constexpr bool counts_memory = false; /* they keep what was freed */
#else
static constexpr bool counts_memory = true;
#endif

static const char final_layout[] = "1280x720+0+0 800x600+1280+0";
static const char final_heads[] = "2080x720: DUMMY0 1280x720+0+0, DUMMY1 800x600+1280+0";

/* Between this process and the clients that it forks. */
struct Stage
{
  std::atomic<bool> rest, end;
  std::atomic<unsigned> n_resting, n_clients, n_drawings, n_foreign_changes, n_kills, n_left;
};
static Stage *stage;

static void
become_client (const std::function<void ()> &work)
{
  stage->n_clients++;
  if (fork () != 0)
    return;

  prctl (PR_SET_PDEATHSIG, SIGKILL);
  setsid (); /* SIGINT is for the one that checks */
  while (!stage->end)
    {
      if (!stage->rest)
        work ();
      if (!stage->rest)
        continue;
      stage->n_resting++;
      while (stage->rest && !stage->end)
        g_usleep (1000);
      stage->n_resting--;
    }
  _exit (testing::UnitTest::GetInstance ()->ad_hoc_test_result ().Failed ());
}

static int
pick (int n)
{
  static std::minstd_rand random (getpid ());
  return random () % n;
}

/* Draws, changes the cursor, types. */
static void
start_drawing_client (const char *name)
{
  become_client ([=] {
    static Painter painter (name);
    static InputObserver typist (name);
    Display *display = typist.display;
    const Cursor cursor = XCreateFontCursor (display, 2 * pick (XC_num_glyphs / 2));
    const int keycode = 24 + pick (10); /* letters */

    pick (5) ? painter.fill (pick (2000), pick (700), 1 + pick (300), 1 + pick (300), pick (1 << 24))
             : painter.fill_with_noise ();
    XDefineCursor (display, DefaultRootWindow (display), cursor);
    XFreeCursor (display, cursor);
    for (bool down : { true, false })
      XTestFakeKeyEvent (display, keycode, down, 0);
    typist.forget ();
    stage->n_drawings++;
    g_usleep (pick (20000));
  });
}

static void
run (const std::string &program, const char *display_option, const char *display, const std::string &arguments)
{
  const std::string command = "sh -c '" + program + display_option + display + arguments + " 2>/dev/null'";
  g_spawn_command_line_sync (command.c_str (), nullptr, nullptr, nullptr, nullptr);
}

static void
set_keymap (const char *name, const char *keymap)
{
  run ("setxkbmap", " -display ", name, std::string (" -rules evdev ") + keymap);
}

/* Changes the layout and the keymap with programs that have nothing to do with the module; and kills a capture. */
static void
start_rearranging_client (const char *name)
{
  become_client ([=] {
    static const char *const keymaps[] = { "us", "de", "fr", "us,ru", "ch -variant fr" };
    /* Never none: GDK loses a list then. */
    static const char *const layouts[] = {
      " --output DUMMY0 --mode 1024x768 --output DUMMY1 --mode 800x600 --right-of DUMMY0",
      " --output DUMMY0 --mode 1280x1024 --output DUMMY1 --mode 1280x1024 --below DUMMY0",
      " --output DUMMY0 --mode 1280x720 --output DUMMY1 --off",
      " --output DUMMY0 --off --output DUMMY1 --mode 1024x768",
    };

    run ("xrandr", " --display ", name, layouts[pick (std::size (layouts))]);
    set_keymap (name, keymaps[pick (std::size (keymaps))]);
    stage->n_foreign_changes++;

    pid_t victim;
    unsigned n_earlier; /* of another process that had the same id */
    {
      CtlRun capture (name, { "capture", "--seconds=1000" });
      victim = capture.pid ();
      n_earlier = count_segments (victim);
      g_usleep (pick (200000)); /* any point of its life; then it is killed */
    }
    stage->n_left += !wait_until ([&] { return count_segments (victim) <= n_earlier; });
    stage->n_kills++;
  });
}

/* All GObjects alive, by the two functions that every class has from GObject or calls in it. */
static std::atomic<long> n_objects;

static void
count_objects ()
{
  static GObjectClass *base = G_OBJECT_CLASS (g_type_class_ref (G_TYPE_OBJECT));
  static const auto construct = base->constructor;
  static const auto finalize = base->finalize;

  base->constructor = [] (GType type, guint n_properties, GObjectConstructParam *properties) {
    n_objects++;
    return construct (type, n_properties, properties);
  };
  base->finalize = [] (GObject *object) {
    n_objects--;
    finalize (object);
  };
}

static std::atomic<unsigned> n_complaints;

static GLogWriterOutput
watch_log (GLogLevelFlags level, const GLogField *fields, gsize n_fields, gpointer)
{
  std::string domain, text;

  if ((level & G_LOG_LEVEL_MASK) > G_LOG_LEVEL_WARNING)
    return G_LOG_WRITER_HANDLED;
  for (gsize i = 0; i < n_fields; i++)
    if (g_str_equal (fields[i].key, "GLIB_DOMAIN") || g_str_equal (fields[i].key, "MESSAGE"))
      (fields[i].key[0] == 'G' ? domain : text) = static_cast<const char *> (fields[i].value);
  if (domain == "RYX:x11:input" && text.starts_with ("Failed to get right alt "))
    return G_LOG_WRITER_HANDLED; /* keymaps with AltGr have no such key */
  n_complaints++;
  return g_log_writer_default (level, fields, n_fields, nullptr);
}

struct Quantity
{
  const char *name;
  long value, allowance;
};
using Figures = std::vector<Quantity>;

/* The resources of this process's clients of the server. */
static long
count_xids (XcbClient &client)
{
  const xcb_res_client_id_spec_t all = { 0, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID };
  const auto ids = X_REPLY (client.conn, res_query_client_ids, 1, &all);
  long n = 0;

  for (auto id = xcb_res_query_client_ids_ids_iterator (ids.get ()); id.rem; xcb_res_client_id_value_next (&id))
    {
      if (*xcb_res_client_id_value_value (id.data) != uint32_t (getpid ()))
        continue;
      const auto resources = X_REPLY (client.conn, res_query_client_resources, id.data->spec.client);
      if (!resources)
        continue; /* it has gone meanwhile */
      for (auto type = xcb_res_query_client_resources_types_iterator (resources.get ()); type.rem;
           xcb_res_type_next (&type))
        n += type.data->count;
    }
  return n;
}

static long
count_descriptors ()
{
  return std::distance (std::filesystem::directory_iterator ("/proc/self/fd"), {});
}

/* Timers among them. */
static long
count_sources ()
{
  const guint newest = g_timeout_add (
    G_MAXINT, [] (gpointer) { return G_SOURCE_REMOVE; }, nullptr);
  long n = -1;

  for (guint id = 1; id <= newest; id++)
    n += g_main_context_find_source_by_id (nullptr, id) != nullptr;
  g_source_remove (newest);
  return n;
}

static constexpr long n_lasting_sources = 2; /* GDK's and the monitor's */

static Figures
measure (XcbClient &client)
{
  malloc_trim (0);
  const struct mallinfo2 heap = mallinfo2 ();
  long n_pages = 0;
  g_autofree gchar *memory = nullptr;
  g_file_get_contents ("/proc/self/statm", &memory, nullptr, nullptr);
  sscanf (memory, "%*d %ld", &n_pages);

  return {
    { "KiB RSS", counts_memory ? n_pages * 4 : 0, 8192 },
    { "KiB heap", counts_memory ? long (heap.uordblks + heap.hblkhd) / 1024 : 0,
      2048 }, /* Xlib keeps room for as many events as ever waited */
    { "objects", n_objects, 0 },
    { "XIDs", count_xids (client), 0 },
    { "segments", count_segments (), 0 },
    { "descriptors", count_descriptors (), 0 },
    { "sources", count_sources (), 0 },
  };
}

static bool
is_within_bounds (const Figures &before, const Figures &after, std::string *text)
{
  bool result = true;

  text->clear ();
  for (size_t i = 0; i < before.size (); i++)
    {
      result = result && after[i].value <= before[i].value + before[i].allowance;
      *text += std::string (", ") + before[i].name + " " + std::to_string (before[i].value) + " to "
               + std::to_string (after[i].value);
    }
  return result;
}

/* A reader in its thread, with the last frame that it gave. */
struct Capture
{
  explicit Capture (guint32 output_id)
      : thread (CaptureThread::start ({ .screen_name = "soak", .output_id = output_id },
                                      { .frame =
                                          [this] (RyxCapturedFrame *frame, GError **) {
                                            Frame previous (RYX_CAPTURED_FRAME (g_object_ref (frame)));
                                            const std::lock_guard locker (lock);
                                            std::swap (last, previous);
                                            return ++n_frames > 0;
                                          },
                                        .ended = [this] { has_ended = true; } },
                                      nullptr))
  {
  }

  bool
  shows (Painter &painter, const RyxRect &area)
  {
    const std::lock_guard locker (lock);
    return last && pixels_of (last.get ()) == painter.image (area.x, area.y, area.width, area.height);
  }

  std::mutex lock;
  Frame last;
  std::atomic<unsigned> n_frames = 0;
  std::atomic<bool> has_ended = false;
  std::unique_ptr<CaptureThread> thread; /* ends before the rest */
};

static volatile sig_atomic_t is_interrupted = false;

class Soak
{
public:
  explicit Soak (XServer &x_server) : server (x_server)
  {
    for (const char *change : { "cursor-moved", "cursor-changed" })
      g_signal_connect_swapped (monitor.get (), change, G_CALLBACK (+[] (unsigned *n) { ++*n; }), &n_cursors);
    ryx_pointer_monitor_start (monitor.get ());
  }

  void
  use_for (double seconds, unsigned n_least_layouts)
  {
    const gint64 end = g_get_monotonic_time () + seconds * G_USEC_PER_SEC;
    const guint timer = g_timeout_add (10, tick, this);

    start_captures ();
    ryx_input_injector_channel_connected (injector.get (), 1);
    for (stage->rest = false; !is_interrupted && (g_get_monotonic_time () < end || n_layouts < n_least_layouts);)
      g_main_context_iteration (nullptr, TRUE);
    g_source_remove (timer);
  }

  /* Everybody pauses: what must be right and what is in use then. */
  Figures
  rest ()
  {
    stage->rest = true;
    EXPECT_TRUE (wait_until ([] { return stage->n_resting == stage->n_clients; }, 60000)) << "a client has ended";
    ryx_input_injector_channel_disconnected (injector.get (), 1);
    expect_keyboard ();

    EXPECT_EQ (request_layout (final_layout), "");
    LayoutObserver observer (painter);
    EXPECT_TRUE (observer.look ());
    EXPECT_EQ (observer.heads, final_heads);

    painter.fill_with_noise ();
    EXPECT_TRUE (wait_until ([this] { return head->shows (painter, { 0, 0, 1280, 720 }); }));
    EXPECT_TRUE (wait_until ([this] { return screen->shows (painter, { 0, 0, 2080, 720 }); }));

    /* A key that nobody released has a timer until the server would repeat it. */
    EXPECT_TRUE (wait_until ([] { return count_sources () == n_lasting_sources + 1; })) << "beside wait_until's own";

    /* How many buffers readers keep depends on who was faster: memory counts without them. */
    Figures figures = measure (painter);
    n_frames += head->n_frames + screen->n_frames;
    head.reset ();
    screen.reset ();
    std::ranges::copy_n (measure (painter).begin (), 2, figures.begin ());
    return figures;
  }

  /* Readers that can't be set up or configured, or that nobody could wake. */
  void
  fail_starts ()
  {
    static const FaultRule faults[] = { { .request = "Setup", .error = XCB_ALLOC },
                                        { .request = "Setup", .nth = 2, .error = XCB_ALLOC },
                                        { .request = "XFixesQueryVersion", .error = XCB_ALLOC },
                                        { .request = "GetGeometry", .error = XCB_ALLOC },
                                        { .request = "GetGeometry", .cut = true } };
    FaultProxy proxy (server);
    Figures before;
    std::string text;

    wait_until ([&] { return before = measure (painter), true; }); /* which has a timer of its own */
    g_setenv ("DISPLAY", proxy.display (), TRUE);
    for (unsigned i = 0; i < 40; i++)
      {
        const unsigned rule = proxy.add (faults[i % std::size (faults)]);
        Capture capture (0);
        EXPECT_TRUE (wait_until ([&] { return !capture.thread || capture.has_ended; })) << i;
        proxy.remove (rule);
      }
    g_setenv ("DISPLAY", server.display (), TRUE);
    EXPECT_TRUE (wait_until ([&] { return is_within_bounds (before, measure (painter), &text); }))
      << "failed starts" << text;
  }

  std::string
  summarise () const
  {
    g_autofree gchar *text = g_strdup_printf (
      "%u frames, %u layouts and %u by others, %u strokes, %u cursor reports, %u drawings, %u captures killed",
      n_frames, n_layouts, stage->n_foreign_changes.load (), n_strokes, n_cursors, stage->n_drawings.load (),
      stage->n_kills.load ());
    return text;
  }

private:
  /* One by each way through shared memory. */
  void
  start_captures ()
  {
    head = std::make_unique<Capture> (78);
    SettingsScope no_pixmaps ("com.quorlane.ryx.display.linux", "use-shm-pixmaps", g_variant_new_boolean (FALSE));
    screen = std::make_unique<Capture> (0);
  }

  static gboolean
  tick (gpointer data)
  {
    static const char *const layouts[]
      = { "1000x700+0+0 800x600+1000+0",  "1024x768+0+0", "1280x1024+0+0 1280x1024+1280+0",
          "1366x768+0+0 1365x768+1366+0", final_layout,   "800x600+0+0" };
    auto *soak = static_cast<Soak *> (data);

    soak->inject ();
    if (++soak->n_ticks % 5 == 0)
      {
        EXPECT_EQ (request_layout (layouts[soak->n_layouts++ % std::size (layouts)]), "");
      }
    if (soak->n_ticks % 20 == 0)
      enumerate_heads ();
    if (soak->n_ticks % 100 == 0)
      {
        ryx_pointer_monitor_stop (soak->monitor.get ());
        ryx_pointer_monitor_start (soak->monitor.get ());
      }
    EXPECT_FALSE (soak->head->has_ended || soak->screen->has_ended) << "a capture ended by itself";
    return G_SOURCE_CONTINUE;
  }

  void
  inject ()
  {
    static const char *const characters[] = { "a", "Z", "1", "!", "@", "é", "€", "д", "ß", " " };
    static const char *const modifiers[] = { "Shift", "Control", "AltGraph", "Alt" };
    RyxInputInjector *target = injector.get ();

    ryx_input_injector_motion_event (target, pick (2000), pick (700), pick (2));
    ryx_input_injector_axis_event (target, pick (2), pick (7) - 3);
    ryx_input_injector_special_key_event (target, modifiers[pick (std::size (modifiers))],
                                          RYX_INPUT_INJECTOR_KEY_LOCATION_LEFT, pick (2));
    ryx_input_injector_key_event (target, characters[pick (std::size (characters))],
                                  RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD, pick (3) > 0);
    n_strokes++;
    for (bool down : { true, false })
      ryx_input_injector_button_event (target, 1 + pick (3), down);
    if (pick (5))
      return;
    ryx_input_injector_channel_disconnected (target, 1); /* which leaves nothing down */
    ryx_input_injector_channel_connected (target, 1);
  }

  /* Nothing is down or locked, typing arrives, and needs nothing that the keymap has not. */
  void
  expect_keyboard ()
  {
    static const char text[] = "It's 5% of {A-Z} ~";
    static std::vector<KeySym> first_keymap;

    set_keymap (server.display (), "us");
    for (unsigned i = 0; i < 10; i++)
      settle (); /* a character that has waited for a keymap is added to this one, and goes out */
    InputObserver typist (server.display ());
    const auto expect_rest = [&] {
      EXPECT_TRUE (wait_until ([&] { return typist.keyboard () == "mods 0 locked 0 group 0 latched 0"; }))
        << typist.keyboard ();
    };
    expect_rest ();
    type (injector, text, RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD);
    EXPECT_TRUE (wait_until ([&] { return typist.text () == text; })) << typist.text ();
    expect_rest ();

    int n_per_key;
    KeySym *keysyms = XGetKeyboardMapping (typist.display, 8, 248, &n_per_key);
    const std::vector<KeySym> keymap (keysyms, keysyms + 248 * n_per_key);
    XFree (keysyms);
    EXPECT_TRUE (first_keymap.empty () || keymap == first_keymap) << "the keymap has changed";
    first_keymap = keymap;
  }

  XServer &server;
  const GdkDisplayScope gdk{ server.display () };
  Painter painter{ server.display () };
  const TestInjector injector = create_injector ();
  const std::unique_ptr<RyxPointerMonitor, ObjectDeleter> monitor{ RYX_POINTER_MONITOR (
    ryx_host_create (RYX_POINTER_MONITOR_EXTENSION_POINT, nullptr, nullptr, nullptr)) };
  std::unique_ptr<Capture> head, screen;
  unsigned n_ticks = 0, n_frames = 0, n_layouts = 0, n_strokes = 0, n_cursors = 0;
};

int
main (int argc, char **argv)
{
  char *rest = nullptr;
  const double seconds = argc == 2 ? g_ascii_strtod (argv[1], &rest) : 0;

  if (argc == 2 && g_str_equal (argv[1], "--help"))
    return g_print ("%s", usage), 0;
  if (!(seconds > 0) || *rest)
    return g_printerr ("%s", usage), 2;
  mallopt (M_MMAP_THRESHOLD, 128 << 10); /* a freed frame's memory goes back at once: RSS is what is in use */
  count_objects ();
  g_log_set_writer_func (watch_log, nullptr, nullptr);
  signal (SIGINT, [] (int) { is_interrupted = true; });
  stage = new (mmap (nullptr, sizeof *stage, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Stage{};
  stage->rest = true;
  XServer server (XServer::XORG_DUMMY);
  set_keymap (server.display (), "us");
  start_drawing_client (server.display ());
  start_rearranging_client (server.display ());

  wait_until ([] { return true; }); /* the main context has its descriptor */
  const long n_descriptors = count_descriptors ();
  std::string line, growth;
  {
    Soak soak (server);
    soak.use_for (MIN (seconds / 5, 20), 0);
    const Figures before = soak.rest ();
    soak.use_for (seconds, MIN (500, seconds * 10));
    const Figures after = soak.rest ();
    EXPECT_TRUE (is_within_bounds (before, after, &growth)) << growth;
    line = soak.summarise () + growth;
    soak.fail_starts ();
  }
  EXPECT_EQ (count_segments (), 0u);
  EXPECT_EQ (count_descriptors (), n_descriptors);
  EXPECT_EQ (n_complaints, 0u);
  /* No system call makes a segment that is marked at once: a kill right between the two, by chance, leaves it. */
  EXPECT_LE (stage->n_left, 1 + stage->n_kills / 100) << "killed captures leave segments";

  stage->end = true;
  for (unsigned i = 0; i < stage->n_clients; i++)
    {
      int status;
      EXPECT_TRUE (wait (&status) > 0 && status == 0) << "a client failed: " << status;
    }

  const bool has_failed = testing::UnitTest::GetInstance ()->ad_hoc_test_result ().Failed ();
  g_print ("soak: %s in %g s: %s\n", has_failed ? "FAILED" : "fine", seconds, line.c_str ());
  return has_failed;
}
