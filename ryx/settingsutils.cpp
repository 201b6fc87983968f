#include <ryx/settingsutils.h>

static GSettingsSchema *
look_up_installed_schema (const gchar *schema_id)
{
  g_autoptr (GSettingsSchemaSource) source = g_settings_schema_source_new_from_directory (
    RYX_SCHEMASDIR, g_settings_schema_source_get_default (), FALSE, nullptr);

  return source ? g_settings_schema_source_lookup (source, schema_id, TRUE) : nullptr;
}

GSettings *
ryx_settings_new (const gchar *schema_id)
{
  GSettingsSchemaSource *system_source = g_settings_schema_source_get_default ();
  g_autoptr (GSettingsSchema) schema
    = system_source ? g_settings_schema_source_lookup (system_source, schema_id, TRUE) : nullptr;

  if (!schema)
    schema = look_up_installed_schema (schema_id);
  if (!schema)
    g_error ("Settings schema \"%s\" is not installed", schema_id);
  return g_settings_new_full (schema, nullptr, nullptr);
}
