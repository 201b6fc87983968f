#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/* RyxPointerMonitorXcb: asks the server for the pointer's position and shape, 25 times a second. */

void ryx_pointer_monitor_xcb_register (GIOModule *module);
GType ryx_pointer_monitor_xcb_get_type (void);

G_END_DECLS
