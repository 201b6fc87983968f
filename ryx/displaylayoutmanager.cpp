#include <ryx/displaylayoutmanager.h>

G_DEFINE_ABSTRACT_TYPE (RyxDisplayLayoutManager, ryx_display_layout_manager, G_TYPE_OBJECT)

static gboolean
ryx_display_layout_manager_has_no_constraints (RyxDisplayLayoutManager *, GError **)
{
  return TRUE;
}

static void
ryx_display_layout_manager_class_init (RyxDisplayLayoutManagerClass *klass)
{
  klass->enforce_layout_constraints = ryx_display_layout_manager_has_no_constraints;
}

static void
ryx_display_layout_manager_init (RyxDisplayLayoutManager *)
{
}

gboolean
ryx_display_layout_manager_request_layout (RyxDisplayLayoutManager *manager, RyxDisplayLayout *layout, GError **error)
{
  g_return_val_if_fail (RYX_IS_DISPLAY_LAYOUT_MANAGER (manager), FALSE);
  g_return_val_if_fail (RYX_IS_DISPLAY_LAYOUT (layout), FALSE);
  return RYX_DISPLAY_LAYOUT_MANAGER_GET_CLASS (manager)->request_layout (manager, layout, error);
}

gboolean
ryx_display_layout_manager_enforce_layout_constraints (RyxDisplayLayoutManager *manager, GError **error)
{
  g_return_val_if_fail (RYX_IS_DISPLAY_LAYOUT_MANAGER (manager), FALSE);
  return RYX_DISPLAY_LAYOUT_MANAGER_GET_CLASS (manager)->enforce_layout_constraints (manager, error);
}
