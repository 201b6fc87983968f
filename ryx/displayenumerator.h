#pragma once

#include <ryx/displaylayout.h>

G_BEGIN_DECLS

/**
 * RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT:
 *
 * The extension point of #RyxDisplayEnumerator implementations.
 */
#define RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT "ryx-display-enumerator-extension-point"

#define RYX_TYPE_DISPLAY_ENUMERATOR (ryx_display_enumerator_get_type ())

/**
 * RyxDisplayEnumerator:
 *
 * Tells how the monitors of the session are arranged. Used from the thread that owns the display.
 */
RYX_API
G_DECLARE_INTERFACE (RyxDisplayEnumerator, ryx_display_enumerator, RYX, DISPLAY_ENUMERATOR, GObject)

/**
 * RyxDisplayEnumeratorInterface:
 * @parent_class: a whole object-class header; the slots follow it
 * @get_display_layout: see ryx_display_enumerator_get_display_layout()
 * @log_gpu_adapter_list: see ryx_display_enumerator_log_gpu_adapter_list()
 *
 * What an implementation fills in.
 */
struct _RyxDisplayEnumeratorInterface
{
  GObjectClass parent_class;

  RyxDisplayLayout *(*get_display_layout) (RyxDisplayEnumerator *enumerator, GError **error);
  void (*log_gpu_adapter_list) (RyxDisplayEnumerator *enumerator);
};

/**
 * ryx_display_enumerator_get_display_layout:
 * @enumerator: an enumerator
 * @error: where the error goes
 *
 * Asks the display which heads it has and where they are.
 *
 * Returns: (transfer full) (nullable): the layout as it is now; %NULL with @error set.
 */
RYX_API RyxDisplayLayout *ryx_display_enumerator_get_display_layout (RyxDisplayEnumerator *enumerator, GError **error);

/**
 * ryx_display_enumerator_log_gpu_adapter_list:
 * @enumerator: an enumerator
 *
 * Logs the graphics adapters, where the implementation knows them.
 */
RYX_API void ryx_display_enumerator_log_gpu_adapter_list (RyxDisplayEnumerator *enumerator);

G_END_DECLS
