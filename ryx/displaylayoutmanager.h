#pragma once

#include <ryx/displaylayout.h>
#include <ryx/errors.h>

G_BEGIN_DECLS

/**
 * RYX_DISPLAY_LAYOUT_MANAGER_EXTENSION_POINT:
 *
 * The extension point of #RyxDisplayLayoutManager implementations.
 */
#define RYX_DISPLAY_LAYOUT_MANAGER_EXTENSION_POINT "ryx-display-layout-manager-extension-point"

#define RYX_TYPE_DISPLAY_LAYOUT_MANAGER (ryx_display_layout_manager_get_type ())

/**
 * RyxDisplayLayoutManager:
 *
 * Reshapes the session's screen to a layout that a client asks for. Used from the thread that owns
 * the display.
 */
RYX_API
G_DECLARE_DERIVABLE_TYPE (RyxDisplayLayoutManager, ryx_display_layout_manager, RYX, DISPLAY_LAYOUT_MANAGER, GObject)

/**
 * RyxDisplayLayoutManagerClass:
 * @parent_class: the parent class
 * @request_layout: see ryx_display_layout_manager_request_layout()
 * @enforce_layout_constraints: see ryx_display_layout_manager_enforce_layout_constraints()
 *
 * What an implementation fills in.
 */
struct _RyxDisplayLayoutManagerClass
{
  GObjectClass parent_class;

  gboolean (*request_layout) (RyxDisplayLayoutManager *manager, RyxDisplayLayout *layout, GError **error);
  gboolean (*enforce_layout_constraints) (RyxDisplayLayoutManager *manager, GError **error);
};

/**
 * ryx_display_layout_manager_request_layout:
 * @manager: a layout manager
 * @layout: the wanted heads in order
 * @error: where the error goes, in %RYX_DISPLAY_LAYOUT_MANAGER_ERROR or %G_IO_ERROR
 *
 * Applies a layout to the display. Sizes may be rounded to what the display can show: ask the
 * enumerator for what was really set.
 *
 * Returns: %TRUE when it was applied; %FALSE with @error set, with the previous layout in place as
 *   far as the implementation could restore it.
 */
RYX_API gboolean ryx_display_layout_manager_request_layout (RyxDisplayLayoutManager *manager, RyxDisplayLayout *layout,
                                                            GError **error);

/**
 * ryx_display_layout_manager_enforce_layout_constraints:
 * @manager: a layout manager
 * @error: where the error goes
 *
 * Brings the current layout within what the implementation can handle.
 *
 * Returns: %TRUE when the layout is fine now or the implementation has no constraints; %FALSE with
 *   @error set.
 */
RYX_API gboolean ryx_display_layout_manager_enforce_layout_constraints (RyxDisplayLayoutManager *manager,
                                                                        GError **error);

G_END_DECLS
