#pragma once

#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <ryx/ryx.h>

#include "xserver.h"

/* Registers the host and loads the module of this build; once per process, further calls do nothing. */
void load_module ();

/* While it lives, keys of a settings schema have these values. */
class SettingsScope
{
public:
  SettingsScope (const char *schema, const char *key, GVariant *value);
  ~SettingsScope ();
  SettingsScope (const SettingsScope &) = delete;

private:
  GSettings *const settings;
  const std::string key;
};

/* A way by which a reader takes the screen: what the settings want of it, and what its server does not have. */
struct Means
{
  const char *name;
  bool dirty_region, shm_pixmaps;
  const char *missing_extension = "RECORD"; /* which nobody here needs */
};

inline constexpr Means all_means[] = {
  { "damage_into_shared_pixmap", true, true },           { "damage_by_shm_image", true, false },
  { "damage_by_image", true, true, "MIT-SHM" },          { "comparison_of_shared_pixmap", false, true },
  { "comparison_of_shm_image", false, false },           { "comparison_of_image", false, true, "MIT-SHM" },
  { "comparison_without_damage", true, true, "DAMAGE" }, { "whole_screen_without_randr", true, true, "RANDR" },
};

/* While it lives, readers that are set up take the screen so. */
class MeansScope
{
public:
  MeansScope (bool dirty_region, bool shm_pixmaps)
      : dirty ("com.quorlane.ryx.display", "use-grabber-dirty-region", g_variant_new_boolean (dirty_region)),
        pixmaps ("com.quorlane.ryx.display.linux", "use-shm-pixmaps", g_variant_new_boolean (shm_pixmaps))
  {
  }

private:
  const SettingsScope dirty, pixmaps;
};

struct ObjectDeleter
{
  void
  operator() (gpointer object) const
  {
    g_object_unref (object);
  }
};
using Frame = std::unique_ptr<RyxCapturedFrame, ObjectDeleter>;

/* The module's reader on a display, with what went wrong last in words: "NEEDS_RECONFIGURE: Root window …". */
class TestReader
{
public:
  explicit TestReader (const char *display, guint32 output_id = 0, guint32 block_size = 16,
                       gint32 refine_threshold = 0);

  bool setup ();
  bool configure ();
  Frame grab ();

  /* Grabs until there is a frame or something other than an empty one goes wrong. */
  Frame grab_change ();

  std::string failure;

private:
  bool note (gboolean succeeded, GError *error);

  std::unique_ptr<RyxFrameBufferReader, ObjectDeleter> object;
};

/* A client that draws on the root window and asks plainly what is on it. */
class Painter : public XcbClient
{
public:
  explicit Painter (const char *display);

  /* Done on the server when it returns. */
  void fill (int x, int y, unsigned width, unsigned height, uint32_t colour);
  void fill_with_noise ();

  /* The rows of an area without padding, as GetImage gives them. */
  std::vector<uint8_t> image (int x, int y, unsigned width, unsigned height);

private:
  xcb_gcontext_t gc;
};

/* The frame's rows without padding, with the unused byte of 4-byte pixels as it is. */
std::vector<uint8_t> pixels_of (RyxCapturedFrame *frame);

/* The marked blocks as "column,row column,row …". */
std::string blocks_of (RyxCapturedFrame *frame);

/* System V segments made by that process that are still there. Other programs make and drop theirs meanwhile. */
unsigned count_segments (pid_t creator = getpid ());
