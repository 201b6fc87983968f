#include <ryx/errors.h>

GQuark
ryx_display_layout_manager_error_quark (void)
{
  return g_quark_from_static_string ("ryx-display-layout-manager-error-quark");
}

GQuark
ryx_frame_buffer_reader_error_quark (void)
{
  return g_quark_from_static_string ("ryx-frame-buffer-reader-error-quark");
}
