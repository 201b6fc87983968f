#pragma once

#include <json-glib/json-glib.h>

void add_json_string (JsonBuilder *json, const gchar *member, const gchar *value);
void add_json_int (JsonBuilder *json, const gchar *member, gint64 value);
void add_json_double (JsonBuilder *json, const gchar *member, gdouble value);
void add_json_boolean (JsonBuilder *json, const gchar *member, gboolean value);

/* Prints the finished value on standard output. */
void print_json (JsonBuilder *json);
