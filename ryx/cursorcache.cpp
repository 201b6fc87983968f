#include <ryx/cursorcache.h>

struct _RyxCursorCache
{
  GObject parent_instance;

  guint size;
  GQueue by_use;     /* owned cursors, the one used last first */
  GHashTable *links; /* cursor id to its link in by_use */
};

G_DEFINE_FINAL_TYPE (RyxCursorCache, ryx_cursor_cache, G_TYPE_OBJECT)

static RyxCursor *
cursor_of (GList *link)
{
  return static_cast<RyxCursor *> (link->data);
}

static GList *
find_link (RyxCursorCache *cache, guint64 id)
{
  return static_cast<GList *> (g_hash_table_lookup (cache->links, &id));
}

static void
drop_link (RyxCursorCache *cache, GList *link)
{
  guint64 id = ryx_cursor_get_id (cursor_of (link));

  g_hash_table_remove (cache->links, &id);
  ryx_cursor_unref (cursor_of (link));
  g_queue_delete_link (&cache->by_use, link);
}

static guint64
evict_least_recently_used (RyxCursorCache *cache)
{
  GList *oldest = g_queue_peek_tail_link (&cache->by_use);
  const guint64 id = ryx_cursor_get_id (cursor_of (oldest));

  drop_link (cache, oldest);
  return id;
}

static void
ryx_cursor_cache_finalize (GObject *object)
{
  RyxCursorCache *cache = RYX_CURSOR_CACHE (object);

  ryx_cursor_cache_clear (cache);
  g_hash_table_unref (cache->links);
  G_OBJECT_CLASS (ryx_cursor_cache_parent_class)->finalize (object);
}

static void
ryx_cursor_cache_class_init (RyxCursorCacheClass *klass)
{
  G_OBJECT_CLASS (klass)->finalize = ryx_cursor_cache_finalize;
}

static void
ryx_cursor_cache_init (RyxCursorCache *cache)
{
  cache->links = g_hash_table_new_full (g_int64_hash, g_int64_equal, g_free, nullptr);
  g_queue_init (&cache->by_use);
}

RyxCursorCache *
ryx_cursor_cache_new (guint size)
{
  g_return_val_if_fail (size > 0, nullptr);

  auto *cache = RYX_CURSOR_CACHE (g_object_new (RYX_TYPE_CURSOR_CACHE, nullptr));
  cache->size = size;
  return cache;
}

RyxCursor *
ryx_cursor_cache_get (RyxCursorCache *cache, guint64 id)
{
  GList *link = find_link (cache, id);
  if (!link)
    return nullptr;

  g_queue_unlink (&cache->by_use, link);
  g_queue_push_head_link (&cache->by_use, link);
  return cursor_of (link);
}

guint64
ryx_cursor_cache_add (RyxCursorCache *cache, RyxCursor *cursor)
{
  const guint64 id = ryx_cursor_get_id (cursor);
  guint64 evicted = 0;

  ryx_cursor_ref (cursor);
  if (GList *same = find_link (cache, id))
    drop_link (cache, same);
  else if (cache->by_use.length == cache->size)
    evicted = evict_least_recently_used (cache);

  g_queue_push_head (&cache->by_use, cursor);
  g_hash_table_insert (cache->links, g_memdup2 (&id, sizeof id), cache->by_use.head);
  return evicted;
}

void
ryx_cursor_cache_clear (RyxCursorCache *cache)
{
  g_hash_table_remove_all (cache->links);
  g_queue_clear_full (&cache->by_use, reinterpret_cast<GDestroyNotify> (ryx_cursor_unref));
}
