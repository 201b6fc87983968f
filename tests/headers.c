/* The public headers are plain C: this is compiled as C11 with every warning an error. */

#include <ryx/ryx.h>

/* The numbers and structures are part of the binary interface. */
G_STATIC_ASSERT (sizeof (RyxRect) == 16 && G_STRUCT_OFFSET (RyxRect, y) == 4 && G_STRUCT_OFFSET (RyxRect, width) == 8);
G_STATIC_ASSERT (RYX_PIXEL_FORMAT_ARGB == 0 && RYX_PIXEL_FORMAT_BGRA == 1 && RYX_PIXEL_FORMAT_BGR == 2);
G_STATIC_ASSERT (RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD == 0 && RYX_INPUT_INJECTOR_KEY_LOCATION_LEFT == 1);
G_STATIC_ASSERT (RYX_INPUT_INJECTOR_KEY_LOCATION_RIGHT == 2 && RYX_INPUT_INJECTOR_KEY_LOCATION_NUMPAD == 3);
G_STATIC_ASSERT (RYX_DISPLAY_LAYOUT_MANAGER_ERROR_GENERIC == 0 && RYX_DISPLAY_LAYOUT_MANAGER_ERROR_INHIBITED == 3);
G_STATIC_ASSERT (RYX_FRAME_BUFFER_READER_ERROR_EMPTY_FRAME == 0 && RYX_FRAME_BUFFER_READER_ERROR_FAILED == 5);
G_STATIC_ASSERT (RYX_FRAME_BUFFER_READER_ERROR_NEEDS_RECONFIGURE == 2 && RYX_FRAME_BUFFER_READER_ERROR_SHM_FAILED == 4);

#define G_STATIC_ASSERT_SLOTS(type, first, header, last, n_slots)                                                      \
  G_STATIC_ASSERT (G_STRUCT_OFFSET (type, first) == sizeof (header));                                                  \
  G_STATIC_ASSERT (G_STRUCT_OFFSET (type, last) == sizeof (header) + ((n_slots) -1) * sizeof (void *));                \
  G_STATIC_ASSERT (sizeof (type) == sizeof (header) + (n_slots) * sizeof (void *))

G_STATIC_ASSERT_SLOTS (RyxDisplayEnumeratorInterface, get_display_layout, GObjectClass, log_gpu_adapter_list, 2);
G_STATIC_ASSERT_SLOTS (RyxInputInjectorInterface, motion_event, GObjectClass, channel_disconnected, 10);
G_STATIC_ASSERT (G_STRUCT_OFFSET (RyxInputInjectorInterface, special_key_event)
                 == sizeof (GObjectClass) + 4 * sizeof (void *));
G_STATIC_ASSERT_SLOTS (RyxHealthInterface, check, GTypeInterface, check, 1);
G_STATIC_ASSERT_SLOTS (RyxDisplayLayoutManagerClass, request_layout, GObjectClass, enforce_layout_constraints, 2);
G_STATIC_ASSERT_SLOTS (RyxFrameBufferReaderClass, setup, GObjectClass, grab_frame, 3);
G_STATIC_ASSERT_SLOTS (RyxPointerMonitorClass, start, GObjectClass, require_cursor, 3);

/* Instances hold nothing beyond their parent's: an implementation's own fields come right behind. */
G_STATIC_ASSERT (sizeof (RyxDisplayLayoutManager) == sizeof (GObject));
G_STATIC_ASSERT (sizeof (RyxFrameBufferReader) == sizeof (GObject));
G_STATIC_ASSERT (sizeof (RyxPointerMonitor) == sizeof (GObject));
