#include "diffmap-private.h"

#include "framedata-private.h"

#include <algorithm>
#include <optional>
#include <string.h>

struct _RyxDiffmap
{
  gatomicrefcount references;
  guint32 width, height; /* of the image, in pixels */
  guint32 block_size;
  guint32 columns, rows;
  guint8 *marks; /* one per block, behind this structure in the same piece of memory */
};

G_DEFINE_BOXED_TYPE (RyxDiffmap, ryx_diffmap, ryx_diffmap_ref, ryx_diffmap_unref)

/* The marks that a comparison leaves, and one that it only uses for itself. */
enum : guint8
{
  EQUAL = 0,
  DIFFERENT = 1,
  UNDECIDED = 2, /* equal as far as it was looked at */
};

/* Of an image that no frame data owns. */
static constexpr guint bare_pixel_size = 4;

struct Image
{
  const guint8 *pixels;
  gssize stride; /* in bytes */

  const guint8 *
  row (guint32 y) const
  {
    return pixels + static_cast<gssize> (y) * stride;
  }
};

struct ImagePair
{
  Image old_image, new_image;
  guint pixel_size; /* in bytes */
};

static guint32
count_blocks (guint32 extent, guint32 block_size)
{
  return extent / block_size + (extent % block_size != 0);
}

static RyxDiffmap *
new_filled (guint32 width, guint32 height, guint32 block_size, guint8 mark)
{
  g_return_val_if_fail (block_size > 0, nullptr);

  const guint32 columns = count_blocks (width, block_size);
  const guint32 rows = count_blocks (height, block_size);
  const guint64 n_blocks = guint64{ columns } * rows;
  g_return_val_if_fail (n_blocks <= MIN (G_MAXUINT32, G_MAXSIZE - sizeof (RyxDiffmap)), nullptr);

  auto *diffmap = static_cast<RyxDiffmap *> (g_try_malloc (sizeof (RyxDiffmap) + n_blocks));
  g_return_val_if_fail (diffmap, nullptr);

  g_atomic_ref_count_init (&diffmap->references);
  diffmap->width = width;
  diffmap->height = height;
  diffmap->block_size = block_size;
  diffmap->columns = columns;
  diffmap->rows = rows;
  diffmap->marks = reinterpret_cast<guint8 *> (diffmap + 1);
  memset (diffmap->marks, mark, n_blocks);
  return diffmap;
}

static gsize
get_n_blocks (const RyxDiffmap *diffmap)
{
  return gsize{ diffmap->columns } * diffmap->rows;
}

static guint8 *
get_row_marks (RyxDiffmap *diffmap, guint32 row)
{
  return diffmap->marks + gsize{ row } * diffmap->columns;
}

/* Where a column of blocks begins in the image, or a row of them. */
static guint32
get_block_start (const RyxDiffmap *diffmap, guint32 index, guint32 extent)
{
  return static_cast<guint32> (std::min<guint64> (guint64{ index } * diffmap->block_size, extent));
}

static bool
fits (const std::optional<FrameDataGeometry> &frame, guint32 width, guint32 height)
{
  return !frame || (width <= frame->width && height <= frame->height);
}

static gssize
choose_stride (gint32 stride_in_pixels, guint pixel_size, const std::optional<FrameDataGeometry> &own_frame,
               const std::optional<FrameDataGeometry> &other_frame)
{
  if (own_frame)
    return static_cast<gssize> (own_frame->stride);
  if (other_frame && stride_in_pixels >= 0 && gsize (stride_in_pixels) == other_frame->stride / pixel_size)
    return static_cast<gssize> (other_frame->stride);
  return gssize{ stride_in_pixels } * pixel_size;
}

/* Finds out how two images lie in memory. False when they can't be compared at that size. */
static bool
find_images (const guint8 *old_pixels, const guint8 *new_pixels, guint32 width, guint32 height, gint32 old_stride,
             gint32 new_stride, ImagePair *pair)
{
  const auto old_frame = ryx_frame_data_find_geometry (old_pixels);
  const auto new_frame = ryx_frame_data_find_geometry (new_pixels);

  if (!fits (old_frame, width, height) || !fits (new_frame, width, height))
    return false;
  if (old_frame && new_frame && old_frame->pixel_size != new_frame->pixel_size)
    return false;

  const guint pixel_size = old_frame ? old_frame->pixel_size : new_frame ? new_frame->pixel_size : bare_pixel_size;
  *pair = { { old_pixels, choose_stride (old_stride, pixel_size, old_frame, new_frame) },
            { new_pixels, choose_stride (new_stride, pixel_size, new_frame, old_frame) },
            pixel_size };
  return true;
}

/* One row of pixels in two images, and the blocks that it runs through. */
struct RowComparison
{
  const RyxDiffmap *diffmap;
  const guint8 *old_row, *new_row;
  guint pixel_size;

  bool
  differs (guint32 first_column, guint32 end_column) const
  {
    const gsize begin = gsize{ get_block_start (diffmap, first_column, diffmap->width) } * pixel_size;
    const gsize end = gsize{ get_block_start (diffmap, end_column, diffmap->width) } * pixel_size;

    return memcmp (old_row + begin, new_row + begin, end - begin) != 0;
  }
};

