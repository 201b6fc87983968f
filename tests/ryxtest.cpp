#include <algorithm>
#include <filesystem>
#include <set>
#include <span>
#include <thread>

#include <sys/resource.h>

#include <gtest/gtest.h>
#include <ryx/ryx.h>

#include <X11/Xlib.h>

#include "fuzz.h"
#include "logrecorder.h"

/* Rectangles in the notation of X geometries. */
static RyxRect
parse (const char *geometry)
{
  RyxRect rect{};
  sscanf (geometry, "%ux%u%d%d", &rect.width, &rect.height, (int *) &rect.x, (int *) &rect.y);
  return rect;
}

static std::string
print (const RyxRect &rect)
{
  char text[64];
  g_snprintf (text, sizeof text, "%ux%u%+d%+d", rect.width, rect.height, int (rect.x), int (rect.y));
  return text;
}

TEST (RectTest, PositionsAreSignedAndResultsMayAlias)
{
  static const char *const cases[][4] = {
    /* a, b, union, intersection (NULL: none) */
    { "100x100+0+0", "100x100+90+90", "190x190+0+0", "10x10+90+90" },
    { "100x100+0+0", "100x100+100+0", "200x100+0+0", nullptr },
    { "100x100+0+0", "100x100+0+100", "100x200+0+0", nullptr },
    { "100x100-50+0", "100x100+0+0", "150x100-50+0", "50x100+0+0" },
    { "30x30-40-40", "5x50-20-60", "30x50-40-60", "5x30-20-40" },
    { "10x100+0-50", "10x100+0+0", "10x150+0-50", "10x50+0+0" },
    { "0x0+0+0", "100x100+50+60", "150x160+0+0", nullptr },
    { "10x10+2147483647+0", "20x10+2147483640+0", "20x10+2147483640+0", "10x10+2147483647+0" },
    { "4294967295x1-2147483648+0", "4294967295x1+2147483646+0", "4294967295x1-2147483648+0", "1x1+2147483646+0" },
    { "1x4294967295+0-2147483648", "1x4294967295+0+2147483646", "1x4294967295+0-2147483648", "1x1+0+2147483646" },
  };

  for (const auto &[a, b, bounds, overlap] : cases)
    for (const auto &[one, other] : { std::pair (a, b), std::pair (b, a) })
      {
        RyxRect first = parse (one), second = parse (other), result;

        ryx_rect_union (&(result = first), &second, &result);
        EXPECT_EQ (print (result), bounds) << one << " and " << other;
        EXPECT_EQ (ryx_rect_intersection (&first, &second, &first), overlap != nullptr);
        EXPECT_EQ (print (first), overlap ? overlap : one) << one << " and " << other;
      }
}

TEST (OwnershipTest, FramesKeepTheirPixelsInEveryThread)
{
  g_autoptr (RyxAllocator) pool = ryx_allocator_new ();
  std::vector<std::jthread> threads;
  for (guint8 value = 1; value <= 4; value++)
    threads.emplace_back ([&, value] {
      for (int i = 0; i < 1000; i++)
        {
          Bytes source (4096u * value, value);
          RyxFrameData *data
            = ryx_frame_data_new_with_stride (pool, source.data (), 4096, 1024, value, RYX_PIXEL_FORMAT_BGRA);
          RyxDiffmap *diffmap = ryx_diffmap_new_all_set (1024, value, 64);
          g_autoptr (RyxCapturedFrame) frame = ryx_captured_frame_new (value, data, diffmap, i);
          g_autoptr (GBytes) bytes = ryx_frame_data_get_bytes (data);
          ryx_frame_data_unref (data);
          ryx_diffmap_unref (diffmap);
          std::ranges::fill (source, 0);
          const guint8 *copy = ryx_frame_data_get_data (ryx_captured_frame_get_frame_data (frame));
          EXPECT_EQ (std::count (copy, copy + source.size (), value), gssize (source.size ()));

          g_clear_object (&frame);
          EXPECT_EQ (g_bytes_get_data (bytes, nullptr), copy);
          EXPECT_EQ (std::count (copy, copy + g_bytes_get_size (bytes), value), gssize (source.size ()));
        }
    });
}

