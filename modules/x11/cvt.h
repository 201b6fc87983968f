#pragma once

#include <glib.h>

G_BEGIN_DECLS

/* Values of DisplayModeRec.Flags; they equal RandR's mode flags. */
enum
{
  V_PHSYNC = 1,
  V_NHSYNC = 2,
  V_PVSYNC = 4,
  V_NVSYNC = 8,
  V_INTERLACE = 16,
  V_DBLSCAN = 32,
  V_CSYNC = 64,
  V_PCSYNC = 128,
  V_NCSYNC = 256,
  V_HSKEW = 512,
  V_BCAST = 1024,
  V_PIXMUX = 4096,
  V_DBLCLK = 8192,
  V_CLKDIV2 = 16384,
};

/* The timings of a video mode. Horizontal values are in pixels, vertical ones in lines of a whole frame. */
typedef struct
{
  int Clock; /* kHz, a multiple of 250 */
  int HDisplay;
  int HSyncStart;
  int HSyncEnd;
  int HTotal;
  int HSkew; /* 0 */
  int VDisplay;
  int VSyncStart;
  int VSyncEnd;
  int VTotal;
  int VScan; /* 0 */
  int Flags;
  float HSync;    /* kHz */
  float VRefresh; /* Hz */
} DisplayModeRec, *DisplayModePtr;

/* The timings that the VESA CVT formula gives, without margins: the width is rounded down to a multiple of 8, and a
 * refresh rate of 0 means 60 Hz. Release them with g_free (). */
DisplayModePtr xf86CVTMode (int HDisplay, int VDisplay, float VRefresh, gboolean Reduced, gboolean Interlaced);

G_END_DECLS
