#pragma once

#include <gio/gio.h>

G_BEGIN_DECLS

/* The three functions that GIO looks for in the module; nothing else is exported. */

G_MODULE_EXPORT void g_io_module_load (GIOModule *module);
G_MODULE_EXPORT void g_io_module_unload (GIOModule *module);
G_MODULE_EXPORT gchar **g_io_module_query (void);

G_END_DECLS
