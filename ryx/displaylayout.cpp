#include <ryx/displaylayout.h>

struct _RyxDisplayLayout
{
  GObject parent_instance;

  GPtrArray *heads;
};

G_DEFINE_FINAL_TYPE (RyxDisplayLayout, ryx_display_layout, G_TYPE_OBJECT)

static void
ryx_display_layout_finalize (GObject *object)
{
  g_ptr_array_unref (RYX_DISPLAY_LAYOUT (object)->heads);
  G_OBJECT_CLASS (ryx_display_layout_parent_class)->finalize (object);
}

static void
ryx_display_layout_class_init (RyxDisplayLayoutClass *klass)
{
  G_OBJECT_CLASS (klass)->finalize = ryx_display_layout_finalize;
}

static void
ryx_display_layout_init (RyxDisplayLayout *layout)
{
  layout->heads = g_ptr_array_new_with_free_func (reinterpret_cast<GDestroyNotify> (ryx_display_head_unref));
}

RyxDisplayLayout *
ryx_display_layout_new (guint32 n_heads, RyxDisplayHead **heads)
{
  g_return_val_if_fail (heads || n_heads == 0, nullptr);

  auto *layout = RYX_DISPLAY_LAYOUT (g_object_new (RYX_TYPE_DISPLAY_LAYOUT, nullptr));
  for (guint32 i = 0; i < n_heads; i++)
    g_ptr_array_add (layout->heads, ryx_display_head_ref (heads[i]));
  return layout;
}

RyxDisplayHead **
ryx_display_layout_get_heads (RyxDisplayLayout *layout, guint32 *n_heads)
{
  *n_heads = layout->heads->len;
  return reinterpret_cast<RyxDisplayHead **> (layout->heads->pdata);
}
