#pragma once

#include <ryx/rect.h>

G_BEGIN_DECLS

#define RYX_TYPE_DIFFMAP (ryx_diffmap_get_type ())

/**
 * RyxDiffmap:
 *
 * A map over an image cut into square blocks, with one mark per block: 0 says that the block is as
 * it was. The blocks at the right and bottom edges are as small as the image leaves them. References
 * are counted atomically; a map may be read by many threads, and changed by one when nobody reads.
 *
 * The comparisons look at pixels of the image only, never at row padding. The pixel size is that of
 * the #RyxFrameData that owns one of the two pixel pointers, 4 bytes when neither belongs to one. A
 * pointer of a frame data is read with that frame data's own stride, whatever is passed for it; the
 * other image's too when both are given the same number of whole pixels, since a stride in pixels
 * can't express a padded row of 3-byte pixels. Images that are larger than a frame data that they are
 * read from, or frame datas of different pixel sizes, are refused with a critical message.
 */
typedef struct _RyxDiffmap RyxDiffmap;

/**
 * ryx_diffmap_get_type:
 *
 * Returns: the boxed type of diffmaps.
 */
RYX_API GType ryx_diffmap_get_type (void);

/**
 * ryx_diffmap_new_all_set:
 * @width: the image's width in pixels
 * @height: the image's height in pixels
 * @block_size: edge of a block in pixels, 1 and up
 *
 * Makes a map that calls everything changed.
 *
 * Returns: (transfer full) (nullable): a new map with every block marked; %NULL, with a critical
 *   message, for a block size of 0 or for more than 4294967295 blocks.
 */
RYX_API RyxDiffmap *ryx_diffmap_new_all_set (guint32 width, guint32 height, guint32 block_size);

/**
 * ryx_diffmap_new_all_zero:
 * @width: the image's width in pixels
 * @height: the image's height in pixels
 * @block_size: edge of a block in pixels, 1 and up
 *
 * Makes a map that calls nothing changed.
 *
 * Returns: (transfer full) (nullable): a new map with no block marked; %NULL as for
 *   ryx_diffmap_new_all_set().
 */
RYX_API RyxDiffmap *ryx_diffmap_new_all_zero (guint32 width, guint32 height, guint32 block_size);

/**
 * ryx_diffmap_new_from_images: (skip)
 * @old_pixels: the first image
 * @new_pixels: the second image
 * @width: width of both in pixels
 * @height: height of both in pixels
 * @old_stride: pixels from one row of @old_pixels to the next
 * @new_stride: pixels from one row of @new_pixels to the next
 * @block_size: edge of a block in pixels, 1 and up
 * @n_changed: (out): the number of marked blocks
 *
 * Compares two images, in one pass in memory order.
 *
 * Returns: (transfer full) (nullable): a new map that marks the blocks in which the images differ;
 *   %NULL as for ryx_diffmap_new_all_set(), or when the images can't be compared.
 */
RYX_API RyxDiffmap *ryx_diffmap_new_from_images (const guint8 *old_pixels, const guint8 *new_pixels, guint32 width,
                                                 guint32 height, gint32 old_stride, gint32 new_stride,
                                                 guint32 block_size, guint32 *n_changed);

/**
 * ryx_diffmap_refine_from_images: (skip)
 * @diffmap: a map of an image of @width × @height pixels
 * @old_pixels: the first image
 * @new_pixels: the second image
 * @width: width of both in pixels
 * @height: height of both in pixels
 * @old_stride: pixels from one row of @old_pixels to the next
 * @new_stride: pixels from one row of @new_pixels to the next
 * @n_changed: (out): the number of blocks left marked
 *
 * Compares the marked blocks of two images and removes the mark of those that are equal. Blocks
 * without a mark are not looked at; the marks that stay become 1.
 */
RYX_API void ryx_diffmap_refine_from_images (RyxDiffmap *diffmap, const guint8 *old_pixels, const guint8 *new_pixels,
                                             guint32 width, guint32 height, gint32 old_stride, gint32 new_stride,
                                             guint32 *n_changed);

/**
 * ryx_diffmap_set_image_rect:
 * @diffmap: a map
 * @rect: a rectangle in image coordinates; what lies outside the image does not count
 * @value: the mark to set
 *
 * Sets the mark of every block that the rectangle touches.
 *
 * Returns: how many marks it changed, so that overlapping rectangles count a block once.
 */
RYX_API guint32 ryx_diffmap_set_image_rect (RyxDiffmap *diffmap, const RyxRect *rect, guint8 value);

/**
 * ryx_diffmap_ref:
 * @diffmap: a map
 *
 * Takes a reference.
 *
 * Returns: (transfer full): @diffmap, with one more reference.
 */
RYX_API RyxDiffmap *ryx_diffmap_ref (RyxDiffmap *diffmap);

/**
 * ryx_diffmap_unref:
 * @diffmap: (transfer full): a map
 *
 * Drops a reference.
 */
RYX_API void ryx_diffmap_unref (RyxDiffmap *diffmap);

/**
 * ryx_diffmap_get_block_size:
 * @diffmap: a map
 *
 * Tells how large a block is.
 *
 * Returns: the edge of a block in pixels.
 */
RYX_API guint32 ryx_diffmap_get_block_size (RyxDiffmap *diffmap);

/**
 * ryx_diffmap_get_columns:
 * @diffmap: a map
 *
 * Tells how many blocks a row has.
 *
 * Returns: the number of blocks side by side.
 */
RYX_API guint32 ryx_diffmap_get_columns (RyxDiffmap *diffmap);

/**
 * ryx_diffmap_get_rows:
 * @diffmap: a map
 *
 * Tells how many rows of blocks there are.
 *
 * Returns: the number of blocks one below the other.
 */
RYX_API guint32 ryx_diffmap_get_rows (RyxDiffmap *diffmap);

/**
 * ryx_diffmap_get_marks: (skip)
 * @diffmap: a map
 *
 * Gives the marks themselves.
 *
 * Returns: (transfer none): the marks, one byte per block, row after row without a gap; columns
 *   times rows bytes, valid as long as @diffmap.
 */
RYX_API const guint8 *ryx_diffmap_get_marks (RyxDiffmap *diffmap);

/**
 * ryx_diffmap_get_count:
 * @diffmap: a map
 *
 * Counts the marks.
 *
 * Returns: the number of marked blocks.
 */
RYX_API guint32 ryx_diffmap_get_count (RyxDiffmap *diffmap);

/**
 * ryx_diffmap_get_rects:
 * @diffmap: a map
 * @n_rects: (out): the number of rectangles
 *
 * Merges the marked blocks into few rectangles that don't overlap: runs of blocks in a row, then
 * equal runs of consecutive rows.
 *
 * Returns: (transfer full) (array length=n_rects) (nullable): the rectangles in pixels, clipped to
 *   the image, in reading order of their top left corners; release with g_free(). %NULL when no
 *   block is marked.
 */
RYX_API RyxRect *ryx_diffmap_get_rects (RyxDiffmap *diffmap, guint32 *n_rects);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (RyxDiffmap, ryx_diffmap_unref)

G_END_DECLS
