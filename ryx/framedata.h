#pragma once

#include <ryx/allocator.h>
#include <ryx/pixelformat.h>

G_BEGIN_DECLS

#define RYX_TYPE_FRAME_DATA (ryx_frame_data_get_type ())

/**
 * RyxFrameData:
 *
 * The pixels of one frame: rows top to bottom in storage of its own. Its pixels never change after
 * it was made, so any number of threads may read it; references are counted atomically.
 */
typedef struct _RyxFrameData RyxFrameData;

/**
 * ryx_frame_data_get_type:
 *
 * Returns: the boxed type of frame data.
 */
RYX_API GType ryx_frame_data_get_type (void);

/**
 * ryx_frame_data_new_with_stride: (skip)
 * @allocator: where the storage comes from; kept referenced as long as the frame data lives
 * @pixels: the source's first row
 * @stride: bytes from one source row to the next, at least @width pixels
 * @width: width in pixels
 * @height: height in pixels
 * @format: the layout of the source's pixels
 *
 * Copies an image with its row padding in one pass. No byte behind the last row's last pixel
 * is read.
 *
 * Returns: (transfer full) (nullable): a new frame data with the same stride; %NULL, with a
 *   critical message, when the stride is too small or the image is larger than memory can hold.
 */
RYX_API RyxFrameData *ryx_frame_data_new_with_stride (RyxAllocator *allocator, const guint8 *pixels, gsize stride,
                                                      guint32 width, guint32 height, RyxPixelFormat format);

/**
 * ryx_frame_data_ref:
 * @frame_data: a frame data
 *
 * Takes a reference.
 *
 * Returns: (transfer full): @frame_data, with one more reference.
 */
RYX_API RyxFrameData *ryx_frame_data_ref (RyxFrameData *frame_data);

/**
 * ryx_frame_data_unref:
 * @frame_data: (transfer full): a frame data
 *
 * Drops a reference; the last one returns the storage to the allocator.
 */
RYX_API void ryx_frame_data_unref (RyxFrameData *frame_data);

/**
 * ryx_frame_data_get_data: (skip)
 * @frame_data: a frame data
 *
 * Gives the pixels.
 *
 * Returns: (transfer none): the first row's first byte; the rows are
 *   ryx_frame_data_get_stride() bytes apart. Aligned to 64 bytes, valid as long as @frame_data.
 */
RYX_API const guint8 *ryx_frame_data_get_data (RyxFrameData *frame_data);

/**
 * ryx_frame_data_get_bytes:
 * @frame_data: a frame data
 *
 * Gives the pixels with their size, up to the last row's last pixel, without a copy.
 *
 * Returns: (transfer full): the pixels, as ryx_frame_data_get_data() describes them; they hold a
 *   reference on @frame_data.
 */
RYX_API GBytes *ryx_frame_data_get_bytes (RyxFrameData *frame_data);

/**
 * ryx_frame_data_get_width:
 * @frame_data: a frame data
 *
 * Tells how wide the picture is.
 *
 * Returns: the width in pixels.
 */
RYX_API guint32 ryx_frame_data_get_width (RyxFrameData *frame_data);

/**
 * ryx_frame_data_get_height:
 * @frame_data: a frame data
 *
 * Tells how high the picture is.
 *
 * Returns: the height in pixels.
 */
RYX_API guint32 ryx_frame_data_get_height (RyxFrameData *frame_data);

/**
 * ryx_frame_data_get_stride:
 * @frame_data: a frame data
 *
 * Tells how far apart the rows are.
 *
 * Returns: bytes from one row to the next.
 */
RYX_API gsize ryx_frame_data_get_stride (RyxFrameData *frame_data);

/**
 * ryx_frame_data_get_format:
 * @frame_data: a frame data
 *
 * Tells how to read a pixel.
 *
 * Returns: the layout of its pixels.
 */
RYX_API RyxPixelFormat ryx_frame_data_get_format (RyxFrameData *frame_data);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (RyxFrameData, ryx_frame_data_unref)

G_END_DECLS
