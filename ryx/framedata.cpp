#include "framedata-private.h"

#include "allocator-private.h"

#include <string.h>

struct _RyxFrameData
{
  gatomicrefcount references;
  RyxAllocator *allocator;
  guint8 *data;
  gsize size;    /* of data: up to the last row's last pixel */
  guint64 image; /* what the allocator calls the content */
  gsize stride;
  guint32 width, height;
  RyxPixelFormat format;
};

G_DEFINE_BOXED_TYPE (RyxFrameData, ryx_frame_data, ryx_frame_data_ref, ryx_frame_data_unref)

/* Every live frame data by its pixels' address: the image comparisons are given bare pointers. */
static GMutex live_lock;
static GHashTable *live_by_data;

static void
enter_live (RyxFrameData *frame_data)
{
  g_autoptr (GMutexLocker) locker = g_mutex_locker_new (&live_lock);

  if (!live_by_data)
    live_by_data = g_hash_table_new (nullptr, nullptr);
  g_hash_table_insert (live_by_data, frame_data->data, frame_data);
}

static void
leave_live (RyxFrameData *frame_data)
{
  g_autoptr (GMutexLocker) locker = g_mutex_locker_new (&live_lock);

  g_hash_table_remove (live_by_data, frame_data->data);
}

std::optional<FrameDataGeometry>
ryx_frame_data_find_geometry (const guint8 *pixels)
{
  g_autoptr (GMutexLocker) locker = g_mutex_locker_new (&live_lock);

  const auto *frame_data
    = static_cast<const RyxFrameData *> (live_by_data ? g_hash_table_lookup (live_by_data, pixels) : nullptr);
  if (!frame_data)
    return std::nullopt;

  return FrameDataGeometry{ frame_data->width, frame_data->height, frame_data->stride,
                            ryx_pixel_format_get_size (frame_data->format) };
}

/* The bytes from the first row's first pixel to the last row's last one. */
static bool
get_image_size (gsize stride, gsize row_size, guint32 height, gsize *size)
{
  *size = 0;
  return height == 0 || (g_size_checked_mul (size, stride, height - 1) && g_size_checked_add (size, *size, row_size));
}

/* Within two images that lie in memory in the same way. */
static void
copy_rect (guint8 *target, const guint8 *source, gsize stride, guint pixel_size, const RyxRect &rect)
{
  const gsize start = rect.y * stride + gsize{ rect.x } * pixel_size;
  const gsize row_size = gsize{ rect.width } * pixel_size;

  if (row_size == stride)
    memcpy (target + start, source + start, row_size * rect.height);
  else
    for (gsize offset = start, row = 0; row < rect.height; row++, offset += stride)
      memcpy (target + offset, source + offset, row_size);
}

static void
copy_blocks (guint8 *target, const guint8 *source, gsize stride, guint pixel_size, RyxDiffmap *blocks)
{
  guint32 n_rects;
  g_autofree RyxRect *rects = ryx_diffmap_get_rects (blocks, &n_rects);

  for (guint32 i = 0; i < n_rects; i++)
    copy_rect (target, source, stride, pixel_size, rects[i]);
}

RyxFrameData *
ryx_frame_data_new_with_stride (RyxAllocator *allocator, const guint8 *pixels, gsize stride, guint32 width,
                                guint32 height, RyxPixelFormat format)
{
  gsize row_size, size;

  g_return_val_if_fail (allocator && pixels, nullptr);
  g_return_val_if_fail (g_size_checked_mul (&row_size, width, ryx_pixel_format_get_size (format)), nullptr);
  g_return_val_if_fail (stride >= row_size, nullptr);
  g_return_val_if_fail (get_image_size (stride, row_size, height, &size), nullptr);

  const ImageStorage storage = ryx_allocator_acquire_for_image (allocator, size);
  g_autoptr (RyxDiffmap) changed = storage.changed;
  g_return_val_if_fail (storage.data, nullptr);
  if (changed)
    copy_blocks (storage.data, pixels, stride, ryx_pixel_format_get_size (format), changed);
  else
    memcpy (storage.data, pixels, size);

  RyxFrameData *frame_data = g_new (RyxFrameData, 1);
  g_atomic_ref_count_init (&frame_data->references);
  frame_data->allocator = ryx_allocator_ref (allocator);
  frame_data->data = storage.data;
  frame_data->size = size;
  frame_data->image = storage.image;
  frame_data->stride = stride;
  frame_data->width = width;
  frame_data->height = height;
  frame_data->format = format;
  enter_live (frame_data);
  return frame_data;
}

RyxFrameData *
ryx_frame_data_ref (RyxFrameData *frame_data)
{
  g_return_val_if_fail (frame_data, nullptr);

  g_atomic_ref_count_inc (&frame_data->references);
  return frame_data;
}

void
ryx_frame_data_unref (RyxFrameData *frame_data)
{
  g_return_if_fail (frame_data);

  if (!g_atomic_ref_count_dec (&frame_data->references))
    return;

  /* In this order: once released, the same storage may come alive again in another thread. */
  leave_live (frame_data);
  ryx_allocator_release_image (frame_data->allocator, frame_data->data, frame_data->size, frame_data->image);
  ryx_allocator_unref (frame_data->allocator);
  g_free (frame_data);
}

const guint8 *
ryx_frame_data_get_data (RyxFrameData *frame_data)
{
  return frame_data->data;
}

GBytes *
ryx_frame_data_get_bytes (RyxFrameData *frame_data)
{
  return g_bytes_new_with_free_func (frame_data->data, frame_data->size,
                                     reinterpret_cast<GDestroyNotify> (ryx_frame_data_unref),
                                     ryx_frame_data_ref (frame_data));
}

guint32
ryx_frame_data_get_width (RyxFrameData *frame_data)
{
  return frame_data->width;
}

guint32
ryx_frame_data_get_height (RyxFrameData *frame_data)
{
  return frame_data->height;
}

gsize
ryx_frame_data_get_stride (RyxFrameData *frame_data)
{
  return frame_data->stride;
}

RyxPixelFormat
ryx_frame_data_get_format (RyxFrameData *frame_data)
{
  return frame_data->format;
}
