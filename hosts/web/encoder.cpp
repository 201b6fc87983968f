#include "encoder.h"

#include <cstring>
#include <utility>

#include <png.h>
#include <zlib.h>

/* A photograph of fewer blocks is not worth losing anything. */
static constexpr guint32 least_photo_blocks = 64;
static constexpr int jpeg_quality = 90;
static constexpr int compression_level = 1; /* of PNG: level 2 spares some percent of text and takes a tenth longer */

struct __attribute__ ((packed)) UpdateHeader
{
  guint32 head, serial;
  guint16 width, height, n_pictures;
};

struct __attribute__ ((packed)) PictureHeader
{
  guint16 x, y, width, height;
  guint8 form, unused[3];
  guint32 length;
};

static_assert (G_BYTE_ORDER == G_LITTLE_ENDIAN, "the messages are written as they lie in memory");

template <typename T>
static void
append (GByteArray *bytes, const T &value)
{
  g_byte_array_append (bytes, reinterpret_cast<const guint8 *> (&value), sizeof value);
}

static guint
get_pixel_size (RyxFrameData *image)
{
  return ryx_pixel_format_get_size (ryx_frame_data_get_format (image));
}

static const guint8 *
get_pixel (RyxFrameData *image, guint32 x, guint32 y)
{
  return ryx_frame_data_get_data (image) + y * ryx_frame_data_get_stride (image) + x * get_pixel_size (image);
}

template <guint pixel_size>
static guint32
get_colour (const guint8 *pixel)
{
  guint32 colour = 0;

  memcpy (&colour, pixel, pixel_size);
  return colour & 0xffffff;
}

/* What is drawn stands on a ground, whose colour comes back all the time; a photograph hardly repeats itself. */
template <guint pixel_size>
static bool
looks_like_photo (RyxFrameData *image, const RyxRect &block)
{
  constexpr guint32 distance = 4;
  const guint32 width = MIN (block.width, ryx_frame_data_get_width (image) - block.x);
  const guint32 bottom = MIN (block.y + block.height, ryx_frame_data_get_height (image));
  const guint32 n_pairs = width > distance ? (width - distance) * ((bottom - block.y + 1) / 2) : 0;
  guint32 n_same = 0;

  for (guint32 y = block.y; y < bottom && n_same * 8 < n_pairs; y += 2)
    {
      const guint8 *pixel = get_pixel (image, block.x, y);

      for (guint32 x = distance; x < width; x++, pixel += pixel_size)
        n_same += get_colour<pixel_size> (pixel) == get_colour<pixel_size> (pixel + distance * pixel_size);
    }
  return n_same * 8 < n_pairs;
}

static void
append_png (png_structp png, png_bytep data, png_size_t length)
{
  g_byte_array_append (static_cast<GByteArray *> (png_get_io_ptr (png)), data, length);
}

/* A PNG while it is written; libpng knows the pixels of the session as they lie in memory. */
class PngWriter
{
public:
  PngWriter (guint32 width, guint32 height, int colour_type, const std::vector<png_color> &palette, GByteArray *output)
      : depth (get_depth (palette.size ()))
  {
    const auto fail = [] (png_structp, png_const_charp message) { g_error ("Cannot write a picture: %s", message); };

    png = png_create_write_struct (PNG_LIBPNG_VER_STRING, nullptr, fail, nullptr);
    info = png_create_info_struct (png);
    png_set_write_fn (png, output, append_png, nullptr);
    png_set_IHDR (png, info, width, height, depth, colour_type, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                  PNG_FILTER_TYPE_DEFAULT);
    if (!palette.empty ())
      png_set_PLTE (png, info, palette.data (), palette.size ());
    png_set_compression_level (png, compression_level);
    png_set_compression_mem_level (png, get_mem_level (width * height * (palette.empty () ? 4 : 1)));
    if (palette.empty ()) /* what has many colours is hardly alike at any distance: looking for that takes long */
      png_set_compression_strategy (png, Z_RLE);
    png_set_filter (png, PNG_FILTER_TYPE_BASE, palette.empty () ? PNG_FILTER_SUB : PNG_FILTER_NONE);
    png_write_info (png, info);
  }
  ~PngWriter ()
  {
    png_write_end (png, nullptr);
    png_destroy_write_struct (&png, &info);
  }
  PngWriter (const PngWriter &) = delete;
  PngWriter &operator= (const PngWriter &) = delete;

  png_structp png;
  const int depth; /* the bits of an index, or of a component */

private:
  /* Text in two colours has one bit to compress for each of its pixels. */
  static int
  get_depth (gsize n_colours)
  {
    return n_colours == 0 || n_colours > 16 ? 8 : n_colours > 4 ? 4 : n_colours > 2 ? 2 : 1;
  }

