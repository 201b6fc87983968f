#include <ryx/inputinjector.h>

G_DEFINE_INTERFACE (RyxInputInjector, ryx_input_injector, G_TYPE_OBJECT)

static void
ryx_input_injector_default_init (RyxInputInjectorInterface *)
{
}

void
ryx_input_injector_motion_event (RyxInputInjector *injector, gint32 x, gint32 y, gboolean absolute)
{
  g_return_if_fail (RYX_IS_INPUT_INJECTOR (injector));
  RYX_INPUT_INJECTOR_GET_IFACE (injector)->motion_event (injector, x, y, absolute);
}

void
ryx_input_injector_button_event (RyxInputInjector *injector, guint32 button_id, gboolean button_down)
{
  g_return_if_fail (RYX_IS_INPUT_INJECTOR (injector));
  RYX_INPUT_INJECTOR_GET_IFACE (injector)->button_event (injector, button_id, button_down);
}

void
ryx_input_injector_axis_event (RyxInputInjector *injector, guint32 axis_id, gint32 value)
{
  g_return_if_fail (RYX_IS_INPUT_INJECTOR (injector));
  RYX_INPUT_INJECTOR_GET_IFACE (injector)->axis_event (injector, axis_id, value);
}

void
ryx_input_injector_key_event (RyxInputInjector *injector, const gchar *character, RyxInputInjectorKeyLocation location,
                              gboolean key_down)
{
  g_return_if_fail (RYX_IS_INPUT_INJECTOR (injector));
  RYX_INPUT_INJECTOR_GET_IFACE (injector)->key_event (injector, character, location, key_down);
}

void
ryx_input_injector_special_key_event (RyxInputInjector *injector, const gchar *name,
                                      RyxInputInjectorKeyLocation location, gboolean key_down)
{
  g_return_if_fail (RYX_IS_INPUT_INJECTOR (injector));
  RYX_INPUT_INJECTOR_GET_IFACE (injector)->special_key_event (injector, name, location, key_down);
}

gboolean
ryx_input_injector_is_sas_event (RyxInputInjector *injector, const gchar *name, RyxInputInjectorKeyLocation location,
                                 gboolean key_down)
{
  g_return_val_if_fail (RYX_IS_INPUT_INJECTOR (injector), FALSE);
  return RYX_INPUT_INJECTOR_GET_IFACE (injector)->is_sas_event (injector, name, location, key_down);
}

gboolean
ryx_input_injector_is_touch_enabled (RyxInputInjector *injector)
{
  g_return_val_if_fail (RYX_IS_INPUT_INJECTOR (injector), FALSE);
  return RYX_INPUT_INJECTOR_GET_IFACE (injector)->is_touch_enabled (injector);
}

void
ryx_input_injector_touch_event (RyxInputInjector *injector, guint group_id, GArray *touches_array, guint channel_id)
{
  g_return_if_fail (RYX_IS_INPUT_INJECTOR (injector));
  RYX_INPUT_INJECTOR_GET_IFACE (injector)->touch_event (injector, group_id, touches_array, channel_id);
}

void
ryx_input_injector_channel_connected (RyxInputInjector *injector, guint channel_id)
{
  g_return_if_fail (RYX_IS_INPUT_INJECTOR (injector));
  RYX_INPUT_INJECTOR_GET_IFACE (injector)->channel_connected (injector, channel_id);
}

void
ryx_input_injector_channel_disconnected (RyxInputInjector *injector, guint channel_id)
{
  g_return_if_fail (RYX_IS_INPUT_INJECTOR (injector));
  RYX_INPUT_INJECTOR_GET_IFACE (injector)->channel_disconnected (injector, channel_id);
}
