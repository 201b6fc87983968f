#pragma once

#include <iterator>
#include <random>

#include <glib.h>

#include "faultproxy.h"

/* The rounds of a fuzz test, each with random numbers of its own: the same few on every run, or with RYX_FUZZ_SECONDS
 * as many as fit into that time, from RYX_FUZZ_SEED on. Each then tells its seed first, and RYX_FUZZ_SECONDS=0 runs
 * that one again. Copies go on with the same numbers independently. */
class Fuzz
{
public:
  explicit Fuzz (unsigned n_rounds);

  bool next ();
  int64_t pick (int64_t least, int64_t most);

  /* Mostly where it hurts. */
  uint32_t number ();

  template <typename Range>
  const auto &
  one_of (const Range &range)
  {
    return *(std::begin (range) + pick (0, std::size (range) - 1));
  }

  /* Each of these makes another reply of the server's. What makes it the reply to that request stays. */

  /* Other values. */
  void change_values (Bytes &reply);

  /* Another length, too. */
  void change (Bytes &reply);
  void change_setup (Bytes &reply);

  /* Of a head or the screen, which is not to become so large that only the memory is tried. */
  void change_area (Bytes &reply);

  /* What Xlib hands over of a keyboard map without looking at it: the levels of its types, and how its keys refer to
   * the types and the symbols. The counts by which Xlib itself reads stay. */
  void change_key_map (Bytes &reply);

private:
  const char *const seconds;
  const gint64 end; /* monotonic */
  unsigned seed, rounds_left;
  bool began = false;
  std::mt19937 engine;
};