  /* Tables of zlib with room for 2^(level + 6) bytes: clearing larger ones takes longer than a small picture. */
  static int
  get_mem_level (guint32 n_bytes)
  {
    return CLAMP (static_cast<int> (g_bit_storage (n_bytes)) - 6, 1, 8);
  }

  png_infop info;
};

/* The colours of a picture by their hash, and the index of each. */
class Palette
{
public:
  /* The index of a colour, which may be new; -1 when there are too many. */
  int
  find (guint32 colour)
  {
    guint32 slot = colour * 2654435761u >> 22;

    while (keys[slot] != 0 && keys[slot] != colour + 1)
      slot = (slot + 1) % G_N_ELEMENTS (keys);
    if (keys[slot] == 0)
      {
        if (colours.size () == 256)
          return -1;
        keys[slot] = colour + 1;
        indices[slot] = colours.size ();
        colours.push_back ({ static_cast<png_byte> (colour >> 16), static_cast<png_byte> (colour >> 8),
                             static_cast<png_byte> (colour) });
      }
    return indices[slot];
  }

  std::vector<png_color> colours;

private:
  guint32 keys[1024] = {}; /* colours, plus 1; 0: free */
  guint8 indices[1024];
};

/* Few colours are written as indices: a third of the bytes to compress, or less. False when there are too many. */
template <guint pixel_size>
static bool
index_colours (RyxFrameData *image, const RyxRect *rect, Palette *palette, guint8 *index)
{
  guint32 recent = get_colour<pixel_size> (get_pixel (image, rect->x, rect->y)), earlier = recent;
  guint8 indices[] = { 0, 0 }; /* of the earlier and of the recent colour */
  palette->find (recent);

  for (guint32 y = 0; y < rect->height; y++)
    {
      const guint8 *pixel = get_pixel (image, rect->x, rect->y + y);
      const guint8 *const end = pixel + static_cast<gsize> (rect->width) * pixel_size;

      for (; pixel < end; pixel += pixel_size)
        {
          const guint32 colour = get_colour<pixel_size> (pixel);

          if (colour != recent && colour != earlier)
            {
              const int found = palette->find (colour);
              if (found < 0)
                return false;
              earlier = std::exchange (recent, colour);
              indices[0] = std::exchange (indices[1], static_cast<guint8> (found));
            }
          *index++ = indices[colour == recent]; /* a branch could not be foretold */
        }
    }
  return true;
}

/* Several indices to a byte, the first of them in its highest bits. */
template <int depth>
static void
pack (const guint8 *indices, guint32 width, guint8 *row)
{
  constexpr guint32 per_byte = 8 / depth;

  for (guint32 x = 0; x < width; x += per_byte)
    {
      guint8 byte = 0;

      for (guint32 i = x; i < x + per_byte; i++)
        byte = byte << depth | (i < width ? indices[i] : 0);
      *row++ = byte;
    }
}

void
Encoder::write_png (RyxFrameData *image, const RyxRect *rect)
{
  const bool is_padded = get_pixel_size (image) == 4;
  Palette palette;

  indices.resize (MAX (indices.size (), static_cast<gsize> (rect->width) * rect->height));
  if (is_padded ? index_colours<4> (image, rect, &palette, indices.data ())
                : index_colours<3> (image, rect, &palette, indices.data ()))
    {
      const PngWriter writer (rect->width, rect->height, PNG_COLOR_TYPE_PALETTE, palette.colours, pictures);
      const auto pack_row = writer.depth == 1   ? pack<1>
                            : writer.depth == 2 ? pack<2>
                            : writer.depth == 4 ? pack<4>
                                                : nullptr;
      for (guint32 y = 0; y < rect->height; y++)
        {
          guint8 *row = &indices[static_cast<gsize> (y) * rect->width];

          if (pack_row) /* in its place: it only becomes shorter */
            pack_row (row, rect->width, row);
          png_write_row (writer.png, row);
        }
      return;
    }

  const PngWriter writer (rect->width, rect->height, PNG_COLOR_TYPE_RGB, {}, pictures);
  png_set_bgr (writer.png);
  if (is_padded)
    png_set_filler (writer.png, 0, PNG_FILLER_AFTER);
  for (guint32 y = 0; y < rect->height; y++)
    png_write_row (writer.png, get_pixel (image, rect->x, rect->y + y));
}

void
write_cursor_png (RyxCursor *cursor, GByteArray *output)
{
  const auto *argb = static_cast<const guint8 *> (g_bytes_get_data (ryx_cursor_get_pixels (cursor), nullptr));
  const guint32 width = ryx_cursor_get_width (cursor), height = ryx_cursor_get_height (cursor);
  const PngWriter writer (width, height, PNG_COLOR_TYPE_RGBA, {}, output);

  png_set_swap_alpha (writer.png);
  for (guint32 y = 0; y < height; y++)
    png_write_row (writer.png, argb + static_cast<gsize> (y) * width * 4);
}

