#pragma once

#include <vector>

#include <ryx/ryx.h>
#include <turbojpeg.h>

/* Marked blocks of an image, as in a RyxDiffmap. */
using Marks = std::vector<guint8>;

/* Makes the message of an update: the marked blocks of a frame as pictures. What is drawn stays exact, what looks like
 * a photograph may lose a little. One thread at a time. */
class Encoder
{
public:
  Encoder ();
  ~Encoder ();
  Encoder (const Encoder &) = delete;
  Encoder &operator= (const Encoder &) = delete;

  /* New. @frame NULL: there is nothing but a request for an acknowledgement. @has_photos: something may be lost. */
  GBytes *encode (guint32 head, guint32 serial, RyxCapturedFrame *frame, const Marks &marks, bool *has_photos);

private:
  void add_picture (RyxFrameData *image, const RyxRect *rect, bool exact);
  void write_png (RyxFrameData *image, const RyxRect *rect);

  tjhandle compressor;
  GByteArray *table = nullptr;    /* of one update: what its pictures are */
  GByteArray *pictures = nullptr; /* and themselves, one behind the other */
  std::vector<guint8> indices;    /* of a picture's colours */
};

/* Appends the cursor's picture, with its transparency. */
void write_cursor_png (RyxCursor *cursor, GByteArray *output);
