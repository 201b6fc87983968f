#include <ryx/ryx.h>

#include <gmodule.h>

struct ExtensionPoint
{
  const gchar *name;
  GType (*get_required_type) (void);
};

static const ExtensionPoint host_extension_points[] = {
  { RYX_DISPLAY_LAYOUT_MANAGER_EXTENSION_POINT, ryx_display_layout_manager_get_type },
  { RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT, ryx_display_enumerator_get_type },
  { RYX_FRAME_BUFFER_READER_EXTENSION_POINT, ryx_frame_buffer_reader_get_type },
  { RYX_INPUT_INJECTOR_EXTENSION_POINT, ryx_input_injector_get_type },
  { RYX_POINTER_MONITOR_EXTENSION_POINT, ryx_pointer_monitor_get_type },
};

void
ryx_host_register (void)
{
  for (const auto &[name, get_required_type] : host_extension_points)
    g_io_extension_point_set_required_type (g_io_extension_point_register (name), get_required_type ());
  g_type_ensure (RYX_TYPE_HEALTH);
}

/* GIO prints why a module does not load, and tells nobody; so the loader is asked first. The module
 * stays open: it may pull in libraries that don't bear being unloaded. */
static GModule *
open_module (const gchar *path, GError **error)
{
  GModule *library = g_module_open (path, static_cast<GModuleFlags> (G_MODULE_BIND_LAZY | G_MODULE_BIND_LOCAL));
  gpointer load_function;

  if (library && g_module_symbol (library, "g_io_module_load", &load_function))
    return library;

  g_set_error (error, G_IO_ERROR, G_IO_ERROR_FAILED, "Cannot load module %s: %s", path, g_module_error ());
  if (library)
    g_module_close (library);
  return nullptr;
}

static gboolean
load_module (const gchar *path, GError **error)
{
  /* A module's types can be registered only once. The loader knows a file again, under whatever path. */
  static GHashTable *loaded = g_hash_table_new (nullptr, nullptr);
  GModule *library = open_module (path, error);

  if (!library)
    return FALSE;
  if (g_hash_table_contains (loaded, library))
    return TRUE;

  /* A type module must never be finalised, so this reference stays. */
  GIOModule *module = g_io_module_new (path);
  if (!g_type_module_use (G_TYPE_MODULE (module)))
    {
      g_set_error (error, G_IO_ERROR, G_IO_ERROR_FAILED, "Cannot load module %s", path);
      return FALSE;
    }

  g_type_module_unuse (G_TYPE_MODULE (module));
  g_hash_table_add (loaded, library);
  return TRUE;
}

/* The file names of a directory's modules, in alphabetic order. */
static GPtrArray *
list_modules (const gchar *directory, GError **error)
{
  g_autoptr (GDir) dir = g_dir_open (directory, 0, error);
  if (!dir)
    return nullptr;

  GPtrArray *names = g_ptr_array_new_with_free_func (g_free);
  while (const gchar *name = g_dir_read_name (dir))
    if (g_str_has_suffix (name, "." G_MODULE_SUFFIX))
      g_ptr_array_add (names, g_strdup (name));

  g_ptr_array_sort (names, [] (gconstpointer a, gconstpointer b) {
    return g_strcmp0 (*static_cast<gchar *const *> (a), *static_cast<gchar *const *> (b));
  });
  return names;
}

static const gchar *
get_default_module_directory (void)
{
  const gchar *directory = g_getenv ("RYX_MODULE_DIR");
  return directory && *directory ? directory : RYX_MODULEDIR;
}

guint
ryx_host_load_modules (const gchar *directory, GError **error)
{
  if (!directory)
    directory = get_default_module_directory ();

  g_autoptr (GPtrArray) names = list_modules (directory, error);
  if (!names)
    return 0;

  guint n_loaded = 0;
  g_autoptr (GPtrArray) failures = g_ptr_array_new_with_free_func (reinterpret_cast<GDestroyNotify> (g_error_free));
  for (guint i = 0; i < names->len; i++)
    {
      g_autofree gchar *path = g_build_filename (directory, static_cast<const gchar *> (names->pdata[i]), nullptr);
      GError *failure = nullptr;

      if (load_module (path, &failure))
        n_loaded++;
      else
        g_ptr_array_add (failures, failure);
    }

  if (n_loaded == 0 && failures->len > 0)
    {
      g_propagate_error (error, static_cast<GError *> (g_ptr_array_steal_index (failures, 0)));
      return 0;
    }
  if (n_loaded == 0)
    g_set_error (error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "There is no module in %s", directory);

  for (guint i = 0; i < failures->len; i++)
    g_warning ("%s", static_cast<GError *> (failures->pdata[i])->message);
  return n_loaded;
}

static GIOExtension *
find_extension (const gchar *extension_point, const gchar *name, GError **error)
{
  GIOExtensionPoint *point = g_io_extension_point_lookup (extension_point);
  if (!point)
    {
      g_set_error (error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "There is no extension point \"%s\"", extension_point);
      return nullptr;
    }

  if (name)
    {
      GIOExtension *extension = g_io_extension_point_get_extension_by_name (point, name);
      if (!extension)
        g_set_error (error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "Nothing named \"%s\" implements \"%s\"", name,
                     extension_point);
      return extension;
    }

  GList *by_priority = g_io_extension_point_get_extensions (point);
  if (!by_priority)
    {
      g_set_error (error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "Nothing implements \"%s\"", extension_point);
      return nullptr;
    }
  return static_cast<GIOExtension *> (by_priority->data);
}

/* Takes the object over. */
static gpointer
initialise (GObject *object, GError **error)
{
  if (!G_IS_INITABLE (object) || g_initable_init (G_INITABLE (object), nullptr, error))
    return object;

  g_object_unref (object);
  return nullptr;
}

gpointer
ryx_host_create (const gchar *extension_point, const gchar *name, GError **error, const gchar *first_property, ...)
{
  g_return_val_if_fail (extension_point, nullptr);

  GIOExtension *extension = find_extension (extension_point, name, error);
  if (!extension)
    return nullptr;

  va_list properties;
  va_start (properties, first_property);
  GObject *object = g_object_new_valist (g_io_extension_get_type (extension), first_property, properties);
  va_end (properties);
  return initialise (object, error);
}

gpointer
ryx_host_create_with_properties (const gchar *extension_point, const gchar *name, guint n_properties,
                                 const gchar *names[], const GValue values[], GError **error)
{
  g_return_val_if_fail (extension_point && (n_properties == 0 || (names && values)), nullptr);

  GIOExtension *extension = find_extension (extension_point, name, error);
  if (!extension)
    return nullptr;

  return initialise (g_object_new_with_properties (g_io_extension_get_type (extension), n_properties, names, values),
                     error);
}
