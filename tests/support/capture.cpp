#include "capture.h"

#include <cstdlib>
#include <fstream>
#include <random>

#include <gtest/gtest.h>

void
load_module ()
{
  g_autoptr (GError) error = nullptr;

  ryx_host_register ();
  if (ryx_host_load_modules (nullptr, &error) == 0)
    g_error ("%s", error->message);
}

SettingsScope::SettingsScope (const char *schema, const char *settings_key, GVariant *value)
    : settings (ryx_settings_new (schema)), key (settings_key)
{
  g_settings_set_value (settings, settings_key, value);
}

SettingsScope::~SettingsScope ()
{
  g_settings_reset (settings, key.c_str ());
  g_object_unref (settings);
}

TestReader::TestReader (const char *display, guint32 output_id, guint32 block_size, gint32 refine_threshold)
{
  load_module ();
  g_setenv ("DISPLAY", display, TRUE);
  object.reset (static_cast<RyxFrameBufferReader *> (ryx_host_create (
    RYX_FRAME_BUFFER_READER_EXTENSION_POINT, "fbreaderxcb", nullptr, "screen-id", 7u, "screen-name", "test",
    "output-id", output_id, "block-size", block_size, "diffmap-refine-threshold", refine_threshold, nullptr)));
}

bool
TestReader::note (gboolean succeeded, GError *error)
{
  static const char *const codes[]
    = { "EMPTY_FRAME", "FAILED_SETUP", "NEEDS_RECONFIGURE", "PROTECTED_CONTENT", "SHM_FAILED", "FAILED" };

  EXPECT_EQ (succeeded, error == nullptr);
  failure.clear ();
  if (!error)
    return true;

  EXPECT_EQ (error->domain, RYX_FRAME_BUFFER_READER_ERROR);
  failure = std::string (codes[error->code]) + ": " + error->message;
  g_error_free (error);
  return false;
}

bool
TestReader::setup ()
{
  GError *error = nullptr;
  const gboolean succeeded = ryx_frame_buffer_reader_setup (object.get (), &error);
  return note (succeeded, error);
}

bool
TestReader::configure ()
{
  GError *error = nullptr;
  const gboolean succeeded = ryx_frame_buffer_reader_configure (object.get (), &error);
  return note (succeeded, error);
}

Frame
TestReader::grab ()
{
  GError *error = nullptr;
  Frame frame (ryx_frame_buffer_reader_grab_frame (object.get (), &error));
  note (frame != nullptr, error);
  return frame;
}

Frame
TestReader::grab_change ()
{
  Frame frame;
  do
    frame = grab ();
  while (!frame && failure == "EMPTY_FRAME: Empty frame");
  return frame;
}

Painter::Painter (const char *display) : XcbClient (display), gc (xcb_generate_id (conn))
{
  const uint32_t include_inferiors = XCB_SUBWINDOW_MODE_INCLUDE_INFERIORS;
  xcb_create_gc (conn, gc, root, XCB_GC_SUBWINDOW_MODE, &include_inferiors);
}

void
Painter::fill (int x, int y, unsigned width, unsigned height, uint32_t colour)
{
  const xcb_rectangle_t rectangle = { int16_t (x), int16_t (y), uint16_t (width), uint16_t (height) };

  xcb_change_gc (conn, gc, XCB_GC_FOREGROUND, &colour);
  xcb_poly_fill_rectangle (conn, root, gc, 1, &rectangle);
  EXPECT_TRUE (round_trip ());
}

void
Painter::fill_with_noise ()
{
  std::minstd_rand random (1);

  for (int i = 0; i < 200; i++)
    {
      const uint32_t colour = random () & 0xffffff;
      const xcb_rectangle_t rectangle
        = { int16_t (random () % screen->width_in_pixels), int16_t (random () % screen->height_in_pixels),
            uint16_t (random () % 120), uint16_t (random () % 90) };

      xcb_change_gc (conn, gc, XCB_GC_FOREGROUND, &colour);
      xcb_poly_fill_rectangle (conn, root, gc, 1, &rectangle);
    }
  EXPECT_TRUE (round_trip ());
}

std::vector<uint8_t>
Painter::image (int x, int y, unsigned width, unsigned height)
{
  const auto reply = X_REPLY (conn, get_image, XCB_IMAGE_FORMAT_Z_PIXMAP, root, x, y, width, height, 0xffffffff);
  if (!reply)
    return {};

  const uint8_t *data = xcb_get_image_data (reply.get ());
  return { data, data + width * height * 4 };
}

std::vector<uint8_t>
pixels_of (RyxCapturedFrame *frame)
{
  RyxFrameData *data = ryx_captured_frame_get_frame_data (frame);
  const gsize row = ryx_frame_data_get_width (data) * ryx_pixel_format_get_size (ryx_frame_data_get_format (data));
  std::vector<uint8_t> pixels;

  for (guint32 y = 0; y < ryx_frame_data_get_height (data); y++)
    {
      const guint8 *start = ryx_frame_data_get_data (data) + y * ryx_frame_data_get_stride (data);
      pixels.insert (pixels.end (), start, start + row);
    }
  return pixels;
}

std::string
blocks_of (RyxCapturedFrame *frame)
{
  RyxDiffmap *map = ryx_captured_frame_get_diffmap (frame);
  const guint32 columns = ryx_diffmap_get_columns (map);
  std::string blocks;

  for (guint32 i = 0; i < columns * ryx_diffmap_get_rows (map); i++)
    if (ryx_diffmap_get_marks (map)[i])
      blocks += (blocks.empty () ? "" : " ") + std::to_string (i % columns) + "," + std::to_string (i / columns);
  return blocks;
}

unsigned
count_segments (pid_t creator)
{
  std::ifstream segments ("/proc/sysvipc/shm");
  unsigned n_segments = 0;
  std::string line;

  std::getline (segments, line); /* the columns' names */
  while (std::getline (segments, line))
    {
      pid_t maker = 0;
      EXPECT_EQ (sscanf (line.c_str (), "%*d %*d %*o %*u %d", &maker), 1) << line;
      n_segments += maker == creator;
    }
  return n_segments;
}
