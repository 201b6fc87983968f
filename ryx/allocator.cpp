#include <ryx/allocator.h>

#include <stdlib.h>
#include <sys/mman.h>

/* What a reader keeps to compare with and what its host sends fit into this many. */
static constexpr guint MAX_IDLE = 2;

/* A cache line; also the widest vector that encoders load aligned. */
static constexpr gsize ALIGNMENT = 64;

static constexpr gsize HUGE_PAGE = 2 << 20;

struct _RyxAllocator
{
  gatomicrefcount references;
  GMutex lock;

  /* Guarded by the lock. */
  gpointer idle[MAX_IDLE];
  guint n_idle;
  gsize idle_size; /* the size last asked for, which all idle buffers have */
};

G_DEFINE_BOXED_TYPE (RyxAllocator, ryx_allocator, ryx_allocator_ref, ryx_allocator_unref)

static void
free_idle (RyxAllocator *allocator)
{
  while (allocator->n_idle > 0)
    free (allocator->idle[--allocator->n_idle]);
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
  g_mutex_clear (&allocator->lock);
  g_free (allocator);
}

static gpointer
take_idle (RyxAllocator *allocator, gsize size)
{
  g_autoptr (GMutexLocker) locker = g_mutex_locker_new (&allocator->lock);

  if (allocator->idle_size != size)
    free_idle (allocator);
  allocator->idle_size = size;
  return allocator->n_idle > 0 ? allocator->idle[--allocator->n_idle] : nullptr;
}

static gpointer
allocate (gsize size)
{
  const gsize alignment = size >= HUGE_PAGE ? HUGE_PAGE : ALIGNMENT;
  gpointer memory;

  /* An allocation of no bytes may be NULL, which would look like a failure. */
  if (posix_memalign (&memory, alignment, MAX (size, 1)) != 0)
    return nullptr;

  /* Frames are walked through from end to end all the time, which is faster in huge pages. The system
   * may not have any: this is advice. */
  if (alignment == HUGE_PAGE)
    madvise (memory, size, MADV_HUGEPAGE);
  return memory;
}

gpointer
ryx_allocator_acquire (RyxAllocator *allocator, gsize size)
{
  g_return_val_if_fail (allocator, nullptr);

  gpointer memory = take_idle (allocator, size);
  if (memory)
    return memory;
  return allocate (size);
}

static bool
keep_idle (RyxAllocator *allocator, gpointer memory, gsize size)
{
  g_autoptr (GMutexLocker) locker = g_mutex_locker_new (&allocator->lock);

  if (allocator->idle_size != size || allocator->n_idle == MAX_IDLE)
    return false;

  allocator->idle[allocator->n_idle++] = memory;
  return true;
}

void
ryx_allocator_release (RyxAllocator *allocator, gpointer memory, gsize size)
{
  g_return_if_fail (allocator);

  if (memory && !keep_idle (allocator, memory, size))
    free (memory);
}
