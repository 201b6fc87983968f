#pragma once

#include <gio/gio.h>
#include <ryx/macros.h>

G_BEGIN_DECLS

/**
 * ryx_host_register:
 *
 * Registers the abstract types and their extension points. A host calls it first, from its main
 * thread; further calls do nothing.
 */
RYX_API void ryx_host_register (void);

/**
 * ryx_host_load_modules:
 * @directory: (nullable) (type filename): where the modules are; %NULL for the environment variable
 *   RYX_MODULE_DIR, else the directory that this library was installed with
 * @error: where the error goes
 *
 * Loads every module of a directory, for good. A module that was loaded before counts, but is not
 * loaded again; a broken one beside others is logged. Call it after ryx_host_register(), on the main thread.
 *
 * Returns: the number of modules loaded; 0 with @error set when the directory can't be read or holds none
 *   that loads: the message then names the file and gives the loader's words.
 */
RYX_API guint ryx_host_load_modules (const gchar *directory, GError **error);

/**
 * ryx_host_create: (skip)
 * @extension_point: the name of an extension point, such as %RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT
 * @name: (nullable): the name of an implementation; %NULL for the one with the highest priority
 * @error: where the error goes
 * @first_property: (nullable): name of the first property to set
 * @...: its value and further pairs, ended by %NULL as for g_object_new()
 *
 * Creates an implementation's object and initialises it where it is a #GInitable. The display that the
 * implementations work on, GDK's default display for the X11 module, must be open.
 *
 * Returns: (transfer full) (type GObject.Object) (nullable): a new object; %NULL with @error set when nothing
 *   implements the extension point under that name or the initialisation failed.
 */
RYX_API gpointer ryx_host_create (const gchar *extension_point, const gchar *name, GError **error,
                                  const gchar *first_property, ...);

/**
 * ryx_host_create_with_properties: (rename-to ryx_host_create)
 * @extension_point: the name of an extension point, such as %RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT
 * @name: (nullable): the name of an implementation; %NULL for the one with the highest priority
 * @n_properties: how many properties to set, 0 and up
 * @names: (array length=n_properties) (nullable): their names
 * @values: (array length=n_properties) (nullable): their values
 * @error: where the error goes
 *
 * Does what ryx_host_create() does, for callers without variable arguments: other languages know it by
 * that name.
 *
 * Returns: (transfer full) (type GObject.Object) (nullable): a new object; %NULL with @error set.
 */
RYX_API gpointer ryx_host_create_with_properties (const gchar *extension_point, const gchar *name, guint n_properties,
                                                  const gchar *names[], const GValue values[], GError **error);

G_END_DECLS
