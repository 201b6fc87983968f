#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include <ryx/ryx.h>

#include "readerwaker.h"

struct CaptureOptions
{
  guint32 screen_id = 0;
  std::string screen_name;
  guint32 output_id = 0; /* 0: the whole screen */
  guint32 block_size = 64;
  gint32 refine_threshold = 0;
};

/* A reader in a thread of its own. It configures the reader again by itself whenever a grab or a configuration
 * asks for it, gives up when that never leads to a frame, and can be stopped at any time, also while the reader waits
 * for something to be drawn. */
class CaptureThread
{
public:
  struct Handlers
  {
    /* Runs in the capture thread, for each frame. FALSE with @error set ends the capture with that error. */
    std::function<gboolean (RyxCapturedFrame *frame, GError **error)> frame;

    /* Runs in the default main context, once, when the capture has ended by itself. */
    std::function<void ()> ended;
  };

  /* NULL with @error set when there is no reader or it can't be set up. Main thread only, like the rest. */
  static std::unique_ptr<CaptureThread> start (const CaptureOptions &options, Handlers handlers, GError **error);

  /* Stops the capture and waits for its thread. */
  ~CaptureThread ();
  CaptureThread (const CaptureThread &) = delete;
  CaptureThread &operator= (const CaptureThread &) = delete;

  /* Stops the capture and waits for its thread. FALSE with @error set when the capture had ended with an error. */
  gboolean stop (GError **error);

private:
  CaptureThread (RyxFrameBufferReader *new_reader, Handlers new_handlers);
  static gpointer run (gpointer thread);
  gboolean capture (GError **error);
  void join ();

  RyxFrameBufferReader *reader;
  Handlers handlers;
  std::unique_ptr<ReaderWaker> waker; /* empty when the reader never waits */
  std::atomic<bool> stopping = false;
  GThread *thread = nullptr;
  GSource *ended_source;     /* attached by the thread when it ends */
  GError *failure = nullptr; /* read after the thread was joined */
};
