#pragma once

#include <gio/gio.h>
#include <ryx/macros.h>

G_BEGIN_DECLS

/**
 * ryx_settings_new:
 * @schema_id: a schema of this library: "com.quorlane.ryx.display", "com.quorlane.ryx.display.linux" or
 *   "com.quorlane.ryx.input"
 *
 * Finds the schema where the system keeps schemas, else in the directory that this library was installed
 * with, so that a private prefix works without any set-up. A schema that is nowhere is a broken
 * installation and ends the process. Any thread.
 *
 * Returns: (transfer full): new settings.
 */
RYX_API GSettings *ryx_settings_new (const gchar *schema_id);

G_END_DECLS
