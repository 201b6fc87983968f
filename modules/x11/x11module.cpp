#include <gio/gio.h>
#include <ryx/ryx.h>

#include "displayenumeratorxrandr.h"
#include "displaylayoutmanagerxrandr.h"
#include "framebufferreaderxcb.h"
#include "inputinjectorx11.h"
#include "pointermonitorxcb.h"

struct Implementation
{
  void (*register_type) (GIOModule *module);
  GType (*get_type) (void);
  const gchar *extension_point;
  const gchar *name;
  gint priority;
};

static const Implementation implementations[] = {
  { ryx_display_layout_manager_xrandr_register, ryx_display_layout_manager_xrandr_get_type,
    RYX_DISPLAY_LAYOUT_MANAGER_EXTENSION_POINT, "displaylayoutmanagerxrandr", 100 },
  { ryx_display_enumerator_xrandr_register, ryx_display_enumerator_xrandr_get_type,
    RYX_DISPLAY_ENUMERATOR_EXTENSION_POINT, "displayenumeratorxrandr", 200 },
  { ryx_frame_buffer_reader_xcb_register, ryx_frame_buffer_reader_xcb_get_type, RYX_FRAME_BUFFER_READER_EXTENSION_POINT,
    "fbreaderxcb", 100 },
  { ryx_input_injector_x11_register, ryx_input_injector_x11_get_type, RYX_INPUT_INJECTOR_EXTENSION_POINT,
    "inputinjectorx11", 200 },
  { ryx_pointer_monitor_xcb_register, ryx_pointer_monitor_xcb_get_type, RYX_POINTER_MONITOR_EXTENSION_POINT,
    "pointermonitorxcb", 200 },
};

/* The three functions that GIO looks for in the module and declares; nothing else is exported. */

G_MODULE_EXPORT void
g_io_module_load (GIOModule *module)
{
  /* Never released: types and classes of the module stay for the life of the process. */
  g_type_module_use (G_TYPE_MODULE (module));

  for (const Implementation &implementation : implementations)
    {
      implementation.register_type (module);
      g_io_extension_point_implement (implementation.extension_point, implementation.get_type (), implementation.name,
                                      implementation.priority);
    }
}

G_MODULE_EXPORT void
g_io_module_unload (GIOModule *)
{
  g_assert_not_reached ();
}

G_MODULE_EXPORT gchar **
g_io_module_query (void)
{
  g_autoptr (GStrvBuilder) extension_points = g_strv_builder_new ();

  for (const Implementation &implementation : implementations)
    g_strv_builder_add (extension_points, implementation.extension_point);
  return g_strv_builder_end (extension_points);
}
