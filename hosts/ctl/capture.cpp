#include "commands.h"

#include <cstring>

#include <glib/gstdio.h>
#include <sys/resource.h>
#include <unistd.h>

#include "capturethread.h"
#include "json.h"
#include "picture.h"

static constexpr gint64 no_frames_given = G_MININT64;
static constexpr gdouble no_seconds_given = -G_MAXDOUBLE;

struct CaptureArguments
{
  gint64 output_id = 0;
  gint64 frames = no_frames_given;
  gdouble seconds = no_seconds_given;
  gint64 block_size = 64;
  gint64 refine = 0;
  gchar *png = nullptr;
  gchar *y4m = nullptr;
  gboolean map = FALSE;

  CaptureArguments () = default;
  ~CaptureArguments ()
  {
    g_free (png);
    g_free (y4m);
  }
  CaptureArguments (const CaptureArguments &) = delete;
  CaptureArguments &operator= (const CaptureArguments &) = delete;
};

/* Counts of one run; written by the capture thread. */
struct CaptureStatistics
{
  std::atomic<guint64> n_frames = 0;
  std::atomic<guint64> n_changed_blocks = 0;
  std::atomic<guint> width = 0;
  std::atomic<guint> height = 0;
};

static gboolean
check_range (const gchar *option, gint64 value, gint64 least, gint64 most, GError **error)
{
  if (value >= least && value <= most)
    return TRUE;
  return set_usage_error (
    error, "capture: --%s must be from %" G_GINT64_FORMAT " to %" G_GINT64_FORMAT ", not %" G_GINT64_FORMAT, option,
    least, most, value);
}

static gboolean
has_frame_number (const gchar *pattern)
{
  return strstr (pattern, "%d") != nullptr;
}

static gboolean
check_arguments (const CaptureArguments *arguments, GError **error)
{
  if (!check_range ("output", arguments->output_id, 0, G_MAXUINT32, error)
      || !check_range ("block-size", arguments->block_size, 1, G_MAXUINT16, error)
      || !check_range ("refine", arguments->refine, -1, G_MAXINT32, error)
      || (arguments->frames != no_frames_given && !check_range ("frames", arguments->frames, 1, G_MAXINT64, error)))
    return FALSE;

  if (arguments->seconds != no_seconds_given && !(arguments->seconds > 0 && arguments->seconds <= 1e6))
    return set_usage_error (error, "capture: --seconds must be above 0 and at most 1000000, not %g",
                            arguments->seconds);
  if (arguments->png && arguments->frames != 1 && !has_frame_number (arguments->png))
    return set_usage_error (error, "capture: for more than one frame, --png needs a %%d for the frame's number");
  if (arguments->map && !arguments->png)
    return set_usage_error (error, "capture: --map tints pictures; name them with --png");
  if (g_strcmp0 (arguments->png, "-") == 0 && g_strcmp0 (arguments->y4m, "-") == 0)
    return set_usage_error (error, "capture: --png and --y4m can't both be standard output");
  return TRUE;
}

static gboolean
parse_arguments (const Command *command, gchar ***argv, CaptureArguments *arguments, GError **error)
{
  const GOptionEntry entries[] = {
    { "output", 0, 0, G_OPTION_ARG_INT64, &arguments->output_id,
      "Capture the head with this output id, as “ryxctl heads” shows it, instead of the whole screen", "ID" },
    { "frames", 0, 0, G_OPTION_ARG_INT64, &arguments->frames, "End after N frames", "N" },
    { "seconds", 0, 0, G_OPTION_ARG_DOUBLE, &arguments->seconds, "End after S seconds", "S" },
    { "block-size", 0, 0, G_OPTION_ARG_INT64, &arguments->block_size,
      "Edge of a block of the change map in pixels (default 64)", "B" },
    { "refine", 0, 0, G_OPTION_ARG_INT64, &arguments->refine,
      "Compare pixels when more than T blocks were drawn (default 0; -1: never)", "T" },
    { "png", 0, 0, G_OPTION_ARG_FILENAME, &arguments->png,
      "Write each frame to a PNG; %d in PATTERN is the frame's number, “-” is standard output", "PATTERN" },
    { "y4m", 0, 0, G_OPTION_ARG_FILENAME, &arguments->y4m,
      "Record to a YUV4MPEG2 file of 25 pictures per second; “-” is standard output", "FILE" },
    { "map", 0, 0, G_OPTION_ARG_NONE, &arguments->map, "Tint the changed blocks in the PNGs", nullptr },
    {},
  };

  if (!parse_options_only (command, entries, argv, error))
    return FALSE;

  const bool is_bounded
    = arguments->frames != no_frames_given || arguments->seconds != no_seconds_given || arguments->y4m;
  if (!is_bounded)
    arguments->frames = 1;
  if (arguments->frames == 1 && !arguments->png && !arguments->y4m)
    arguments->png = g_strdup ("capture.png");
  return check_arguments (arguments, error);
}

