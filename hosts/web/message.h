#pragma once

#include <string>

#include <json-glib/json-glib.h>

/* The object that a text holds; NULL when it holds anything else. Free with json_object_unref (). */
JsonObject *parse_message (const std::string &text);

/* Members of the wanted type; what is missing or of another type is 0, false or "". Numbers are cut to 32 bits. */
gint get_number (JsonObject *message, const gchar *member);
bool get_truth (JsonObject *message, const gchar *member);
const gchar *get_text (JsonObject *message, const gchar *member);

/* The text as JSON has it, with its quotes. */
std::string quote (const gchar *text);

std::string format (const gchar *pattern, ...) G_GNUC_PRINTF (1, 2);

/* A message that holds one sentence for the user. */
std::string describe_message (const gchar *sentence);
