#pragma once

#include <gio/gio.h>
#include <ryx/ryx.h>

G_BEGIN_DECLS

#define RYX_TYPE_INPUT_INJECTOR_X11 (ryx_input_injector_x11_get_type ())

/* Plays input into the session with XTest, on GDK's connection; what XKB says decides which key makes a character. */
G_DECLARE_FINAL_TYPE (RyxInputInjectorX11, ryx_input_injector_x11, RYX, INPUT_INJECTOR_X11, GObject)

void ryx_input_injector_x11_register (GIOModule *module);

G_END_DECLS
