#include <ryx/health.h>

G_DEFINE_INTERFACE (RyxHealth, ryx_health, G_TYPE_OBJECT)

static void
ryx_health_default_init (RyxHealthInterface *)
{
}

gboolean
ryx_health_check (RyxHealth *health)
{
  g_return_val_if_fail (RYX_IS_HEALTH (health), FALSE);

  const RyxHealthInterface *iface = RYX_HEALTH_GET_IFACE (health);
  return iface->check ? iface->check (health) : TRUE;
}