TEST (AllocatorTest, ASteadyStreamCostsNoPageFaults)
{
  g_autoptr (RyxAllocator) allocator = ryx_allocator_new ();
  constexpr gsize size = 15 << 19;
  rusage before, after;
  for (int i = 0; i < 50; i++)
    {
      for (gpointer buffer : { ryx_allocator_acquire (allocator, size), ryx_allocator_acquire (allocator, size) })
        ryx_allocator_release (allocator, memset (buffer, i, size), size);
      getrusage (RUSAGE_SELF, i == 0 ? &before : &after);
    }
  EXPECT_LT (after.ru_minflt - before.ru_minflt, 50);
}

/* A stream of images, each a little different from the last, while frames of it live for a while in any order. */
TEST (AllocatorTest, WhatIsCopiedInPartIsTheWholeImage)
{
  constexpr guint32 width = 101, height = 67, stride = 412;
  g_autoptr (RyxAllocator) allocator = ryx_allocator_new ();
  std::minstd_rand random (7);
  Bytes image (stride * height);
  std::vector<std::pair<RyxFrameData *, Bytes>> kept;

  for (int i = 0; i < 3000; i++)
    {
      g_autoptr (RyxDiffmap) changes = ryx_diffmap_new_all_zero (width, height, random () % 500 ? 16 : 8);
      for (auto n = random () % 3; n > 0; n--)
        {
          const auto x = guint32 (random () % width), y = guint32 (random () % height);
          const RyxRect rect = { x, y, guint32 (1 + random () % (width - x)), guint32 (1 + random () % (height - y)) };
          for (guint32 row = 0; row < rect.height; row++)
            std::fill_n (image.begin () + (y + row) * stride + x * 4, rect.width * 4, guint8 (random ()));
          ryx_diffmap_set_image_rect (changes, &rect, 1);
        }
      if (random () % 20)
        ryx_allocator_expect_changes (allocator, changes);
      else
        image[random () % image.size ()] ^= 1;
      const RyxRect whole = { 0, 0, width, height };
      ryx_diffmap_set_image_rect (changes, &whole, 0); /* the map stays the caller's */

      kept.emplace_back (
        ryx_frame_data_new_with_stride (allocator, image.data (), stride, width, height, RYX_PIXEL_FORMAT_BGRA), image);
      while (kept.size () > random () % 6)
        {
          const auto &[frame, pixels] = kept[random () % kept.size ()];
          for (guint32 y = 0; y < height; y++)
            ASSERT_EQ (memcmp (ryx_frame_data_get_data (frame) + y * stride, &pixels[y * stride], width * 4), 0) << i;
          std::swap (kept[size_t (random () % kept.size ())], kept.back ());
          ryx_frame_data_unref (kept.back ().first);
          kept.pop_back ();
        }
    }
  for (const auto &[frame, pixels] : kept)
    ryx_frame_data_unref (frame);
}

/* An object of an abstract class, without any implementation. */
static gpointer
make_object (GType parent, const char *type_name, const char *property, int value)
{
  GTypeQuery query;
  g_type_query (parent, &query);
  const GType type = g_type_register_static_simple (parent, type_name, query.class_size, nullptr, query.instance_size,
                                                    nullptr, GTypeFlags (0));
  return g_object_new (type, property, value, nullptr);
}

TEST (BadInputTest, WhatCannotBeIsRefused)
{
  LogRecorder log (G_LOG_LEVEL_ERROR);
  g_autoptr (RyxAllocator) allocator = ryx_allocator_new ();
  const guint8 pixel[4] = {};
  g_autoptr (RyxFrameData) frame = ryx_frame_data_new_with_stride (allocator, pixel, 4, 1, 1, RYX_PIXEL_FORMAT_BGRA);
  guint32 n;

  EXPECT_FALSE (ryx_frame_data_new_with_stride (allocator, pixel, 7, 2, 1, RYX_PIXEL_FORMAT_BGRA));
  EXPECT_FALSE (ryx_frame_data_new_with_stride (allocator, pixel, G_MAXSIZE / 2, 1, 4, RYX_PIXEL_FORMAT_BGRA));
  EXPECT_FALSE (ryx_diffmap_new_all_zero (10, 10, 0));
  EXPECT_FALSE (ryx_diffmap_new_all_set (G_MAXUINT32, G_MAXUINT32, 65535));
  EXPECT_FALSE (ryx_diffmap_new_from_images (ryx_frame_data_get_data (frame), pixel, 2, 1, 2, 2, 8, &n));
  g_autoptr (GBytes) bytes = g_bytes_new_static (pixel, sizeof pixel);
  EXPECT_FALSE (ryx_cursor_new (1, 2, 1, 0, 0, bytes));
  EXPECT_FALSE (ryx_cursor_new (1, G_MAXUINT32, G_MAXUINT32, 0, 0, bytes));
  EXPECT_EQ (log.count ("RYX", G_LOG_LEVEL_CRITICAL, "assertion"), 7u) << log.dump ();

  g_autoptr (GObject) reader = G_OBJECT (make_object (RYX_TYPE_FRAME_BUFFER_READER, "TestReader", "output-id", 0));
  g_object_set (reader, "block-size", 0, nullptr);
  EXPECT_EQ (ryx_frame_buffer_reader_get_block_size (RYX_FRAME_BUFFER_READER (reader)), 64u);
}

