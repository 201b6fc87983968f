#pragma once

#include <ryx/macros.h>

G_BEGIN_DECLS

/**
 * RyxPixelFormat:
 * @RYX_PIXEL_FORMAT_ARGB: 4 bytes per pixel: alpha, red, green, blue
 * @RYX_PIXEL_FORMAT_BGRA: 4 bytes per pixel: blue, green, red, alpha or unused
 * @RYX_PIXEL_FORMAT_BGR: 3 bytes per pixel: blue, green, red
 *
 * The order of a pixel's bytes in memory.
 */
typedef enum
{
  RYX_PIXEL_FORMAT_ARGB = 0,
  RYX_PIXEL_FORMAT_BGRA = 1,
  RYX_PIXEL_FORMAT_BGR = 2,
} RyxPixelFormat;

/**
 * ryx_pixel_format_get_size:
 * @format: a pixel format
 *
 * Tells how large a pixel is.
 *
 * Returns: the bytes per pixel, 3 or 4. Any thread.
 */
RYX_API guint ryx_pixel_format_get_size (RyxPixelFormat format);

G_END_DECLS
