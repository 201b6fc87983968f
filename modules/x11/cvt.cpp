#include "cvt.h"

#include <algorithm>

/* Which operations run in single and which in double precision decides the last bit of a clock, and with it the name
 * of a mode: the types of the constants below are part of the formula. */

static const float default_refresh = 60.0f; /* Hz */
static const int cell_width = 8;
static const int front_porch = 3;              /* lines */
static const int min_reduced_back_porch = 6;   /* lines */
static const double min_sync_back_porch = 550; /* µs */
static const int hsync_percentage = 8;
static const float blanking_gradient = 300.0f; /* M' of the standard */
static const double blanking_offset = 30.0;    /* C' of the standard */
static const float min_blanking_percentage = 20.0f;
static const float min_reduced_blanking = 460.0f; /* µs */
static const int reduced_hsync = 32;
static const int reduced_hblanking = 160;
static const int clock_step = 250; /* kHz */

struct Field
{
  float rate; /* Hz */
  int lines;
  float interlace; /* half a line when interlaced */
  int vsync_width; /* lines */
};

static int
round_down (int value, int step)
{
  return value - value % step;
}

/* CVT tells a monitor the aspect ratio of a mode by the length of the vertical sync. */
static int
get_vsync_width (int width, int height)
{
  static const struct
  {
    int horizontal, vertical, lines;
  } aspects[] = { { 4, 3, 4 }, { 16, 9, 5 }, { 16, 10, 6 }, { 5, 4, 7 }, { 15, 9, 7 } };

  for (const auto &aspect : aspects)
    if (height % aspect.vertical == 0 && height * aspect.horizontal / aspect.vertical == width)
      return aspect.lines;
  return 10;
}

/* What is left of a field's time after the fixed part of its blanking, shared by the lines. In µs. */
static float
get_line_period (const Field &field, double fixed_time, float n_lines)
{
  return static_cast<float> (1000000.0 / field.rate - fixed_time) / n_lines;
}

static int
get_horizontal_blanking (int width, float line_period)
{
  const float ideal = static_cast<float> (blanking_offset - blanking_gradient * line_period / 1000.0);
  const float percentage = std::max (ideal, min_blanking_percentage);

  return round_down (static_cast<int> (width * percentage / (100.0 - percentage)), 2 * cell_width);
}

/* The blanking setters fill in the totals and the horizontal sync, and return the line period. */
static float
set_normal_blanking (DisplayModePtr mode, const Field &field)
{
  const float line_period = get_line_period (field, min_sync_back_porch, field.lines + front_porch + field.interlace);
  const int sync_back_porch
    = std::max (static_cast<int> (min_sync_back_porch / line_period) + 1, field.vsync_width + front_porch);
  const int blanking = get_horizontal_blanking (mode->HDisplay, line_period);

  mode->VTotal = static_cast<int> (field.lines + sync_back_porch + field.interlace + front_porch);
  mode->HTotal = mode->HDisplay + blanking;
  mode->HSyncEnd = mode->HDisplay + blanking / 2;
  mode->HSyncStart = round_down (mode->HSyncEnd - mode->HTotal * hsync_percentage / 100, cell_width) + cell_width;
  return line_period;
}

static float
set_reduced_blanking (DisplayModePtr mode, const Field &field)
{
  const float line_period = get_line_period (field, min_reduced_blanking, field.lines);
  const int blanking = std::max (static_cast<int> (min_reduced_blanking / line_period + 1),
                                 front_porch + field.vsync_width + min_reduced_back_porch);

  mode->VTotal = static_cast<int> (field.lines + field.interlace + blanking);
  mode->HTotal = mode->HDisplay + reduced_hblanking;
  mode->HSyncEnd = mode->HDisplay + reduced_hblanking / 2;
  mode->HSyncStart = mode->HSyncEnd - reduced_hsync;
  return line_period;
}

DisplayModePtr
xf86CVTMode (int HDisplay, int VDisplay, float VRefresh, gboolean Reduced, gboolean Interlaced)
{
  DisplayModePtr mode = static_cast<DisplayModePtr> (g_malloc0 (sizeof (DisplayModeRec)));
  const float frame_rate = VRefresh == 0 ? default_refresh : VRefresh;
  const Field field = { .rate = Interlaced ? 2 * frame_rate : frame_rate,
                        .lines = Interlaced ? VDisplay / 2 : VDisplay,
                        .interlace = Interlaced ? 0.5f : 0.0f,
                        .vsync_width = get_vsync_width (HDisplay, VDisplay) };

  mode->HDisplay = round_down (HDisplay, cell_width);
  mode->VDisplay = VDisplay;
  mode->VSyncStart = VDisplay + front_porch;
  mode->VSyncEnd = mode->VSyncStart + field.vsync_width;

  const float line_period = Reduced ? set_reduced_blanking (mode, field) : set_normal_blanking (mode, field);

  mode->Clock = round_down (static_cast<int> (mode->HTotal * 1000.0 / line_period), clock_step);
  mode->HSync = static_cast<float> (mode->Clock) / mode->HTotal;
  mode->VRefresh
    = static_cast<float> (1000.0 * static_cast<float> (mode->Clock) / static_cast<float> (mode->HTotal * mode->VTotal));

  mode->Flags = Reduced ? V_PHSYNC | V_NVSYNC : V_NHSYNC | V_PVSYNC;
  if (Interlaced)
    {
      mode->VTotal *= 2; /* only now: the refresh rate is that of the fields */
      mode->Flags |= V_INTERLACE;
    }
  return mode;
}
