#pragma once

#include <gio/gio.h>
#include <ryx/ryx.h>

G_BEGIN_DECLS

#define RYX_TYPE_DISPLAY_LAYOUT_MANAGER_XRANDR (ryx_display_layout_manager_xrandr_get_type ())

/* Reshapes the screen of the session with RandR. */
G_DECLARE_FINAL_TYPE (RyxDisplayLayoutManagerXrandr, ryx_display_layout_manager_xrandr, RYX,
                      DISPLAY_LAYOUT_MANAGER_XRANDR, RyxDisplayLayoutManager)

void ryx_display_layout_manager_xrandr_register (GIOModule *module);

G_END_DECLS
