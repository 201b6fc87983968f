#pragma once

/* Everything that libryx offers. */

#include <ryx/allocator.h>
#include <ryx/capturedframe.h>
#include <ryx/cursor.h>
#include <ryx/cursorcache.h>
#include <ryx/diffmap.h>
#include <ryx/displayenumerator.h>
#include <ryx/displayhead.h>
#include <ryx/displaylayout.h>
#include <ryx/displaylayoutmanager.h>
#include <ryx/errors.h>
#include <ryx/framebufferreader.h>
#include <ryx/framedata.h>
#include <ryx/health.h>
#include <ryx/host.h>
#include <ryx/inputinjector.h>
#include <ryx/pixelformat.h>
#include <ryx/pointermonitor.h>
#include <ryx/rect.h>
#include <ryx/settingsutils.h>
