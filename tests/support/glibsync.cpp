/* Linked into programs that run under ThreadSanitizer: GLib is not instrumented, and its locks and counters are futexes
 * and atomics that the sanitizer does not see. The calls of them are told to it here. */

#include <dlfcn.h>
#include <glib-object.h>
#include <sanitizer/tsan_interface.h>

template <typename Function>
static Function *
next (Function *, const char *name)
{
  return reinterpret_cast<Function *> (dlsym (RTLD_NEXT, name));
}
#define NEXT(function) next (function, #function)

extern "C"
{

  void
  g_mutex_lock (GMutex *mutex)
  {
    static const auto lock = NEXT (g_mutex_lock);
    lock (mutex);
    __tsan_acquire (mutex);
  }

  void
  g_mutex_unlock (GMutex *mutex)
  {
    static const auto unlock = NEXT (g_mutex_unlock);
    __tsan_release (mutex);
    unlock (mutex);
  }

  gboolean (g_atomic_ref_count_dec) (gatomicrefcount *count)
  {
    static const auto decrement = NEXT (g_atomic_ref_count_dec);
    __tsan_release (count);
    const gboolean is_last = decrement (count);
    if (is_last)
      __tsan_acquire (count);
    return is_last;
  }

  void
  g_object_unref (gpointer object)
  {
    static const auto unref = NEXT (g_object_unref);
    __tsan_release (object);
    __tsan_acquire (object); /* by the last one's call the object is finalized */
    unref (object);
  }
}
