#include "capturethread.h"

#include <utility>

CaptureThread::CaptureThread (RyxFrameBufferReader *new_reader, Handlers new_handlers)
    : reader (new_reader), handlers (std::move (new_handlers)), ended_source (g_idle_source_new ())
{
}

CaptureThread::~CaptureThread ()
{
  join ();
  g_source_destroy (ended_source);
  g_source_unref (ended_source);
  g_clear_error (&failure);
  g_object_unref (reader);
}

std::unique_ptr<CaptureThread>
CaptureThread::start (const CaptureOptions &options, Handlers handlers, GError **error)
{
  auto *reader = static_cast<RyxFrameBufferReader *> (
    ryx_host_create (RYX_FRAME_BUFFER_READER_EXTENSION_POINT, nullptr, error, "screen-id", options.screen_id,
                     "screen-name", options.screen_name.c_str (), "output-id", options.output_id, "block-size",
                     options.block_size, "diffmap-refine-threshold", options.refine_threshold, nullptr));
  if (!reader)
    return nullptr;

  std::unique_ptr<CaptureThread> capture (new CaptureThread (reader, std::move (handlers)));
  if (!ryx_frame_buffer_reader_setup (reader, error))
    return nullptr;

  /* Without damage no reader waits, and nobody needs to be woken. A waker that is missing for another reason
   * would leave a reader that can't be stopped. */
  g_autoptr (GError) waker_error = nullptr;
  capture->waker = ReaderWaker::connect (&waker_error);
  if (!capture->waker && !g_error_matches (waker_error, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED))
    {
      g_propagate_error (error, g_steal_pointer (&waker_error));
      return nullptr;
    }
  if (!capture->waker)
    g_debug ("No reader will be woken: %s", waker_error->message);

  g_source_set_callback (
    capture->ended_source,
    [] (gpointer data) -> gboolean {
      static_cast<CaptureThread *> (data)->handlers.ended ();
      return G_SOURCE_REMOVE;
    },
    capture.get (), nullptr);
  capture->thread = g_thread_new ("capture", run, capture.get ());
  return capture;
}

gpointer
CaptureThread::run (gpointer data)
{
  auto *capture = static_cast<CaptureThread *> (data);

  if (!capture->capture (&capture->failure) && !capture->stopping)
    g_source_attach (capture->ended_source, nullptr);
  return nullptr;
}

/* Whether the host is expected to configure and to go on. */
static bool
asks_for_configuration (const GError *error)
{
  return g_error_matches (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_NEEDS_RECONFIGURE)
         || g_error_matches (error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_SHM_FAILED);
}

/* Once more after the shared memory failed: the reader goes on without it. */
static gboolean
configure (RyxFrameBufferReader *reader, GError **error)
{
  g_autoptr (GError) first_error = nullptr;

  if (ryx_frame_buffer_reader_configure (reader, &first_error))
    return TRUE;
  if (!asks_for_configuration (first_error))
    {
      g_propagate_error (error, g_steal_pointer (&first_error));
      return FALSE;
    }
  return ryx_frame_buffer_reader_configure (reader, error);
}

/* A screen that changes all the time asks for a configuration now and then; one that never gives a frame is broken. */
static constexpr guint max_configurations_in_a_row = 50;

/* Returns FALSE when the capture ended by itself, with @error set if that was a failure. */
gboolean
CaptureThread::capture (GError **error)
{
  gboolean needs_configuration = TRUE;
  guint n_configurations = 0; /* since the last frame */

  while (!stopping)
    {
      if (std::exchange (needs_configuration, FALSE) && !configure (reader, error))
        return FALSE;

      g_autoptr (GError) grab_error = nullptr;
      g_autoptr (RyxCapturedFrame) frame = ryx_frame_buffer_reader_grab_frame (reader, &grab_error);
      if (stopping)
        break;
      if (frame)
        {
          n_configurations = 0;
          if (!handlers.frame (frame, error))
            return FALSE;
          continue;
        }

      needs_configuration = asks_for_configuration (grab_error) && n_configurations++ < max_configurations_in_a_row;
      if (!needs_configuration
          && !g_error_matches (grab_error, RYX_FRAME_BUFFER_READER_ERROR, RYX_FRAME_BUFFER_READER_ERROR_EMPTY_FRAME))
        {
          g_propagate_error (error, g_steal_pointer (&grab_error));
          return FALSE;
        }
    }
  return TRUE;
}

void
CaptureThread::join ()
{
  if (!thread)
    return;

  stopping = true;
  if (waker)
    waker->wake ();
  g_thread_join (std::exchange (thread, nullptr));
}

gboolean
CaptureThread::stop (GError **error)
{
  join ();
  if (!failure)
    return TRUE;

  g_propagate_error (error, g_steal_pointer (&failure));
  return FALSE;
}
