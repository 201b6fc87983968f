#include <ryx/pixelformat.h>

guint
ryx_pixel_format_get_size (RyxPixelFormat format)
{
  return format == RYX_PIXEL_FORMAT_BGR ? 3 : 4;
}