/* Decides the blocks of a run that differ in this row. Returns how many. */
static guint32
decide_run (const RowComparison &comparison, guint8 *marks, guint32 first_column, guint32 end_column)
{
  guint32 n_decided = 0;

  if (!comparison.differs (first_column, end_column))
    return 0;

  for (guint32 column = first_column; column < end_column; column++)
    if (comparison.differs (column, column + 1))
      {
        marks[column] = DIFFERENT;
        n_decided++;
      }
  return n_decided;
}

/* Compares what is undecided in one row of pixels, in as few and long spans as there are. */
static guint32
decide_pixel_row (const RowComparison &comparison, guint8 *marks, guint32 n_undecided)
{
  const guint32 columns = comparison.diffmap->columns;
  guint32 n_decided = 0;

  if (n_undecided == columns)
    return decide_run (comparison, marks, 0, columns);

  for (guint32 first = 0, end; first < columns; first = end)
    {
      end = first + 1;
      if (marks[first] != UNDECIDED)
        continue;

      while (end < columns && marks[end] == UNDECIDED)
        end++;
      n_decided += decide_run (comparison, marks, first, end);
    }
  return n_decided;
}

/* Compares the marked blocks of one row of blocks. Returns how many differ. */
static guint32
compare_block_row (RyxDiffmap *diffmap, const ImagePair &images, guint32 row)
{
  guint8 *marks = get_row_marks (diffmap, row);
  guint8 *end_of_marks = marks + diffmap->columns;
  const guint32 end_y = get_block_start (diffmap, row + 1, diffmap->height);
  guint32 n_undecided = 0, n_different = 0;

  for (guint8 *mark = marks; mark < end_of_marks; mark++)
    {
      n_undecided += *mark != 0;
      *mark = *mark != 0 ? UNDECIDED : EQUAL;
    }

  for (guint32 y = get_block_start (diffmap, row, diffmap->height); y < end_y && n_undecided > 0; y++)
    {
      const RowComparison comparison
        = { diffmap, images.old_image.row (y), images.new_image.row (y), images.pixel_size };
      const guint32 n_decided = decide_pixel_row (comparison, marks, n_undecided);

      n_undecided -= n_decided;
      n_different += n_decided;
    }

  std::replace (marks, end_of_marks, guint8{ UNDECIDED }, guint8{ EQUAL });
  return n_different;
}

static guint32
compare_marked_blocks (RyxDiffmap *diffmap, const ImagePair &images)
{
  guint32 n_different = 0;

  for (guint32 row = 0; row < diffmap->rows; row++)
    n_different += compare_block_row (diffmap, images, row);
  return n_different;
}

RyxDiffmap *
ryx_diffmap_new_all_set (guint32 width, guint32 height, guint32 block_size)
{
  return new_filled (width, height, block_size, 1);
}

RyxDiffmap *
ryx_diffmap_new_all_zero (guint32 width, guint32 height, guint32 block_size)
{
  return new_filled (width, height, block_size, 0);
}

RyxDiffmap *
ryx_diffmap_new_from_images (const guint8 *old_pixels, const guint8 *new_pixels, guint32 width, guint32 height,
                             gint32 old_stride, gint32 new_stride, guint32 block_size, guint32 *n_changed)
{
  ImagePair images;

  g_return_val_if_fail (old_pixels && new_pixels && n_changed, nullptr);
  g_return_val_if_fail (find_images (old_pixels, new_pixels, width, height, old_stride, new_stride, &images), nullptr);

  RyxDiffmap *diffmap = new_filled (width, height, block_size, UNDECIDED);
  if (diffmap)
    *n_changed = compare_marked_blocks (diffmap, images);
  return diffmap;
}

void
ryx_diffmap_refine_from_images (RyxDiffmap *diffmap, const guint8 *old_pixels, const guint8 *new_pixels, guint32 width,
                                guint32 height, gint32 old_stride, gint32 new_stride, guint32 *n_changed)
{
  ImagePair images;

  g_return_if_fail (diffmap && old_pixels && new_pixels && n_changed);
  g_return_if_fail (width == diffmap->width && height == diffmap->height);
  g_return_if_fail (find_images (old_pixels, new_pixels, width, height, old_stride, new_stride, &images));

  *n_changed = compare_marked_blocks (diffmap, images);
}

/* The part of an extent that lies inside the image, in blocks. */
struct BlockRange
{
  guint32 first, end;
};

static BlockRange
clip_to_blocks (const RyxDiffmap *diffmap, guint32 position, guint32 length, guint32 extent)
{
  const gint64 start = static_cast<gint32> (position);
  const gint64 first_pixel = std::max<gint64> (start, 0);
  const gint64 end_pixel = std::min<gint64> (start + length, extent);

  if (first_pixel >= end_pixel)
    return { 0, 0 };
  return { static_cast<guint32> (first_pixel / diffmap->block_size),
           static_cast<guint32> ((end_pixel - 1) / diffmap->block_size + 1) };
}

