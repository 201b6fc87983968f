#pragma once

#include <ryx/diffmap.h>
#include <ryx/framedata.h>

G_BEGIN_DECLS

#define RYX_TYPE_CAPTURED_FRAME (ryx_captured_frame_get_type ())

/**
 * RyxCapturedFrame:
 *
 * One grabbed frame: the pixels, the map of what changed since the frame before, and when it was
 * taken. It never changes, so any thread may read it; release it with g_object_unref().
 */
RYX_API
G_DECLARE_FINAL_TYPE (RyxCapturedFrame, ryx_captured_frame, RYX, CAPTURED_FRAME, GObject)

/**
 * ryx_captured_frame_new:
 * @screen_id: the id that the host gave the reader's screen
 * @frame_data: the pixels; referenced
 * @diffmap: the map of changed blocks; referenced
 * @timestamp: when it was grabbed, as g_get_monotonic_time() tells it, in microseconds
 *
 * Puts a frame together, for implementations of #RyxFrameBufferReader.
 *
 * Returns: (transfer full): a new captured frame.
 */
RYX_API RyxCapturedFrame *ryx_captured_frame_new (guint32 screen_id, RyxFrameData *frame_data, RyxDiffmap *diffmap,
                                                  gint64 timestamp);

/**
 * ryx_captured_frame_get_screen_id:
 * @frame: a captured frame
 *
 * Tells which screen a frame shows.
 *
 * Returns: the screen id of the reader that made it.
 */
RYX_API guint32 ryx_captured_frame_get_screen_id (RyxCapturedFrame *frame);

/**
 * ryx_captured_frame_get_frame_data:
 * @frame: a captured frame
 *
 * Gives the picture.
 *
 * Returns: (transfer none): the pixels, valid as long as @frame.
 */
RYX_API RyxFrameData *ryx_captured_frame_get_frame_data (RyxCapturedFrame *frame);

/**
 * ryx_captured_frame_get_diffmap:
 * @frame: a captured frame
 *
 * Gives the map of what changed since the frame before.
 *
 * Returns: (transfer none): the map of changed blocks, valid as long as @frame.
 */
RYX_API RyxDiffmap *ryx_captured_frame_get_diffmap (RyxCapturedFrame *frame);

/**
 * ryx_captured_frame_get_timestamp:
 * @frame: a captured frame
 *
 * Tells when a frame was grabbed.
 *
 * Returns: monotonic time of the grab in microseconds.
 */
RYX_API gint64 ryx_captured_frame_get_timestamp (RyxCapturedFrame *frame);

G_END_DECLS
