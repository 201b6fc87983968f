#pragma once

#include <ryx/rect.h>

G_BEGIN_DECLS

#define RYX_TYPE_DISPLAY_HEAD (ryx_display_head_get_type ())

/**
 * RyxDisplayHead:
 *
 * One monitor of a display: a name, its place on the screen and the RandR output behind it.
 * References are counted atomically.
 */
typedef struct _RyxDisplayHead RyxDisplayHead;

/**
 * ryx_display_head_get_type:
 *
 * Returns: the boxed type of heads.
 */
RYX_API GType ryx_display_head_get_type (void);

/**
 * ryx_display_head_new:
 * @name: its name; copied
 * @rect: its place on the screen in pixels; copied
 * @primary: whether it is the primary head
 *
 * Makes a head.
 *
 * Returns: (transfer full): a new head with output id 0.
 */
RYX_API RyxDisplayHead *ryx_display_head_new (const gchar *name, const RyxRect *rect, gboolean primary);

/**
 * ryx_display_head_ref:
 * @head: a head
 *
 * Takes a reference.
 *
 * Returns: (transfer full): @head, with one more reference.
 */
RYX_API RyxDisplayHead *ryx_display_head_ref (RyxDisplayHead *head);

/**
 * ryx_display_head_unref:
 * @head: (transfer full): a head
 *
 * Drops a reference.
 */
RYX_API void ryx_display_head_unref (RyxDisplayHead *head);

/**
 * ryx_display_head_set_output_id:
 * @head: a head that no other thread uses yet
 * @output_id: RandR output id, 0 for none
 *
 * Says which output shows the head.
 */
RYX_API void ryx_display_head_set_output_id (RyxDisplayHead *head, guint32 output_id);

/**
 * ryx_display_head_get_name:
 * @head: a head
 *
 * Tells what a head is called.
 *
 * Returns: (transfer none): its name.
 */
RYX_API const gchar *ryx_display_head_get_name (RyxDisplayHead *head);

/**
 * ryx_display_head_get_rect:
 * @head: a head
 * @rect: (out caller-allocates): its place on the screen in pixels
 *
 * Copies the head's rectangle.
 */
RYX_API void ryx_display_head_get_rect (RyxDisplayHead *head, RyxRect *rect);

/**
 * ryx_display_head_get_primary:
 * @head: a head
 *
 * Tells whether a head is the primary one.
 *
 * Returns: whether it is the primary head.
 */
RYX_API gboolean ryx_display_head_get_primary (RyxDisplayHead *head);

/**
 * ryx_display_head_get_output_id:
 * @head: a head
 *
 * Tells which output shows a head.
 *
 * Returns: the RandR output id, 0 when there is none. A reader captures this head when its
 *   `output-id` property has this value.
 */
RYX_API guint32 ryx_display_head_get_output_id (RyxDisplayHead *head);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (RyxDisplayHead, ryx_display_head_unref)

G_END_DECLS
