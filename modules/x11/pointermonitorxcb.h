#pragma once

#include <gio/gio.h>
#include <ryx/ryx.h>

G_BEGIN_DECLS

#define RYX_TYPE_POINTER_MONITOR_XCB (ryx_pointer_monitor_xcb_get_type ())

/* Asks XFixes for the pointer's position and shape 25 times a second, on GDK's connection. */
G_DECLARE_FINAL_TYPE (RyxPointerMonitorXcb, ryx_pointer_monitor_xcb, RYX, POINTER_MONITOR_XCB, RyxPointerMonitor)

void ryx_pointer_monitor_xcb_register (GIOModule *module);

G_END_DECLS
