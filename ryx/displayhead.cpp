#include <ryx/displayhead.h>

struct _RyxDisplayHead
{
  gatomicrefcount references;
  gchar *name;
  RyxRect rect;
  gboolean primary;
  guint32 output_id;
};

G_DEFINE_BOXED_TYPE (RyxDisplayHead, ryx_display_head, ryx_display_head_ref, ryx_display_head_unref)

RyxDisplayHead *
ryx_display_head_new (const gchar *name, const RyxRect *rect, gboolean primary)
{
  g_return_val_if_fail (name && rect, nullptr);

  RyxDisplayHead *head = g_new0 (RyxDisplayHead, 1);
  g_atomic_ref_count_init (&head->references);
  head->name = g_strdup (name);
  head->rect = *rect;
  head->primary = primary;
  return head;
}

RyxDisplayHead *
ryx_display_head_ref (RyxDisplayHead *head)
{
  g_atomic_ref_count_inc (&head->references);
  return head;
}

void
ryx_display_head_unref (RyxDisplayHead *head)
{
  if (!g_atomic_ref_count_dec (&head->references))
    return;

  g_free (head->name);
  g_free (head);
}

void
ryx_display_head_set_output_id (RyxDisplayHead *head, guint32 output_id)
{
  head->output_id = output_id;
}

const gchar *
ryx_display_head_get_name (RyxDisplayHead *head)
{
  return head->name;
}

void
ryx_display_head_get_rect (RyxDisplayHead *head, RyxRect *rect)
{
  *rect = head->rect;
}

gboolean
ryx_display_head_get_primary (RyxDisplayHead *head)
{
  return head->primary;
}

guint32
ryx_display_head_get_output_id (RyxDisplayHead *head)
{
  return head->output_id;
}
