#include "layout.h"

#include <gtest/gtest.h>

std::string
describe_layout (RyxDisplayLayout *layout)
{
  guint32 n_heads;
  RyxDisplayHead **heads = ryx_display_layout_get_heads (layout, &n_heads);
  std::string text;

  for (guint32 i = 0; i < n_heads; i++)
    {
      RyxRect rect;
      ryx_display_head_get_rect (heads[i], &rect);
      g_autofree gchar *head
        = g_strdup_printf ("%s:%u %ux%u+%u+%u", ryx_display_head_get_name (heads[i]),
                           ryx_display_head_get_output_id (heads[i]), rect.width, rect.height, rect.x, rect.y);
      text += (text.empty () ? "" : ", ") + std::string (head);
      EXPECT_FALSE (ryx_display_head_get_primary (heads[i]));
    }
  return text;
}

std::string
enumerate_heads ()
{
  g_autoptr (GError) error = nullptr;
  g_autoptr (GObject) enumerator
    = G_OBJECT (ryx_host_create (RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT, "displayenumeratorxrandr", nullptr, nullptr));
  g_autoptr (RyxDisplayLayout) layout
    = ryx_display_enumerator_get_display_layout (RYX_DISPLAY_ENUMERATOR (enumerator), &error);

  EXPECT_TRUE (G_IS_INITABLE (enumerator));
  EXPECT_TRUE (layout || error->domain == G_IO_ERROR);
  return layout ? describe_layout (layout) : error->message;
}
