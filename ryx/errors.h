#pragma once

#include <ryx/macros.h>

G_BEGIN_DECLS

/**
 * RyxDisplayLayoutManagerError:
 * @RYX_DISPLAY_LAYOUT_MANAGER_ERROR_GENERIC: the layout could not be applied
 * @RYX_DISPLAY_LAYOUT_MANAGER_ERROR_ALREADY_SET: the layout is the current one
 * @RYX_DISPLAY_LAYOUT_MANAGER_ERROR_NOT_AVAILABLE: layouts can't be changed here
 * @RYX_DISPLAY_LAYOUT_MANAGER_ERROR_INHIBITED: something forbids a change now
 *
 * Why a layout request failed.
 */
typedef enum
{
  RYX_DISPLAY_LAYOUT_MANAGER_ERROR_GENERIC = 0,
  RYX_DISPLAY_LAYOUT_MANAGER_ERROR_ALREADY_SET = 1,
  RYX_DISPLAY_LAYOUT_MANAGER_ERROR_NOT_AVAILABLE = 2,
  RYX_DISPLAY_LAYOUT_MANAGER_ERROR_INHIBITED = 3,
} RyxDisplayLayoutManagerError;

/**
 * RyxFrameBufferReaderError:
 * @RYX_FRAME_BUFFER_READER_ERROR_EMPTY_FRAME: nothing changed since the last frame; grab again
 * @RYX_FRAME_BUFFER_READER_ERROR_FAILED_SETUP: the reader can't work on this display
 * @RYX_FRAME_BUFFER_READER_ERROR_NEEDS_RECONFIGURE: the screen changed; configure, then grab again
 * @RYX_FRAME_BUFFER_READER_ERROR_PROTECTED_CONTENT: the screen shows what must not be captured
 * @RYX_FRAME_BUFFER_READER_ERROR_SHM_FAILED: shared memory failed; configure, then grab again
 * @RYX_FRAME_BUFFER_READER_ERROR_FAILED: the grab failed for another reason
 *
 * Why a frame-buffer reader gave no frame.
 */
typedef enum
{
  RYX_FRAME_BUFFER_READER_ERROR_EMPTY_FRAME = 0,
  RYX_FRAME_BUFFER_READER_ERROR_FAILED_SETUP = 1,
  RYX_FRAME_BUFFER_READER_ERROR_NEEDS_RECONFIGURE = 2,
  RYX_FRAME_BUFFER_READER_ERROR_PROTECTED_CONTENT = 3,
  RYX_FRAME_BUFFER_READER_ERROR_SHM_FAILED = 4,
  RYX_FRAME_BUFFER_READER_ERROR_FAILED = 5,
} RyxFrameBufferReaderError;

#define RYX_DISPLAY_LAYOUT_MANAGER_ERROR (ryx_display_layout_manager_error_quark ())
#define RYX_FRAME_BUFFER_READER_ERROR (ryx_frame_buffer_reader_error_quark ())

/**
 * ryx_display_layout_manager_error_quark:
 *
 * Identifies #RyxDisplayLayoutManagerError among error domains.
 *
 * Returns: the error domain of #RyxDisplayLayoutManagerError. Any thread.
 */
RYX_API GQuark ryx_display_layout_manager_error_quark (void);

/**
 * ryx_frame_buffer_reader_error_quark:
 *
 * Identifies #RyxFrameBufferReaderError among error domains.
 *
 * Returns: the error domain of #RyxFrameBufferReaderError. Any thread.
 */
RYX_API GQuark ryx_frame_buffer_reader_error_quark (void);

G_END_DECLS
