#pragma once

#include <ryx/framedata.h>

#include <optional>

/* How the pixels of a frame data lie in memory. */
struct FrameDataGeometry
{
  guint32 width, height;
  gsize stride;     /* in bytes */
  guint pixel_size; /* in bytes */
};

/* The live frame data whose first byte @pixels is, if it is one's. Any thread. */
std::optional<FrameDataGeometry> ryx_frame_data_find_geometry (const guint8 *pixels);
