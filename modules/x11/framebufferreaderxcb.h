#pragma once

#include <gio/gio.h>
#include <ryx/ryx.h>

G_BEGIN_DECLS

#define RYX_TYPE_FRAME_BUFFER_READER_XCB (ryx_frame_buffer_reader_xcb_get_type ())

/* Captures the screen or one output over an X connection of its own. */
G_DECLARE_FINAL_TYPE (RyxFrameBufferReaderXcb, ryx_frame_buffer_reader_xcb, RYX, FRAME_BUFFER_READER_XCB,
                      RyxFrameBufferReader)

void ryx_frame_buffer_reader_xcb_register (GIOModule *module);

G_END_DECLS
