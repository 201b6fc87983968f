#include "commands.h"

#include "json.h"

static const gchar *const listed_extension_points[] = {
  RYX_DISPLAY_LAYOUT_MANAGER_EXTENSION_POINT, RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT,
  RYX_FRAME_BUFFER_READER_EXTENSION_POINT,    RYX_INPUT_INJECTOR_EXTENSION_POINT,
  RYX_POINTER_MONITOR_EXTENSION_POINT,
};

static void
print_extension (const gchar *point, GIOExtension *extension)
{
  g_print ("%-42s %-28s %8d  %s\n", point, g_io_extension_get_name (extension), g_io_extension_get_priority (extension),
           g_type_name (g_io_extension_get_type (extension)));
}

static void
add_extension_to_json (JsonBuilder *json, const gchar *point, GIOExtension *extension)
{
  json_builder_begin_object (json);
  add_json_string (json, "extension_point", point);
  add_json_string (json, "name", g_io_extension_get_name (extension));
  add_json_int (json, "priority", g_io_extension_get_priority (extension));
  add_json_string (json, "type", g_type_name (g_io_extension_get_type (extension)));
  json_builder_end_object (json);
}

static gboolean
run_implementations (const Command *command, gchar ***argv, GError **error)
{
  if (!parse_options_only (command, nullptr, argv, error) || !load_modules (global_options.module_dir, error))
    return FALSE;

  g_autoptr (JsonBuilder) json = json_builder_new ();
  json_builder_begin_array (json);
  if (!global_options.json)
    g_print ("%-42s %-28s %8s  %s\n", "EXTENSION POINT", "NAME", "PRIORITY", "TYPE");

  for (const gchar *point : listed_extension_points)
    for (GList *link = g_io_extension_point_get_extensions (g_io_extension_point_lookup (point)); link;
         link = link->next)
      {
        auto *extension = static_cast<GIOExtension *> (link->data);

        if (global_options.json)
          add_extension_to_json (json, point, extension);
        else
          print_extension (point, extension);
      }

  json_builder_end_array (json);
  if (global_options.json)
    print_json (json);
  return TRUE;
}

const Command implementations_command = {
  .name = "implementations",
  .arguments = nullptr,
  .summary = "List what the modules offer: extension point, name, priority, type",
  .description = nullptr,
  .run = run_implementations,
};
