#pragma once

#include <ryx/diffmap.h>

G_BEGIN_DECLS

#define RYX_TYPE_ALLOCATOR (ryx_allocator_get_type ())

/**
 * RyxAllocator:
 *
 * A source of pixel storage that keeps released buffers and hands them out again, so that a
 * steady stream of frames of one size costs no page faults. It holds a few idle buffers at most,
 * all of the size last asked for. Every function may be called from any thread.
 */
typedef struct _RyxAllocator RyxAllocator;

/**
 * ryx_allocator_get_type:
 *
 * Returns: the boxed type of allocators.
 */
RYX_API GType ryx_allocator_get_type (void);

/**
 * ryx_allocator_new:
 *
 * Makes an allocator.
 *
 * Returns: (transfer full): a new allocator that holds no buffer yet.
 */
RYX_API RyxAllocator *ryx_allocator_new (void);

/**
 * ryx_allocator_ref:
 * @allocator: an allocator
 *
 * Takes a reference.
 *
 * Returns: (transfer full): @allocator, with one more reference.
 */
RYX_API RyxAllocator *ryx_allocator_ref (RyxAllocator *allocator);

/**
 * ryx_allocator_unref:
 * @allocator: (transfer full): an allocator
 *
 * Drops a reference. Every buffer handed out must have been released before the last one goes.
 */
RYX_API void ryx_allocator_unref (RyxAllocator *allocator);

/**
 * ryx_allocator_acquire: (skip)
 * @allocator: an allocator
 * @size: how many bytes are wanted
 *
 * Hands out an idle buffer of exactly @size bytes or makes a new one. Idle buffers of another
 * size go back to the system.
 *
 * Returns: (nullable): memory aligned to 64 bytes whose content is undefined, to be given to
 *   ryx_allocator_release(); %NULL when the system has none.
 */
RYX_API gpointer ryx_allocator_acquire (RyxAllocator *allocator, gsize size);

/**
 * ryx_allocator_release: (skip)
 * @allocator: the allocator that made @memory
 * @memory: (nullable): a buffer
 * @size: the size that was asked for
 *
 * Takes a buffer back, to keep it for the next frame or to give it back to the system.
 */
RYX_API void ryx_allocator_release (RyxAllocator *allocator, gpointer memory, gsize size);

/**
 * ryx_allocator_expect_changes:
 * @allocator: an allocator
 * @changes: a map over the image
 *
 * Tells how the image that the next #RyxFrameData is made of differs from the one that the last was made of: in the
 * marked blocks at most. Both lie in memory in the same way, and both frame data are @allocator's. Storage that
 * still holds one of the last images is then brought up to date by copying the blocks that changed since, instead of
 * everything. Without this call, and after a frame data that was made without it, everything is copied.
 */
RYX_API void ryx_allocator_expect_changes (RyxAllocator *allocator, RyxDiffmap *changes);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (RyxAllocator, ryx_allocator_unref)

G_END_DECLS
