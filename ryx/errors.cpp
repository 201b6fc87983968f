#include <ryx/errors.h>

G_DEFINE_QUARK (ryx-display-layout-manager-error-quark, ryx_display_layout_manager_error)
G_DEFINE_QUARK (ryx-frame-buffer-reader-error-quark, ryx_frame_buffer_reader_error)