guint32
ryx_diffmap_set_image_rect (RyxDiffmap *diffmap, const RyxRect *rect, guint8 value)
{
  g_return_val_if_fail (diffmap && rect, 0);

  const BlockRange columns = clip_to_blocks (diffmap, rect->x, rect->width, diffmap->width);
  const BlockRange rows = clip_to_blocks (diffmap, rect->y, rect->height, diffmap->height);
  guint32 n_changed = 0;

  for (guint32 row = rows.first; row < rows.end; row++)
    {
      guint8 *first = get_row_marks (diffmap, row) + columns.first;
      guint8 *end = get_row_marks (diffmap, row) + columns.end;

      n_changed += static_cast<guint32> ((end - first) - std::count (first, end, value));
      std::fill (first, end, value);
    }
  return n_changed;
}

RyxDiffmap *
ryx_diffmap_copy (RyxDiffmap *diffmap)
{
  RyxDiffmap *copy = new_filled (diffmap->width, diffmap->height, diffmap->block_size, 0);

  if (copy)
    memcpy (copy->marks, diffmap->marks, get_n_blocks (diffmap));
  return copy;
}

gboolean
ryx_diffmap_merge (RyxDiffmap *diffmap, RyxDiffmap *other)
{
  if (diffmap->width != other->width || diffmap->height != other->height || diffmap->block_size != other->block_size)
    return FALSE;

  for (gsize i = 0; i < get_n_blocks (diffmap); i++)
    diffmap->marks[i] |= other->marks[i];
  return TRUE;
}

RyxDiffmap *
ryx_diffmap_ref (RyxDiffmap *diffmap)
{
  g_return_val_if_fail (diffmap, nullptr);

  g_atomic_ref_count_inc (&diffmap->references);
  return diffmap;
}

void
ryx_diffmap_unref (RyxDiffmap *diffmap)
{
  g_return_if_fail (diffmap);

  if (g_atomic_ref_count_dec (&diffmap->references))
    g_free (diffmap);
}

guint32
ryx_diffmap_get_block_size (RyxDiffmap *diffmap)
{
  return diffmap->block_size;
}

guint32
ryx_diffmap_get_columns (RyxDiffmap *diffmap)
{
  return diffmap->columns;
}

guint32
ryx_diffmap_get_rows (RyxDiffmap *diffmap)
{
  return diffmap->rows;
}

const guint8 *
ryx_diffmap_get_marks (RyxDiffmap *diffmap)
{
  return diffmap->marks;
}

guint32
ryx_diffmap_get_count (RyxDiffmap *diffmap)
{
  const gsize n_blocks = get_n_blocks (diffmap);

  return static_cast<guint32> (n_blocks - std::count (diffmap->marks, diffmap->marks + n_blocks, 0));
}

/* Whether a row of blocks has exactly these columns marked between two that are not. */
static bool
has_run (RyxDiffmap *diffmap, guint32 row, const BlockRange &columns)
{
  const guint8 *marks = get_row_marks (diffmap, row);

  return (columns.first == 0 || !marks[columns.first - 1]) && (columns.end == diffmap->columns || !marks[columns.end])
         && !memchr (marks + columns.first, 0, columns.end - columns.first);
}

static RyxRect
get_image_rect (const RyxDiffmap *diffmap, const BlockRange &columns, const BlockRange &rows)
{
  const guint32 x = get_block_start (diffmap, columns.first, diffmap->width);
  const guint32 y = get_block_start (diffmap, rows.first, diffmap->height);

  return { x, y, get_block_start (diffmap, columns.end, diffmap->width) - x,
           get_block_start (diffmap, rows.end, diffmap->height) - y };
}

/* Adds the rectangle whose first row is this run, unless the run belongs to one from further up. */
static void
add_rect_of_run (RyxDiffmap *diffmap, guint32 row, const BlockRange &columns, GArray *rects)
{
  if (row > 0 && has_run (diffmap, row - 1, columns))
    return;

  guint32 end_row = row + 1;
  while (end_row < diffmap->rows && has_run (diffmap, end_row, columns))
    end_row++;

  const RyxRect rect = get_image_rect (diffmap, columns, { row, end_row });
  g_array_append_val (rects, rect);
}

static void
add_rects_of_row (RyxDiffmap *diffmap, guint32 row, GArray *rects)
{
  const guint8 *marks = get_row_marks (diffmap, row);

  for (guint32 first = 0, end; first < diffmap->columns; first = end)
    {
      end = first + 1;
      if (!marks[first])
        continue;

      while (end < diffmap->columns && marks[end])
        end++;
      add_rect_of_run (diffmap, row, { first, end }, rects);
    }
}

RyxRect *
ryx_diffmap_get_rects (RyxDiffmap *diffmap, guint32 *n_rects)
{
  g_return_val_if_fail (diffmap && n_rects, nullptr);

  GArray *rects = g_array_new (FALSE, FALSE, sizeof (RyxRect));
  for (guint32 row = 0; row < diffmap->rows; row++)
    add_rects_of_row (diffmap, row, rects);

  *n_rects = rects->len;
  return reinterpret_cast<RyxRect *> (g_array_free (rects, rects->len == 0));
}