/* An image cut into blocks, in the plainest way. */
struct Blocks
{
  explicit Blocks (Fuzz &rounds) : fuzz (rounds) {}

  Fuzz &fuzz;
  guint32 width = fuzz.pick (1, 150), height = fuzz.pick (1, 60), size = fuzz.pick (1, 70),
          columns = (width - 1) / size + 1;
  Bytes marks = Bytes (columns * ((height - 1) / size + 1));

  guint8 &
  at (guint32 x, guint32 y)
  {
    return marks[y / size * columns + x / size];
  }

  Bytes
  read (RyxDiffmap *map) const
  {
    return { ryx_diffmap_get_marks (map), ryx_diffmap_get_marks (map) + marks.size () };
  }
};

TEST (DiffmapFuzz, FindsTheBlocksThatDifferAndNothingElse)
{
  g_autoptr (RyxAllocator) allocator = ryx_allocator_new ();
  for (Fuzz fuzz (500); fuzz.next () && !HasFailure ();)
    {
      const bool bgr = fuzz.pick (0, 1), old_is_frame = fuzz.pick (0, 1),
                 new_is_frame = fuzz.pick (0, 1) || (bgr && !old_is_frame);
      Blocks blocks (fuzz);
      const guint32 width = blocks.width, height = blocks.height, pixel_size = bgr ? 3 : 4,
                    row_size = width * pixel_size;
      /* A bare image of 3-byte pixels is padded like the frame that it is compared with. */
      const guint32 old_stride = row_size + (bgr ? fuzz.pick (0, 9) : 4 * fuzz.pick (0, 9));
      const guint32 new_stride = bgr ? old_stride : row_size + 4 * fuzz.pick (0, 9);
      /* As large as their pixels: whoever reads further is caught by the sanitizer. */
      Bytes old_image ((height - 1) * old_stride + row_size), new_image ((height - 1) * new_stride + row_size);
      for (Bytes *image : { &old_image, &new_image })
        std::generate (image->begin (), image->end (), [&] { return guint8 (fuzz.pick (0, 255)); });
      for (guint32 y = 0; y < height; y++)
        std::copy_n (&old_image[y * old_stride], row_size, &new_image[y * new_stride]);
      for (guint32 n = fuzz.pick (0, 3) * fuzz.pick (0, 40); n > 0; n--)
        {
          const guint32 y = fuzz.pick (0, height - 1), i = fuzz.pick (0, row_size - 1);
          new_image[y * new_stride + i]++;
          blocks.at (i / pixel_size, y) = 1;
        }

      const auto format = bgr ? RYX_PIXEL_FORMAT_BGR : RYX_PIXEL_FORMAT_BGRA;
      g_autoptr (RyxFrameData) old_frame
        = ryx_frame_data_new_with_stride (allocator, old_image.data (), old_stride, width, height, format);
      g_autoptr (RyxFrameData) new_frame
        = ryx_frame_data_new_with_stride (allocator, new_image.data (), new_stride, width, height, format);
      const guint8 *old_pixels = old_is_frame ? ryx_frame_data_get_data (old_frame) : old_image.data ();
      const guint8 *new_pixels = new_is_frame ? ryx_frame_data_get_data (new_frame) : new_image.data ();
      /* The stride given for a frame does not count. */
      const gint32 old_pitch = old_is_frame ? width : old_stride / pixel_size, new_pitch = new_stride / pixel_size;
      guint32 n_changed;
      g_autoptr (RyxDiffmap) found = ryx_diffmap_new_from_images (old_pixels, new_pixels, width, height, old_pitch,
                                                                  new_pitch, blocks.size, &n_changed);
      ASSERT_EQ (blocks.read (found), blocks.marks);
      ASSERT_EQ (n_changed, std::ranges::count (blocks.marks, 1));

      g_autoptr (RyxDiffmap) refined = ryx_diffmap_new_all_zero (width, height, blocks.size);
      const RyxRect asked = { 0, 0, guint32 (fuzz.pick (0, width)), guint32 (fuzz.pick (0, height)) };
      ryx_diffmap_set_image_rect (refined, &asked, 2);
      std::ranges::transform (blocks.marks, blocks.read (refined), blocks.marks.begin (), std::logical_and ());
      ryx_diffmap_refine_from_images (refined, old_pixels, new_pixels, width, height, old_pitch, new_pitch, &n_changed);
      ASSERT_EQ (blocks.read (refined), blocks.marks);
      ASSERT_EQ (n_changed, std::ranges::count (blocks.marks, 1));
    }
}

