#pragma once

#include <ryx/macros.h>

G_BEGIN_DECLS

typedef struct _RyxRect RyxRect;

/**
 * RyxRect:
 * @x: left edge, in pixels
 * @y: top edge, in pixels
 * @width: width in pixels
 * @height: height in pixels
 *
 * A rectangle in pixels. The positions are stored unsigned and read as two's-complement 32-bit
 * values, so that a negative position that was sign-extended on its way in means what it says.
 */
struct _RyxRect
{
  guint32 x;
  guint32 y;
  guint32 width;
  guint32 height;
};

/**
 * ryx_rect_union:
 * @a: a rectangle
 * @b: a rectangle
 * @result: (out caller-allocates): where the result goes; may be @a or @b
 *
 * Writes the smallest rectangle that contains @a and @b. An empty rectangle counts as its
 * position. An extent beyond 32 bits is cut to 4294967295. Any thread.
 */
RYX_API void ryx_rect_union (const RyxRect *a, const RyxRect *b, RyxRect *result);

/**
 * ryx_rect_intersection:
 * @a: a rectangle
 * @b: a rectangle
 * @result: (out caller-allocates): where the overlap goes; may be @a or @b
 *
 * Any thread.
 *
 * Returns: %TRUE when the two overlap in at least one pixel, with the overlap in @result; %FALSE
 *   otherwise (a shared edge is no overlap), and @result is left alone.
 */
RYX_API gboolean ryx_rect_intersection (const RyxRect *a, const RyxRect *b, RyxRect *result);

G_END_DECLS
