#pragma once

#include <ryx/allocator.h>

/* Storage for the next image. */
struct ImageStorage
{
  guint8 *data;        /* NULL: the system has none */
  guint64 image;       /* the number of the image that it is for */
  RyxDiffmap *changed; /* what of the storage is out of date; NULL: everything. To be released */
};

/* The images that frame data are made of are numbered, from 1. Any thread. */
ImageStorage ryx_allocator_acquire_for_image (RyxAllocator *allocator, gsize size);

/* Takes the storage of an image back. */
void ryx_allocator_release_image (RyxAllocator *allocator, guint8 *data, gsize size, guint64 image);
