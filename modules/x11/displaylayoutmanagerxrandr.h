#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/* RyxDisplayLayoutManagerXrandr: reshapes the screen of the session with RandR. */

void ryx_display_layout_manager_xrandr_register (GIOModule *module);
GType ryx_display_layout_manager_xrandr_get_type (void);

G_END_DECLS
