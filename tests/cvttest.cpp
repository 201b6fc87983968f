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

TEST (CvtTest, KnownModesHaveTheirKnownTimings)
{
  static const struct
  {
    int width, height;
    bool reduced;
    DisplayModeRec expected; /* without HSync, which the clock and the total give */
  } cases[] = {
    { 1920, 1080, false, { 173000, 1920, 2048, 2248, 2576, 0, 1080, 1083, 1088, 1120, 0, 6, 0, 59.962845f } },
    { 1024, 768, false, { 63500, 1024, 1072, 1176, 1328, 0, 768, 771, 775, 798, 0, 6, 0, 59.920132f } },
    { 1280, 1024, false, { 109000, 1280, 1368, 1496, 1712, 0, 1024, 1027, 1034, 1063, 0, 6, 0, 59.894848f } },
    { 640, 480, false, { 23750, 640, 664, 720, 800, 0, 480, 483, 487, 500, 0, 6, 0, 59.375f } },
    { 1366, 768, false, { 84750, 1360, 1432, 1568, 1776, 0, 768, 771, 781, 798, 0, 6, 0, 59.798992f } },
    { 641, 480, false, { 23750, 640, 664, 720, 800, 0, 480, 483, 493, 500, 0, 6, 0, 59.375f } }, /* no longer 4:3 */
    { 1920, 1080, true, { 138500, 1920, 1968, 2000, 2080, 0, 1080, 1083, 1088, 1111, 0, 9, 0, 59.933880f } },
  };

  for (const auto &[width, height, reduced, m] : cases)
    EXPECT_EQ (compute (width, height, 0, reduced, false),
               std::tuple (m.Clock, m.HDisplay, m.HSyncStart, m.HSyncEnd, m.HTotal, 0, m.VDisplay, m.VSyncStart,
                           m.VSyncEnd, m.VTotal, 0, m.Flags, float (m.Clock) / float (m.HTotal), m.VRefresh))
      << width << "x" << height;
}
