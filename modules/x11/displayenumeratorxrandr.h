#pragma once

#include <gio/gio.h>
#include <ryx/ryx.h>

G_BEGIN_DECLS

#define RYX_TYPE_DISPLAY_ENUMERATOR_XRANDR (ryx_display_enumerator_xrandr_get_type ())

/* Tells the heads of the session as RandR shows them: one for each output that an active CRTC drives, or
 * the whole screen where RandR has none. */
G_DECLARE_FINAL_TYPE (RyxDisplayEnumeratorXrandr, ryx_display_enumerator_xrandr, RYX, DISPLAY_ENUMERATOR_XRANDR,
                      GObject)

void ryx_display_enumerator_xrandr_register (GIOModule *module);

G_END_DECLS