static void
write_jpeg (tjhandle compressor, RyxFrameData *image, const RyxRect *rect, GByteArray *output)
{
  const gsize offset = output->len;
  unsigned long length = tjBufSize (rect->width, rect->height, TJSAMP_444);

  g_byte_array_set_size (output, offset + length);
  unsigned char *target = output->data + offset;
  if (tjCompress2 (compressor, get_pixel (image, rect->x, rect->y), rect->width, ryx_frame_data_get_stride (image),
                   rect->height, get_pixel_size (image) == 4 ? TJPF_BGRX : TJPF_BGR, &target, &length, TJSAMP_444,
                   jpeg_quality, TJFLAG_NOREALLOC)
      != 0)
    g_error ("Cannot write a picture: %s", tjGetErrorStr2 (compressor));
  g_byte_array_set_size (output, offset + length);
}

Encoder::Encoder () : compressor (tjInitCompress ()) {}

Encoder::~Encoder ()
{
  tjDestroy (compressor);
}

void
Encoder::add_picture (RyxFrameData *image, const RyxRect *rect, bool exact)
{
  const gsize offset = pictures->len;

  if (exact)
    write_png (image, rect);
  else
    write_jpeg (compressor, image, rect, pictures);
  append (table, PictureHeader{ static_cast<guint16> (rect->x),
                                static_cast<guint16> (rect->y),
                                static_cast<guint16> (rect->width),
                                static_cast<guint16> (rect->height),
                                static_cast<guint8> (exact ? 0 : 1),
                                {},
                                static_cast<guint32> (pictures->len - offset) });
}

/* Sorts the marked blocks into two maps of the image. */
static void
sort_blocks (RyxFrameData *image, const Marks &marks, RyxDiffmap *exact, RyxDiffmap *photos)
{
  const guint32 block_size = ryx_diffmap_get_block_size (exact), columns = ryx_diffmap_get_columns (exact);
  const bool is_padded = get_pixel_size (image) == 4;
  std::vector<RyxRect> photo_blocks;

  for (guint32 i = 0; i < marks.size (); i++)
    if (marks[i])
      {
        const RyxRect block = { i % columns * block_size, i / columns * block_size, block_size, block_size };

        if (is_padded ? looks_like_photo<4> (image, block) : looks_like_photo<3> (image, block))
          photo_blocks.push_back (block);
        else
          ryx_diffmap_set_image_rect (exact, &block, 1);
      }
  for (const RyxRect &block : photo_blocks)
    ryx_diffmap_set_image_rect (photo_blocks.size () < least_photo_blocks ? exact : photos, &block, 1);
}

GBytes *
Encoder::encode (guint32 head, guint32 serial, RyxCapturedFrame *frame, const Marks &marks, bool *has_photos)
{
  *has_photos = false;
  table = g_byte_array_new ();
  if (!frame)
    {
      append (table, UpdateHeader{ head, serial, 0, 0, 0 });
      return g_byte_array_free_to_bytes (table);
    }

  RyxFrameData *image = ryx_captured_frame_get_frame_data (frame);
  const guint32 width = ryx_frame_data_get_width (image), height = ryx_frame_data_get_height (image);
  const guint32 block_size = ryx_diffmap_get_block_size (ryx_captured_frame_get_diffmap (frame));
  g_autoptr (RyxDiffmap) exact = ryx_diffmap_new_all_zero (width, height, block_size);
  g_autoptr (RyxDiffmap) photos = ryx_diffmap_new_all_zero (width, height, block_size);
  sort_blocks (image, marks, exact, photos);

  guint32 n_exact, n_photos;
  g_autofree RyxRect *exact_rects = ryx_diffmap_get_rects (exact, &n_exact);
  g_autofree RyxRect *photo_rects = ryx_diffmap_get_rects (photos, &n_photos);
  *has_photos = n_photos > 0;

  pictures = g_byte_array_new ();
  append (table, UpdateHeader{ head, serial, static_cast<guint16> (width), static_cast<guint16> (height),
                               static_cast<guint16> (n_exact + n_photos) });
  for (guint32 i = 0; i < n_exact; i++)
    add_picture (image, &exact_rects[i], true);
  for (guint32 i = 0; i < n_photos; i++)
    add_picture (image, &photo_rects[i], false);

  g_byte_array_append (table, pictures->data, pictures->len);
  g_byte_array_unref (pictures);
  return g_byte_array_free_to_bytes (table);
}
