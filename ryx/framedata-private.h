#pragma once

#include <ryx/framedata.h>

/* How the pixels of a frame data lie in memory. */
struct FrameDataGeometry
{
  guint32 width, height;
  gsize stride;     /* in bytes */
  guint pixel_size; /* in bytes */
};

/* Finds the live frame data whose first byte @pixels is. False when there is none. Any thread. */
bool ryx_frame_data_find_geometry (const guint8 *pixels, FrameDataGeometry *geometry);
