#include <ryx/displayenumerator.h>

G_DEFINE_INTERFACE (RyxDisplayEnumerator, ryx_display_enumerator, G_TYPE_OBJECT)

static void
ryx_display_enumerator_default_init (RyxDisplayEnumeratorInterface *)
{
}

RyxDisplayLayout *
ryx_display_enumerator_get_display_layout (RyxDisplayEnumerator *enumerator, GError **error)
{
  g_return_val_if_fail (RYX_IS_DISPLAY_ENUMERATOR (enumerator), nullptr);
  return RYX_DISPLAY_ENUMERATOR_GET_IFACE (enumerator)->get_display_layout (enumerator, error);
}

void
ryx_display_enumerator_log_gpu_adapter_list (RyxDisplayEnumerator *enumerator)
{
  g_return_if_fail (RYX_IS_DISPLAY_ENUMERATOR (enumerator));
  RYX_DISPLAY_ENUMERATOR_GET_IFACE (enumerator)->log_gpu_adapter_list (enumerator);
}
