#pragma once

#include <ryx/capturedframe.h>
#include <ryx/errors.h>

G_BEGIN_DECLS

/**
 * RYX_FRAME_BUFFER_READER_EXTENSION_POINT:
 *
 * The extension point of #RyxFrameBufferReader implementations.
 */
#define RYX_FRAME_BUFFER_READER_EXTENSION_POINT "ryx-frame-buffer-reader-extension-point"

#define RYX_TYPE_FRAME_BUFFER_READER (ryx_frame_buffer_reader_get_type ())

/**
 * RyxFrameBufferReader:
 *
 * Reads the pixels of a screen or of one output. A grab may wait without limit for something to
 * be drawn, so a reader belongs on a thread that may wait; one caller at a time. A host calls setup
 * once, then configure, then grabs, and configures again whenever a grab asks for it.
 */
RYX_API
G_DECLARE_DERIVABLE_TYPE (RyxFrameBufferReader, ryx_frame_buffer_reader, RYX, FRAME_BUFFER_READER, GObject)

/**
 * RyxFrameBufferReader:screen-id:
 *
 * The id stamped into the frames.
 */

/**
 * RyxFrameBufferReader:screen-name:
 *
 * The screen's name in log lines.
 */

/**
 * RyxFrameBufferReader:output-id:
 *
 * The RandR output to capture, 0 for the whole screen.
 */

/**
 * RyxFrameBufferReader:block-size:
 *
 * The edge of a block of the change maps in pixels, 1 and up.
 */

/**
 * RyxFrameBufferReader:diffmap-refine-threshold:
 *
 * The number of damaged blocks above which a reader that is told of damage compares pixels, to unmark
 * blocks that were drawn without a change; -1: never.
 */

/**
 * RyxFrameBufferReaderClass:
 * @parent_class: the parent class
 * @setup: see ryx_frame_buffer_reader_setup()
 * @configure: see ryx_frame_buffer_reader_configure()
 * @grab_frame: see ryx_frame_buffer_reader_grab_frame()
 *
 * What an implementation fills in.
 */
struct _RyxFrameBufferReaderClass
{
  GObjectClass parent_class;

  gboolean (*setup) (RyxFrameBufferReader *reader, GError **error);
  gboolean (*configure) (RyxFrameBufferReader *reader, GError **error);
  RyxCapturedFrame *(*grab_frame) (RyxFrameBufferReader *reader, GError **error);
};

/**
 * ryx_frame_buffer_reader_setup:
 * @reader: a reader
 * @error: where the error goes, in %RYX_FRAME_BUFFER_READER_ERROR
 *
 * Prepares the reader, once in its life.
 *
 * Returns: %TRUE on success; %FALSE with @error set.
 */
RYX_API gboolean ryx_frame_buffer_reader_setup (RyxFrameBufferReader *reader, GError **error);

/**
 * ryx_frame_buffer_reader_configure:
 * @reader: a reader that was set up
 * @error: where the error goes, in %RYX_FRAME_BUFFER_READER_ERROR
 *
 * Fits the reader to its screen or output as it is now. Needed before the first grab, after a grab
 * failed with %RYX_FRAME_BUFFER_READER_ERROR_NEEDS_RECONFIGURE, and again after it failed itself with
 * %RYX_FRAME_BUFFER_READER_ERROR_SHM_FAILED. The next frame is a whole one.
 *
 * Returns: %TRUE on success; %FALSE with @error set.
 */
RYX_API gboolean ryx_frame_buffer_reader_configure (RyxFrameBufferReader *reader, GError **error);

/**
 * ryx_frame_buffer_reader_grab_frame:
 * @reader: a configured reader
 * @error: where the error goes, in %RYX_FRAME_BUFFER_READER_ERROR
 *
 * Takes a frame. The frame's map marks what changed since the last frame that this reader handed out.
 *
 * Returns: (transfer full) (nullable): a frame; %NULL with @error set. After
 *   %RYX_FRAME_BUFFER_READER_ERROR_EMPTY_FRAME simply grab again.
 */
RYX_API RyxCapturedFrame *ryx_frame_buffer_reader_grab_frame (RyxFrameBufferReader *reader, GError **error);

/**
 * ryx_frame_buffer_reader_get_screen_id:
 * @reader: a reader
 *
 * Tells how a reader marks its frames.
 *
 * Returns: the id stamped into its frames.
 */
RYX_API guint32 ryx_frame_buffer_reader_get_screen_id (RyxFrameBufferReader *reader);

/**
 * ryx_frame_buffer_reader_get_screen_name:
 * @reader: a reader
 *
 * Tells what a reader calls its screen.
 *
 * Returns: (transfer none) (nullable): the screen's name in log lines, valid until the property
 *   changes.
 */
RYX_API const gchar *ryx_frame_buffer_reader_get_screen_name (RyxFrameBufferReader *reader);

/**
 * ryx_frame_buffer_reader_get_output_id:
 * @reader: a reader
 *
 * Tells what a reader captures.
 *
 * Returns: the RandR output to capture, 0 for the whole screen.
 */
RYX_API guint32 ryx_frame_buffer_reader_get_output_id (RyxFrameBufferReader *reader);

/**
 * ryx_frame_buffer_reader_get_block_size:
 * @reader: a reader
 *
 * Tells how fine the change maps of a reader are.
 *
 * Returns: the edge of a block of its change maps in pixels, 1 and up.
 */
RYX_API guint32 ryx_frame_buffer_reader_get_block_size (RyxFrameBufferReader *reader);

/**
 * ryx_frame_buffer_reader_get_diffmap_refine_threshold:
 * @reader: a reader
 *
 * Tells when a reader compares pixels that were drawn.
 *
 * Returns: the number of damaged blocks above which it does; -1: never.
 */
RYX_API gint32 ryx_frame_buffer_reader_get_diffmap_refine_threshold (RyxFrameBufferReader *reader);

G_END_DECLS
