#include "message.h"

static JsonNode *
get_value (JsonObject *message, const gchar *member, GType type)
{
  JsonNode *node = json_object_get_member (message, member);

  return node && JSON_NODE_HOLDS_VALUE (node) && json_node_get_value_type (node) == type ? node : nullptr;
}

JsonObject *
parse_message (const std::string &text)
{
  g_autoptr (JsonParser) parser = json_parser_new_immutable ();
  if (!json_parser_load_from_data (parser, text.data (), text.size (), nullptr))
    return nullptr;

  JsonNode *root = json_parser_get_root (parser);
  return root && JSON_NODE_HOLDS_OBJECT (root) ? json_node_dup_object (root) : nullptr;
}

gint
get_number (JsonObject *message, const gchar *member)
{
  if (JsonNode *node = get_value (message, member, G_TYPE_INT64))
    return CLAMP (json_node_get_int (node), G_MININT, G_MAXINT);
  if (JsonNode *node = get_value (message, member, G_TYPE_DOUBLE))
    return CLAMP (json_node_get_double (node), G_MININT, G_MAXINT);
  return 0;
}

bool
get_truth (JsonObject *message, const gchar *member)
{
  JsonNode *node = get_value (message, member, G_TYPE_BOOLEAN);

  return node && json_node_get_boolean (node);
}

const gchar *
get_text (JsonObject *message, const gchar *member)
{
  JsonNode *node = get_value (message, member, G_TYPE_STRING);
  const gchar *text = node ? json_node_get_string (node) : nullptr;

  return text && g_utf8_validate (text, -1, nullptr) ? text : "";
}

std::string
quote (const gchar *text)
{
  g_autoptr (JsonNode) node = json_node_init_string (json_node_alloc (), text);
  g_autofree gchar *quoted = json_to_string (node, FALSE);

  return quoted;
}

std::string
format (const gchar *pattern, ...)
{
  va_list arguments;
  va_start (arguments, pattern);
  g_autofree gchar *text = g_strdup_vprintf (pattern, arguments);
  va_end (arguments);

  return text;
}

std::string
describe_message (const gchar *sentence)
{
  return format ("{\"type\":\"message\",\"text\":%s}", quote (sentence).c_str ());
}