TEST (DiffmapFuzz, RectanglesGoInAndComeOutAsOnACanvas)
{
  for (Fuzz fuzz (200); fuzz.next () && !HasFailure ();)
    {
      Blocks blocks (fuzz);
      const guint32 width = blocks.width, height = blocks.height;
      g_autoptr (RyxDiffmap) diffmap = ryx_diffmap_new_all_zero (width, height, blocks.size);
      for (int i = 0; i < 5; i++)
        {
          const auto pick = [&] (int least, int most) {
            return guint32 (fuzz.pick (0, 9) ? fuzz.pick (least, most) : fuzz.number ());
          };
          const RyxRect rect = { pick (-50, 150), pick (-30, 60), pick (0, 99), pick (0, 40) };
          const gint64 left = gint32 (rect.x), top = gint32 (rect.y);
          const auto value = guint8 (fuzz.pick (0, 2));
          guint32 n_changed = 0;
          for (guint32 y = 0; y < height; y++)
            for (guint32 x = 0; x < width; x++)
              if (x >= left && x < left + rect.width && y >= top && y < top + rect.height)
                n_changed += std::exchange (blocks.at (x, y), value) != value;
          ASSERT_EQ (ryx_diffmap_set_image_rect (diffmap, &rect, value), n_changed) << print (rect);
          ASSERT_EQ (blocks.read (diffmap), blocks.marks) << print (rect);
        }

      guint32 n_rects;
      g_autofree RyxRect *rects = ryx_diffmap_get_rects (diffmap, &n_rects);
      Bytes canvas (width * height);
      std::set<std::tuple<guint32, guint32, guint32>> lower_edges;
      for (const auto &[x, y, rect_width, rect_height] : std::span (rects, n_rects))
        {
          for (guint32 i = 0; i < rect_width * rect_height; i++)
            ASSERT_EQ (canvas.at ((y + i / rect_width) * width + x + i % rect_width)++, 0);
          ASSERT_FALSE (x > 0 && blocks.at (x - 1, y)) << "not the whole run";
          ASSERT_FALSE (lower_edges.contains ({ x, rect_width, y })) << "not merged";
          lower_edges.insert ({ x, rect_width, y + rect_height });
        }
      for (guint32 i = 0; i < canvas.size (); i++)
        ASSERT_EQ (canvas[i], blocks.at (i % width, i / width) != 0);
    }
}

