#pragma once

#include <algorithm>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include <xcb/randr.h>

#include "displaylayoutmanagerxrandr.h"
#include "xcbreply.h"

/* What the layout manager's sources share: displaylayoutmanagerxrandr.cpp is the road of a request,
 * displaylayoutmanagerxrandr-modes.cpp finds, makes and deletes video modes for it. */

/* Domain and code of nearly every error here. */
#define GENERIC_ERROR RYX_DISPLAY_LAYOUT_MANAGER_ERROR, RYX_DISPLAY_LAYOUT_MANAGER_ERROR_GENERIC

using ScreenResources = xcb_randr_get_screen_resources_reply_t;
using CrtcInfo = xcb_randr_get_crtc_info_reply_t;
using OutputInfo = xcb_randr_get_output_info_reply_t;

/* A CRTC that drives at least one output: as it is, or as a request wants it. */
struct PhysicalMonitorInfo
{
  RyxRect rect; /* pixels; x and y are sign-extended 16-bit positions */
  XcbReply<CrtcInfo> crtc_info_r;
  const xcb_randr_output_t *randr_outputs; /* in crtc_info_r; the first one is configured */
  size_t crtc_index;                       /* in the screen's list of CRTCs */
  uint32_t mode_id;                        /* 0: none was found */
  uint32_t fallback_mode_id;               /* 0: none */
};

struct NamedMode
{
  const xcb_randr_mode_info_t *info;
  std::string name;
};

/* What a mode is looked for or made for. */
struct ModeTarget
{
  xcb_randr_crtc_t randr_crtc;
  xcb_randr_output_t randr_output;
  uint32_t width;
  uint32_t height;
};

struct ModeMatch
{
  uint32_t mode_id;          /* of exactly the wanted size; 0: none */
  uint32_t fallback_mode_id; /* the largest one that fits, of those listed before a match; 0: none */
};

inline std::span<const xcb_randr_mode_info_t>
get_modes (const ScreenResources *screen_resources_r)
{
  return get_list (screen_resources_r, xcb_randr_get_screen_resources_modes (screen_resources_r),
                   screen_resources_r->num_modes);
}

template <typename Id>
gboolean
contains (std::span<const Id> ids, std::type_identity_t<Id> id)
{
  return std::find (ids.begin (), ids.end (), id) != ids.end ();
}

/* displaylayoutmanagerxrandr-modes.cpp */
std::vector<NamedMode> get_named_modes (const ScreenResources *screen_resources_r);
gboolean is_in_use (uint32_t mode_id, std::span<const PhysicalMonitorInfo> monitors);
ModeMatch find_mode (std::span<const NamedMode> modes, const ModeTarget &target,
                     std::span<const xcb_randr_mode_t> output_modes, std::span<const PhysicalMonitorInfo> earlier);
gboolean create_mode (xcb_connection_t *conn, const xcb_screen_t *screen, const ModeTarget &target, uint32_t *mode_id);
gboolean delete_old_modes (xcb_connection_t *conn, const ScreenResources *screen_resources_r,
                           std::span<const PhysicalMonitorInfo> desired_layout, GError **error);
