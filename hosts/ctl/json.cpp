#include "json.h"

void
add_json_string (JsonBuilder *json, const gchar *member, const gchar *value)
{
  json_builder_set_member_name (json, member);
  json_builder_add_string_value (json, value);
}

void
add_json_int (JsonBuilder *json, const gchar *member, gint64 value)
{
  json_builder_set_member_name (json, member);
  json_builder_add_int_value (json, value);
}

void
add_json_double (JsonBuilder *json, const gchar *member, gdouble value)
{
  json_builder_set_member_name (json, member);
  json_builder_add_double_value (json, value);
}

void
add_json_boolean (JsonBuilder *json, const gchar *member, gboolean value)
{
  json_builder_set_member_name (json, member);
  json_builder_add_boolean_value (json, value);
}

void
print_json (JsonBuilder *json)
{
  g_autoptr (JsonGenerator) generator = json_generator_new ();
  g_autoptr (JsonNode) root = json_builder_get_root (json);

  json_generator_set_pretty (generator, TRUE);
  json_generator_set_root (generator, root);
  g_autofree gchar *text = json_generator_to_data (generator, nullptr);
  g_print ("%s\n", text);
}