TEST (PointerMonitorTest, CursorsAreCachedAndAnnounced)
{
  auto *monitor = RYX_POINTER_MONITOR (make_object (RYX_TYPE_POINTER_MONITOR, "TestMonitor", "cursor-cache-size", 2));
  RyxCursorCache *cache = ryx_pointer_monitor_get_cursor_cache (monitor);
  g_autoptr (GBytes) pixels = g_bytes_new_static ("ARGB", 4);
  std::vector<guint64> evicted;
  for (const guint64 id : { 1, 2, 1, 3, 4 })
    {
      g_autoptr (RyxCursor) cursor = ryx_cursor_new (id, 1, 1, 0, 0, pixels);
      evicted.push_back (ryx_cursor_cache_add (cache, cursor));
      ryx_cursor_cache_get (cache, 1);
    }
  EXPECT_EQ (testing::PrintToString (evicted), "{ 0, 0, 0, 2, 3 }");

  /* A listener may empty the cache while others are still to hear of the cursor. */
  static guint64 heard;
  const auto hear = [] (gpointer, RyxCursor *cursor, gboolean, guint64 id) { heard = ryx_cursor_get_id (cursor) + id; };
  g_signal_connect (monitor, "cursor-changed", G_CALLBACK (ryx_pointer_monitor_emit_cursor_cache_invalidated), nullptr);
  g_signal_connect (monitor, "cursor-changed", G_CALLBACK (+hear), nullptr);
  ryx_pointer_monitor_emit_cursor_changed (monitor, ryx_cursor_cache_get (cache, 4), TRUE, 70);
  EXPECT_EQ (heard, 74u);
  g_assert_finalize_object (monitor);
}

TEST (HostTest, ModulesLoadOnceAndBrokenOnesAreNamed)
{
  LogRecorder log (G_LOG_LEVEL_ERROR);
  g_autofree char *directory = g_dir_make_tmp (nullptr, nullptr);
  const std::string broken = std::string (directory) + "/broken.so", link = std::string (directory) + "/link";
  const auto load_modules = [] (const std::string &path) -> std::string {
    g_autoptr (GError) error = nullptr;
    const guint n_loaded = ryx_host_load_modules (path.c_str (), &error);
    return error ? error->message : std::to_string (n_loaded);
  };

  ryx_host_register ();
  EXPECT_NE (load_modules (broken).find (broken), std::string::npos);
  g_file_set_contents (broken.c_str (), "no module", -1, nullptr);
  EXPECT_EQ (load_modules (directory), "Cannot load module " + broken + ": " + broken + ": file too short");
  std::filesystem::create_directory_symlink (g_getenv ("RYX_MODULE_DIR"), link);
  EXPECT_EQ (load_modules (g_getenv ("RYX_MODULE_DIR")) + load_modules (link), "11");
  EXPECT_EQ (log.dump (), "");
  std::filesystem::remove_all (directory);
}

TEST (SpecialKeyTest, LocationsPickTheVariant)
{
  const auto keysyms_of = [] (const char *name) { /* at the usual place, left, right, on the keypad */
                                                  std::string keysyms;
                                                  for (int place = 0; place < 4; place++)
                                                    if (const guint keysym = ryx_special_key_string_to_keyval (
                                                          name, RyxInputInjectorKeyLocation (place)))
                                                      keysyms += XKeysymToString (keysym) + std::string (" ");
                                                  return keysyms;
  };

  EXPECT_EQ (keysyms_of ("Shift"), "Shift_L Shift_L Shift_R Shift_L ");
  EXPECT_EQ (keysyms_of ("Meta"), "Super_L Super_L Super_R Super_L ");
  EXPECT_EQ (keysyms_of ("Clear"), "Clear Clear Clear KP_Begin ");
  EXPECT_EQ (keysyms_of ("ZoomToggle"), "XF86FullScreen XF86FullScreen XF86FullScreen XF86FullScreen ");
  for (const char *name : { "Enter",
                            "Tab",
                            "Backspace",
                            "Escape",
                            "Delete",
                            "Insert",
                            "Home",
                            "End",
                            "PageUp",
                            "PageDown",
                            "ArrowUp",
                            "ArrowDown",
                            "ArrowRight",
                            "PrintScreen",
                            "ScrollLock",
                            "Pause",
                            "ContextMenu",
                            "F1",
                            "F11",
                            "Alt",
                            "Control",
                            "AudioVolumeUp",
                            "AudioVolumeMute",
                            "BrowserBack",
                            "MediaPlayPause",
                            "LaunchMail",
                            "Undo",
                            "Help",
                            "Hyper",
                            "AltGraph" })
    EXPECT_EQ (std::ranges::count (keysyms_of (name), ' '), 4) << name;
  for (const char *unknown : { "", "a", "shift", "F36", "Dead", "zzz" })
    EXPECT_EQ (keysyms_of (unknown), "") << unknown;
}
