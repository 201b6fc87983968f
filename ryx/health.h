#pragma once

#include <ryx/macros.h>

G_BEGIN_DECLS

#define RYX_TYPE_HEALTH (ryx_health_get_type ())

/**
 * RyxHealth:
 *
 * Something that can tell whether it still works.
 */
RYX_API
G_DECLARE_INTERFACE (RyxHealth, ryx_health, RYX, HEALTH, GObject)

/**
 * RyxHealthInterface:
 * @g_iface: the parent interface
 * @check: see ryx_health_check(); may stay unset
 *
 * What an implementation fills in.
 */
struct _RyxHealthInterface
{
  GTypeInterface g_iface;

  gboolean (*check) (RyxHealth *health);
};

/**
 * ryx_health_check:
 * @health: an object that can be asked
 *
 * Asks whether an object still works.
 *
 * Returns: whether it works; %TRUE when it has no check.
 */
RYX_API gboolean ryx_health_check (RyxHealth *health);

G_END_DECLS
