#include <cstdlib>
#include <memory>
#include <tuple>

#include <gtest/gtest.h>
#include <libxcvt/libxcvt.h>
#include <modules/x11/cvt.h>

static auto
compute (int width, int height, float refresh, bool reduced, bool interlaced)
{
  const std::unique_ptr<DisplayModeRec, decltype (&g_free)> m (
    xf86CVTMode (width, height, refresh, reduced, interlaced), g_free);

  return std::tuple (m->Clock, m->HDisplay, m->HSyncStart, m->HSyncEnd, m->HTotal, m->HSkew, m->VDisplay, m->VSyncStart,
                     m->VSyncEnd, m->VTotal, m->VScan, m->Flags, m->HSync, m->VRefresh);
}

/* What libxcvt says; it has no skew and no scan. It stretches 1360x768 to the 1366 pixels of a common panel, and moves
 * the sync by the pixel that this costs its fields: that is undone here. */
static auto
compute_with_libxcvt (int width, int height, float refresh, bool reduced, bool interlaced)
{
  const std::unique_ptr<libxcvt_mode_info, decltype (&free)> m (
    libxcvt_gen_mode_info (width, height, refresh, reduced, interlaced), free);
  const int stretched = m->hdisplay == 1366;

  return std::tuple (int (m->dot_clock), int (m->hdisplay) - 6 * stretched, m->hsync_start + stretched,
                     m->hsync_end + stretched, int (m->htotal), 0, int (m->vdisplay), int (m->vsync_start),
                     int (m->vsync_end), int (m->vtotal), 0, int (m->mode_flags), m->hsync, m->vrefresh);
}

/* Stops at the first difference: a wrong formula differs a million times. */
static void
compare (int width, int height, float refresh)
{
  for (const bool reduced : { false, true })
    for (const bool interlaced : { false, true })
      ASSERT_EQ (compute (width, height, refresh, reduced, interlaced),
                 compute_with_libxcvt (width, height, refresh, reduced, interlaced))
        << width << "x" << height << " at " << refresh << " Hz" << (reduced ? ", reduced" : "")
        << (interlaced ? ", interlaced" : "");
}

TEST (CvtTest, EverySizeAt60HzHasTheTimingsOfTheStandard)
{
  for (int width = 64; width <= 4096 && !HasFailure (); width += 8)
    for (int height = 64; height <= 4096 && !HasFailure (); height += 8)
      compare (width, height, 60);
}

TEST (CvtTest, OtherRatesHaveTheTimingsOfTheStandard)
{
  for (const float rate : { 0., 23.976, 24., 29.97, 30., 50., 59.94, 72., 75., 85., 100., 119.88, 144., 165., 240. })
    for (int width = 640; width <= 4096 && !HasFailure (); width += 104)
      for (int height = 479; height <= 2400 && !HasFailure (); height += 61)
        compare (width, height, rate);
}

TEST (CvtTest, TheAspectRatioIsThatOfTheWidthAskedFor)
{
  EXPECT_EQ (compute (641, 480, 0, false, false),
             std::tuple (23750, 640, 664, 720, 800, 0, 480, 483, 493, 500, 0, 6, 23750 / 800.0f, 59.375f));
}