/* A reader would capture the whole screen for an output that shows nothing. */
static gboolean
check_output (const CaptureArguments *arguments, GError **error)
{
  if (arguments->output_id == 0)
    return TRUE;

  g_autoptr (RyxDisplayLayout) layout = get_layout (error);
  if (!layout)
    return FALSE;

  guint32 n_heads;
  RyxDisplayHead **heads = ryx_display_layout_get_heads (layout, &n_heads);
  for (guint32 i = 0; i < n_heads; i++)
    if (ryx_display_head_get_output_id (heads[i]) == arguments->output_id)
      return TRUE;

  g_set_error (error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND,
               "There is no head with the output id %" G_GINT64_FORMAT "; “ryxctl heads” shows them",
               arguments->output_id);
  return FALSE;
}

static gchar *
format_file_name (const gchar *pattern, guint64 number)
{
  g_autofree gchar *digits = g_strdup_printf ("%" G_GUINT64_FORMAT, number);
  g_autoptr (GString) name = g_string_new (pattern);

  g_string_replace (name, "%d", digits, 1);
  return g_strdup (name->str);
}

/* One run of the command: the reader in its thread, and the loop that decides when it is enough. */
class CaptureRun
{
public:
  explicit CaptureRun (const CaptureArguments *run_arguments) : arguments (run_arguments) {}

