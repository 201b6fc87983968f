#include <ryx/rect.h>

#include <algorithm>

/* The edges of a rectangle: 64 bits hold every position plus every extent. */
struct Edges
{
  gint64 left, top, right, bottom;
};

static Edges
get_edges (const RyxRect *rect)
{
  const gint64 left = static_cast<gint32> (rect->x);
  const gint64 top = static_cast<gint32> (rect->y);

  return { left, top, left + rect->width, top + rect->height };
}

static RyxRect
make_rect (const Edges &edges)
{
  return { static_cast<guint32> (edges.left), static_cast<guint32> (edges.top),
           static_cast<guint32> (std::min<gint64> (edges.right - edges.left, G_MAXUINT32)),
           static_cast<guint32> (std::min<gint64> (edges.bottom - edges.top, G_MAXUINT32)) };
}

void
ryx_rect_union (const RyxRect *a, const RyxRect *b, RyxRect *result)
{
  g_return_if_fail (a && b && result);

  const Edges first = get_edges (a);
  const Edges second = get_edges (b);

  *result = make_rect ({ std::min (first.left, second.left), std::min (first.top, second.top),
                         std::max (first.right, second.right), std::max (first.bottom, second.bottom) });
}

gboolean
ryx_rect_intersection (const RyxRect *a, const RyxRect *b, RyxRect *result)
{
  g_return_val_if_fail (a && b && result, FALSE);

  const Edges first = get_edges (a);
  const Edges second = get_edges (b);
  const Edges overlap = { std::max (first.left, second.left), std::max (first.top, second.top),
                          std::min (first.right, second.right), std::min (first.bottom, second.bottom) };

  if (overlap.left >= overlap.right || overlap.top >= overlap.bottom)
    return FALSE;

  *result = make_rect (overlap);
  return TRUE;
}
