#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/* RyxFrameBufferReaderXcb: captures the screen or one output over an X connection of its own. */

void ryx_frame_buffer_reader_xcb_register (GIOModule *module);
GType ryx_frame_buffer_reader_xcb_get_type (void);

G_END_DECLS
