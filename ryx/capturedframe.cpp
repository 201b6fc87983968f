#include <ryx/capturedframe.h>

struct _RyxCapturedFrame
{
  GObject parent_instance;

  guint32 screen_id;
  RyxFrameData *frame_data;
  RyxDiffmap *diffmap;
  gint64 timestamp; /* monotonic, in microseconds */
};

G_DEFINE_FINAL_TYPE (RyxCapturedFrame, ryx_captured_frame, G_TYPE_OBJECT)

static void
ryx_captured_frame_finalize (GObject *object)
{
  RyxCapturedFrame *frame = RYX_CAPTURED_FRAME (object);

  g_clear_pointer (&frame->frame_data, ryx_frame_data_unref);
  g_clear_pointer (&frame->diffmap, ryx_diffmap_unref);
  G_OBJECT_CLASS (ryx_captured_frame_parent_class)->finalize (object);
}

static void
ryx_captured_frame_class_init (RyxCapturedFrameClass *klass)
{
  G_OBJECT_CLASS (klass)->finalize = ryx_captured_frame_finalize;
}

static void
ryx_captured_frame_init (RyxCapturedFrame *)
{
}

RyxCapturedFrame *
ryx_captured_frame_new (guint32 screen_id, RyxFrameData *frame_data, RyxDiffmap *diffmap, gint64 timestamp)
{
  g_return_val_if_fail (frame_data && diffmap, nullptr);

  auto *frame = RYX_CAPTURED_FRAME (g_object_new (RYX_TYPE_CAPTURED_FRAME, nullptr));
  frame->screen_id = screen_id;
  frame->frame_data = ryx_frame_data_ref (frame_data);
  frame->diffmap = ryx_diffmap_ref (diffmap);
  frame->timestamp = timestamp;
  return frame;
}

guint32
ryx_captured_frame_get_screen_id (RyxCapturedFrame *frame)
{
  return frame->screen_id;
}

RyxFrameData *
ryx_captured_frame_get_frame_data (RyxCapturedFrame *frame)
{
  return frame->frame_data;
}

RyxDiffmap *
ryx_captured_frame_get_diffmap (RyxCapturedFrame *frame)
{
  return frame->diffmap;
}

gint64
ryx_captured_frame_get_timestamp (RyxCapturedFrame *frame)
{
  return frame->timestamp;
}
