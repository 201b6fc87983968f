#include "fuzz.h"

#include <algorithm>

#include <stdio.h>
#include <stdlib.h>

#include <X11/X.h>
#include <X11/extensions/XKBproto.h>

static unsigned
first_seed ()
{
  const char *wanted = getenv ("RYX_FUZZ_SEED");
  return wanted ? strtoul (wanted, nullptr, 10) : 1;
}

Fuzz::Fuzz (unsigned n_rounds)
    : seconds (getenv ("RYX_FUZZ_SECONDS")),
      end (g_get_monotonic_time () + (seconds ? atoi (seconds) : 0) * G_USEC_PER_SEC), seed (first_seed () - 1),
      rounds_left (n_rounds)
{
}

bool
Fuzz::next ()
{
  if (seconds ? began && g_get_monotonic_time () >= end : rounds_left-- == 0)
    return false;
  began = true;
  engine.seed (++seed);
  if (seconds)
    fprintf (stderr, "RYX_FUZZ_SEED=%u\r", seed);
  return true;
}

int64_t
Fuzz::pick (int64_t least, int64_t most)
{
  return std::uniform_int_distribution<int64_t> (least, most) (engine);
}

uint32_t
Fuzz::number ()
{
  static const uint32_t edges[] = { 0, 1, 2, 31, 255, 256, 32767, 32768, 65535, 65536, 0x7fffffff, 0x80000000 };

  return pick (0, 2) ? one_of (edges) + pick (-1, 1) : pick (0, UINT32_MAX) >> pick (0, 31);
}

void
Fuzz::change_values (Bytes &reply)
{
  for (int i = pick (1, 4); i > 0; i--)
    {
      const size_t size = size_t (1) << pick (0, 2), at = pick (0, 9) ? pick (8, pick (0, 1) ? 35 : reply.size ()) : 1;
      const uint32_t value = number ();

      if (at + size <= reply.size () && (at > 1 || size == 1))
        std::copy_n (as<uint8_t> (reinterpret_cast<const uint8_t *> (&value)), size, &reply[at]);
    }
}

void
Fuzz::change (Bytes &reply)
{
  const size_t least = std::min<size_t> (reply.size (), 32);

  if (pick (0, 1))
    change_values (reply);
  if (pick (0, 1))
    reply.resize (pick (least, reply.size () + pick (0, 1) * 100), uint8_t (number ()));
}

void
Fuzz::change_setup (Bytes &reply)
{
  const Bytes head (reply.begin (), reply.begin () + 8);

  change (reply);
  std::copy (head.begin (), head.end (), reply.begin ());
}

void
Fuzz::change_area (Bytes &reply)
{
  change (reply);
  for (const size_t extent : { 16, 18 })
    *as<uint16_t> (&reply[extent]) &= 0x7ff;
}

void
Fuzz::change_key_map (Bytes &reply)
{
  const auto map = *as<xkbGetMapReply> (reply.data ());
  size_t at = sizeof map;

  for (int i = 0; i < map.nTypes && at + sz_xkbKeyTypeWireDesc <= reply.size (); i++)
    {
      const auto type = as<xkbKeyTypeWireDesc> (&reply[at]);
      at += sz_xkbKeyTypeWireDesc + type->nMapEntries * (type->preserve ? 12 : 8);
      if (pick (0, 9) == 0)
        type->numLevels = number ();
    }
  for (int i = 0; i < map.nKeySyms && at + sz_xkbSymMapWireDesc <= reply.size (); i++)
    {
      const auto key = as<xkbSymMapWireDesc> (&reply[at]);
      at += sz_xkbSymMapWireDesc + key->nSyms * 4;
      for (auto field : { &key->ktIndex[pick (0, 3)], &key->groupInfo, &key->width })
        if (pick (0, 9) == 0)
          *field = number ();
    }
}
