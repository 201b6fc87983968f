#include "allocator-private.h"

#include "diffmap-private.h"

#include <stdlib.h>
#include <utility>
#include <sys/mman.h>

/* What a reader keeps to compare with and what its host sends fit into this many. */
static constexpr guint max_idle = 2;

/* A cache line; also the widest vector that encoders load aligned. */
static constexpr gsize vector_alignment = 64;

static constexpr gsize huge_page = 2 << 20;

/* How many images back storage can be brought up to date. */
static constexpr guint64 n_remembered = 4;

/* Maps finer than this take more than they save. */
static constexpr gsize max_remembered_blocks = 1 << 16;

/* What an idle buffer holds when it is not one of the numbered images. */
static constexpr guint64 no_image = 0;

struct IdleBuffer
{
  gpointer memory;
  guint64 image;
};

struct _RyxAllocator
{
  gatomicrefcount references;
  GMutex lock;

  /* Guarded by the lock. */
  IdleBuffer idle[max_idle];
  guint n_idle;
  gsize idle_size; /* the size last asked for, which all idle buffers have */
  guint64 last_image;
  RyxDiffmap *expected;              /* of the next image against the last; NULL: not known, likewise below */
  RyxDiffmap *changes[n_remembered]; /* of image n against the one before, at n modulo their number */
};

G_DEFINE_BOXED_TYPE (RyxAllocator, ryx_allocator, ryx_allocator_ref, ryx_allocator_unref)

static void
free_idle (RyxAllocator *allocator)
{
  while (allocator->n_idle > 0)
    free (allocator->idle[--allocator->n_idle].memory);
}

RyxAllocator *
ryx_allocator_new (void)
{
  RyxAllocator *allocator = g_new0 (RyxAllocator, 1);

  g_atomic_ref_count_init (&allocator->references);
  g_mutex_init (&allocator->lock);
  return allocator;
}

RyxAllocator *
ryx_allocator_ref (RyxAllocator *allocator)
{
  g_return_val_if_fail (allocator, nullptr);

  g_atomic_ref_count_inc (&allocator->references);
  return allocator;
}

void
ryx_allocator_unref (RyxAllocator *allocator)
{
  g_return_if_fail (allocator);

  if (!g_atomic_ref_count_dec (&allocator->references))
    return;

  free_idle (allocator);
  g_clear_pointer (&allocator->expected, ryx_diffmap_unref);
  for (RyxDiffmap *&changes : allocator->changes)
    g_clear_pointer (&changes, ryx_diffmap_unref);
  g_mutex_clear (&allocator->lock);
  g_free (allocator);
}

/* With the lock held. */
static IdleBuffer
take_idle (RyxAllocator *allocator, gsize size)
{
  if (allocator->idle_size != size)
    free_idle (allocator);
  allocator->idle_size = size;
  return allocator->n_idle > 0 ? allocator->idle[--allocator->n_idle] : IdleBuffer{ nullptr, no_image };
}

static gpointer
allocate (gsize size)
{
  const gsize alignment = size >= huge_page ? huge_page : vector_alignment;
  gpointer memory;

  /* An allocation of no bytes may be NULL, which would look like a failure. */
  if (posix_memalign (&memory, alignment, MAX (size, 1)) != 0)
    return nullptr;

  /* Frames are walked through from end to end all the time, which is faster in huge pages. The system
   * may not have any: this is advice. */
  if (alignment == huge_page)
    madvise (memory, size, MADV_HUGEPAGE);
  return memory;
}

gpointer
ryx_allocator_acquire (RyxAllocator *allocator, gsize size)
{
  g_return_val_if_fail (allocator, nullptr);

  g_mutex_lock (&allocator->lock);
  const IdleBuffer idle = take_idle (allocator, size);
  g_mutex_unlock (&allocator->lock);
  return idle.memory ? idle.memory : allocate (size);
}

/* What changed from an image to the last one. With the lock held. */
static RyxDiffmap *
collect_changes (RyxAllocator *allocator, guint64 image)
{
  if (image == no_image || allocator->last_image - image > n_remembered)
    return nullptr;

  g_autoptr (RyxDiffmap) collected = nullptr;
  for (guint64 next = allocator->last_image; next > image; next--)
    {
      RyxDiffmap *changes = allocator->changes[next % n_remembered];

      if (!changes || (collected && !ryx_diffmap_merge (collected, changes)))
        return nullptr;
      if (!collected && !(collected = ryx_diffmap_copy (changes)))
        return nullptr;
    }
  return g_steal_pointer (&collected);
}

ImageStorage
ryx_allocator_acquire_for_image (RyxAllocator *allocator, gsize size)
{
  g_mutex_lock (&allocator->lock);
  const IdleBuffer idle = take_idle (allocator, size);
  const guint64 image = ++allocator->last_image;
  RyxDiffmap *&changes = allocator->changes[image % n_remembered];
  g_clear_pointer (&changes, ryx_diffmap_unref);
  changes = g_steal_pointer (&allocator->expected);
  RyxDiffmap *changed = collect_changes (allocator, idle.image);
  g_mutex_unlock (&allocator->lock);

  auto *data = static_cast<guint8 *> (idle.memory ? idle.memory : allocate (size));
  return { data, image, changed };
}

static bool
keep_idle (RyxAllocator *allocator, const IdleBuffer &buffer, gsize size)
{
  g_autoptr (GMutexLocker) locker = g_mutex_locker_new (&allocator->lock);

  if (allocator->idle_size != size || allocator->n_idle == max_idle)
    return false;

  allocator->idle[allocator->n_idle++] = buffer;
  return true;
}

void
ryx_allocator_release (RyxAllocator *allocator, gpointer memory, gsize size)
{
  g_return_if_fail (allocator);

  if (memory && !keep_idle (allocator, { memory, no_image }, size))
    free (memory);
}

void
ryx_allocator_release_image (RyxAllocator *allocator, guint8 *data, gsize size, guint64 image)
{
  if (!keep_idle (allocator, { data, image }, size))
    free (data);
}

void
ryx_allocator_expect_changes (RyxAllocator *allocator, RyxDiffmap *changes)
{
  g_return_if_fail (allocator && changes);

  /* A copy: the map may be narrowed later on, when the frame data is looked at. */
  const gsize n_blocks = gsize{ ryx_diffmap_get_columns (changes) } * ryx_diffmap_get_rows (changes);
  RyxDiffmap *copy = n_blocks <= max_remembered_blocks ? ryx_diffmap_copy (changes) : nullptr;

  g_mutex_lock (&allocator->lock);
  std::swap (allocator->expected, copy);
  g_mutex_unlock (&allocator->lock);
  g_clear_pointer (&copy, ryx_diffmap_unref);
}
