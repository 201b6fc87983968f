#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/* RyxDisplayEnumeratorXrandr: the heads of the session as RandR shows them. */

void ryx_display_enumerator_xrandr_register (GIOModule *module);
GType ryx_display_enumerator_xrandr_get_type (void);

G_END_DECLS
