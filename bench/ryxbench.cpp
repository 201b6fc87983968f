/* What the host library does with every frame, measured beside the plain memory function that does the least
 * work possible on the same bytes. The two take turns, so that both meet the same machine; the time reported is
 * the library's, and the counter "ratio" compares the medians of both. */

#include <ryx/ryx.h>

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <memory>
#include <stdlib.h>
#include <string.h>
#include <vector>

static constexpr gsize PIXEL_SIZE = 4;

/* The frame kept to compare with, the one in flight and the one being made. */
static constexpr gsize N_ROTATING = 3;

/* How many blocks there are to one that differs, in images that differ. */
static constexpr guint32 CHANGE_SPACING = 4;

struct FreeDeleter
{
  void
  operator() (void *memory) const
  {
    free (memory);
  }
};

using Pixels = std::unique_ptr<guint8[], FreeDeleter>;

struct ImageSize
{
  guint32 width, height;

  explicit ImageSize (const benchmark::State &state)
      : width (static_cast<guint32> (state.range (0))), height (static_cast<guint32> (state.range (1)))
  {
  }

  gsize
  bytes () const
  {
    return gsize{ width } * height * PIXEL_SIZE;
  }
  gint32
  stride () const
  {
    return static_cast<gint32> (width);
  }
};

static Pixels
make_pixels (const ImageSize &size)
{
  Pixels pixels (static_cast<guint8 *> (aligned_alloc (64, size.bytes ())));

  for (gsize i = 0; i < size.bytes (); i++)
    pixels[i] = static_cast<guint8> (i * 7 + i / 4096);
  return pixels;
}

template <typename Function>
static double
measure (Function &&function)
{
  const auto start = std::chrono::steady_clock::now ();

  function ();
  benchmark::ClobberMemory ();
  return std::chrono::duration<double> (std::chrono::steady_clock::now () - start).count ();
}

static double
get_median (std::vector<double> &seconds)
{
  const auto middle = seconds.begin () + static_cast<std::ptrdiff_t> (seconds.size () / 2);

  std::nth_element (seconds.begin (), middle, seconds.end ());
  return *middle;
}

template <typename Plain, typename Ours>
static void
measure_in_turns (benchmark::State &state, Plain &&plain, Ours &&ours)
{
  std::vector<double> plain_seconds, our_seconds;

  for ([[maybe_unused]] auto _ : state)
    {
      plain_seconds.push_back (measure (plain));
      our_seconds.push_back (measure (ours));
      state.SetIterationTime (our_seconds.back ());
    }
  state.counters["ratio"] = get_median (our_seconds) / get_median (plain_seconds);
}

/* Against one memcmp of the whole images, equal ones at that: it reads every byte. */
static void
measure_comparison (benchmark::State &state, const Pixels &a, const Pixels &b)
{
  const ImageSize size (state);
  const Pixels equal = make_pixels (size);
  const auto block_size = static_cast<guint32> (state.range (2));

  measure_in_turns (
    state, [&] { benchmark::DoNotOptimize (memcmp (a.get (), equal.get (), size.bytes ())); },
    [&] {
      guint32 n_changed;
      g_autoptr (RyxDiffmap) diffmap = ryx_diffmap_new_from_images (
        a.get (), b.get (), size.width, size.height, size.stride (), size.stride (), block_size, &n_changed);
      benchmark::DoNotOptimize (diffmap);
    });
}

static void
compare_equal_images (benchmark::State &state)
{
  const ImageSize size (state);

  measure_comparison (state, make_pixels (size), make_pixels (size));
}

/* Changes in the first row of blocks here and there: what is left of every other row lies in many spans. */
static void
compare_scattered_changes (benchmark::State &state)
{
  const ImageSize size (state);
  const auto block_size = static_cast<guint32> (state.range (2));
  const Pixels changed = make_pixels (size);

  for (guint32 y = 0; y < size.height; y += block_size)
    for (guint32 x = 0; x < size.width; x += CHANGE_SPACING * block_size)
      changed[(gsize{ y } * size.width + x) * PIXEL_SIZE] ^= 1;
  measure_comparison (state, make_pixels (size), changed);
}

static void
copy_frame (benchmark::State &state)
{
  const ImageSize size (state);
  const Pixels source = make_pixels (size);
  const std::array<Pixels, N_ROTATING> targets = { make_pixels (size), make_pixels (size), make_pixels (size) };
  std::array<RyxFrameData *, N_ROTATING> frames{};
  g_autoptr (RyxAllocator) allocator = ryx_allocator_new ();
  gsize plain_turn = 0, our_turn = 0;

  measure_in_turns (
    state, [&] { memcpy (targets[plain_turn++ % N_ROTATING].get (), source.get (), size.bytes ()); },
    [&] {
      RyxFrameData *&frame = frames[our_turn++ % N_ROTATING];

      g_clear_pointer (&frame, ryx_frame_data_unref);
      frame = ryx_frame_data_new_with_stride (allocator, source.get (), size.width * PIXEL_SIZE, size.width,
                                              size.height, RYX_PIXEL_FORMAT_BGRA);
    });

  for (RyxFrameData *&frame : frames)
    g_clear_pointer (&frame, ryx_frame_data_unref);
}

static const std::vector<gint64> widths_and_heights[] = { { 1920, 1080 }, { 3840, 2160 } };

static void
apply_sizes (benchmark::internal::Benchmark *benchmark)
{
  benchmark->ArgNames ({ "width", "height" })->Unit (benchmark::kMicrosecond)->UseManualTime ()->MinTime (1);
  for (const auto &size : widths_and_heights)
    benchmark->Args (size);
}

static void
apply_sizes_and_blocks (benchmark::internal::Benchmark *benchmark)
{
  benchmark->ArgNames ({ "width", "height", "block" })->Unit (benchmark::kMicrosecond)->UseManualTime ()->MinTime (1);
  for (const auto &size : widths_and_heights)
    for (const gint64 block_size : { 16, 64 })
      benchmark->Args ({ size[0], size[1], block_size });
}

BENCHMARK (compare_equal_images)->Apply (apply_sizes_and_blocks);
BENCHMARK (compare_scattered_changes)->Apply (apply_sizes_and_blocks);
BENCHMARK (copy_frame)->Apply (apply_sizes);

BENCHMARK_MAIN ();