  gboolean
  run (GError **error)
  {
    const CaptureOptions options = {
      .screen_name = "ryxctl",
      .output_id = static_cast<guint32> (arguments->output_id),
      .block_size = static_cast<guint32> (arguments->block_size),
      .refine_threshold = static_cast<gint32> (arguments->refine),
    };
    const CaptureThread::Handlers handlers = {
      .frame = [this] (RyxCapturedFrame *frame, GError **failure) { return take_frame (frame, failure); },
      .ended = [this] { loop.quit (); },
    };

    start_time = g_get_monotonic_time ();
    start_cpu = get_cpu_seconds ();
    auto capture = CaptureThread::start (options, handlers, error);
    if (!capture)
      return FALSE;

    wait_for_end ();
    const gint64 end_time = g_get_monotonic_time ();
    const gboolean is_captured = capture->stop (error);

    /* A capture that failed leaves a recording too, of all that was on the screen until then. */
    if (arguments->y4m && !recording.finish (end_time, is_captured ? error : nullptr))
      return FALSE;
    if (!is_captured)
      return FALSE;

    print_summary ((end_time - start_time) / 1e6);
    return TRUE;
  }

private:
  static gdouble
  get_cpu_seconds ()
  {
    struct rusage usage;
    getrusage (RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  }

  /* In the capture thread. FALSE without an error once there are frames enough. */
  gboolean
  take_frame (RyxCapturedFrame *frame, GError **error)
  {
    RyxFrameData *data = ryx_captured_frame_get_frame_data (frame);
    const guint64 number = statistics.n_frames++;

    statistics.n_changed_blocks += ryx_diffmap_get_count (ryx_captured_frame_get_diffmap (frame));
    statistics.width = ryx_frame_data_get_width (data);
    statistics.height = ryx_frame_data_get_height (data);

    if (arguments->png)
      {
        g_autofree gchar *file = format_file_name (arguments->png, number);
        g_autoptr (GdkPixbuf) picture = make_picture (frame, arguments->map, error);
        if (!picture || !save_png (picture, file, error))
          return FALSE;
      }
    /* Only a capture that works replaces what was in the file. */
    if (arguments->y4m && number == 0 && !recording.open (arguments->y4m, error))
      return FALSE;
    if (arguments->y4m && !recording.add (frame, error))
      return FALSE;
    return arguments->frames == no_frames_given || number + 1 < static_cast<guint64> (arguments->frames);
  }

  void
  wait_for_end ()
  {
    const auto on_timeout = [] (gpointer run) -> gboolean {
      static_cast<CaptureRun *> (run)->loop.quit ();
      return G_SOURCE_CONTINUE;
    };
    const auto on_progress = [] (gpointer run) -> gboolean {
      static_cast<CaptureRun *> (run)->print_progress ();
      return G_SOURCE_CONTINUE;
    };

    const bool shows_progress = isatty (STDERR_FILENO);
    const guint timeout = arguments->seconds > 0 ? g_timeout_add (arguments->seconds * 1000, on_timeout, this) : 0;
    const guint progress = shows_progress ? g_timeout_add (500, on_progress, this) : 0;

    loop.run ();

    if (timeout)
      g_source_remove (timeout);
    if (progress)
      {
        g_source_remove (progress);
        g_printerr ("\r\033[K");
      }
  }

  void
  print_progress ()
  {
    const gdouble seconds = (g_get_monotonic_time () - start_time) / 1e6;
    const guint64 n_frames = statistics.n_frames;

    g_printerr ("\r\033[K%" G_GUINT64_FORMAT " frames, %.1f fps, %" G_GUINT64_FORMAT " changed blocks", n_frames,
                n_frames / seconds, statistics.n_changed_blocks.load ());
  }

  void
  print_summary (gdouble seconds)
  {
    const bool is_output_taken = g_strcmp0 (arguments->png, "-") == 0 || g_strcmp0 (arguments->y4m, "-") == 0;
    const gdouble cpu = get_cpu_seconds () - start_cpu;
    const guint64 n_frames = statistics.n_frames, n_blocks = statistics.n_changed_blocks;

    if (!global_options.json)
      {
        (is_output_taken ? g_printerr : g_print) ("%" G_GUINT64_FORMAT " frame%s of %ux%u in %.2f s (%.1f fps), "
                                                  "%" G_GUINT64_FORMAT " changed blocks, %.2f s of CPU time\n",
                                                  n_frames, n_frames == 1 ? "" : "s", statistics.width.load (),
                                                  statistics.height.load (), seconds, n_frames / seconds, n_blocks,
                                                  cpu);
        return;
      }
    if (is_output_taken)
      return;

    g_autoptr (JsonBuilder) json = json_builder_new ();
    json_builder_begin_object (json);
    add_json_int (json, "frames", n_frames);
    add_json_int (json, "width", statistics.width);
    add_json_int (json, "height", statistics.height);
    add_json_double (json, "seconds", seconds);
    add_json_double (json, "fps", n_frames / seconds);
    add_json_int (json, "changed_blocks", n_blocks);
    add_json_double (json, "cpu_seconds", cpu);
    json_builder_end_object (json);
    print_json (json);
  }

  const CaptureArguments *arguments;
  InterruptibleLoop loop;
  CaptureStatistics statistics;
  Y4mRecording recording;
  gint64 start_time = 0;
  gdouble start_cpu = 0;
};

static gboolean
run_capture (const Command *command, gchar ***argv, GError **error)
{
  CaptureArguments arguments;

  if (!parse_arguments (command, argv, &arguments, error) || !open_session (error) || !check_output (&arguments, error))
    return FALSE;
  return CaptureRun (&arguments).run (error);
}

const Command capture_command = {
  .name = "capture",
  .arguments = nullptr,
  .summary = "Grab frames and write them as pictures or as a recording",
  .description = "Without --frames, --seconds and --y4m: one frame, to capture.png. With them, a frame is taken\n"
                 "whenever something was drawn, until there are enough, the time is up or SIGINT comes; without --png\n"
                 "and --y4m they are only counted. At the end: frames, changed blocks and CPU time.",
  .run = run_capture,
};
