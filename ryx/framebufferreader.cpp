#include <ryx/framebufferreader.h>

struct RyxFrameBufferReaderPrivate
{
  guint32 screen_id;
  gchar *screen_name;
  guint32 output_id;
  guint32 block_size;
  gint32 diffmap_refine_threshold;
};

G_DEFINE_ABSTRACT_TYPE_WITH_PRIVATE (RyxFrameBufferReader, ryx_frame_buffer_reader, G_TYPE_OBJECT)

enum
{
  PROP_SCREEN_ID = 1,
  PROP_SCREEN_NAME,
  PROP_OUTPUT_ID,
  PROP_BLOCK_SIZE,
  PROP_DIFFMAP_REFINE_THRESHOLD,
  N_PROPS,
};

static RyxFrameBufferReaderPrivate *
private_of (RyxFrameBufferReader *reader)
{
  return static_cast<RyxFrameBufferReaderPrivate *> (ryx_frame_buffer_reader_get_instance_private (reader));
}

static void
ryx_frame_buffer_reader_get_property (GObject *object, guint property_id, GValue *value, GParamSpec *pspec)
{
  const RyxFrameBufferReaderPrivate *priv = private_of (RYX_FRAME_BUFFER_READER (object));

  switch (property_id)
    {
    case PROP_SCREEN_ID:
      g_value_set_uint (value, priv->screen_id);
      break;
    case PROP_SCREEN_NAME:
      g_value_set_string (value, priv->screen_name);
      break;
    case PROP_OUTPUT_ID:
      g_value_set_uint (value, priv->output_id);
      break;
    case PROP_BLOCK_SIZE:
      g_value_set_uint (value, priv->block_size);
      break;
    case PROP_DIFFMAP_REFINE_THRESHOLD:
      g_value_set_int (value, priv->diffmap_refine_threshold);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID (object, property_id, pspec);
    }
}

static void
ryx_frame_buffer_reader_set_property (GObject *object, guint property_id, const GValue *value, GParamSpec *pspec)
{
  RyxFrameBufferReaderPrivate *priv = private_of (RYX_FRAME_BUFFER_READER (object));

  switch (property_id)
    {
    case PROP_SCREEN_ID:
      priv->screen_id = g_value_get_uint (value);
      break;
    case PROP_SCREEN_NAME:
      g_free (priv->screen_name);
      priv->screen_name = g_value_dup_string (value);
      break;
    case PROP_OUTPUT_ID:
      priv->output_id = g_value_get_uint (value);
      break;
    case PROP_BLOCK_SIZE:
      priv->block_size = g_value_get_uint (value);
      break;
    case PROP_DIFFMAP_REFINE_THRESHOLD:
      priv->diffmap_refine_threshold = g_value_get_int (value);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID (object, property_id, pspec);
    }
}

static void
ryx_frame_buffer_reader_finalize (GObject *object)
{
  g_free (private_of (RYX_FRAME_BUFFER_READER (object))->screen_name);
  G_OBJECT_CLASS (ryx_frame_buffer_reader_parent_class)->finalize (object);
}

static void
ryx_frame_buffer_reader_class_init (RyxFrameBufferReaderClass *klass)
{
  constexpr auto flags = static_cast<GParamFlags> (G_PARAM_READWRITE | G_PARAM_CONSTRUCT | G_PARAM_STATIC_STRINGS);
  GObjectClass *object_class = G_OBJECT_CLASS (klass);
  GParamSpec *properties[N_PROPS] = {
    nullptr,
    g_param_spec_uint ("screen-id", nullptr, "Id stamped into the frames", 0, G_MAXUINT, 0, flags),
    g_param_spec_string ("screen-name", nullptr, "Name of the screen in log lines", nullptr, flags),
    g_param_spec_uint ("output-id", nullptr, "RandR output to capture, 0 for the whole screen", 0, G_MAXUINT, 0, flags),
    g_param_spec_uint ("block-size", nullptr, "Edge of a block of the change maps in pixels", 1, G_MAXUINT, 64, flags),
    g_param_spec_int ("diffmap-refine-threshold", nullptr, "Damaged blocks above which pixels are compared, -1: never",
                      -1, G_MAXINT, 0, flags),
  };

  object_class->get_property = ryx_frame_buffer_reader_get_property;
  object_class->set_property = ryx_frame_buffer_reader_set_property;
  object_class->finalize = ryx_frame_buffer_reader_finalize;
  g_object_class_install_properties (object_class, N_PROPS, properties);
}

static void
ryx_frame_buffer_reader_init (RyxFrameBufferReader *)
{
}

gboolean
ryx_frame_buffer_reader_setup (RyxFrameBufferReader *reader, GError **error)
{
  g_return_val_if_fail (RYX_IS_FRAME_BUFFER_READER (reader), FALSE);
  return RYX_FRAME_BUFFER_READER_GET_CLASS (reader)->setup (reader, error);
}

gboolean
ryx_frame_buffer_reader_configure (RyxFrameBufferReader *reader, GError **error)
{
  g_return_val_if_fail (RYX_IS_FRAME_BUFFER_READER (reader), FALSE);
  return RYX_FRAME_BUFFER_READER_GET_CLASS (reader)->configure (reader, error);
}

RyxCapturedFrame *
ryx_frame_buffer_reader_grab_frame (RyxFrameBufferReader *reader, GError **error)
{
  g_return_val_if_fail (RYX_IS_FRAME_BUFFER_READER (reader), nullptr);
  return RYX_FRAME_BUFFER_READER_GET_CLASS (reader)->grab_frame (reader, error);
}

guint32
ryx_frame_buffer_reader_get_screen_id (RyxFrameBufferReader *reader)
{
  return private_of (reader)->screen_id;
}

const gchar *
ryx_frame_buffer_reader_get_screen_name (RyxFrameBufferReader *reader)
{
  return private_of (reader)->screen_name;
}

guint32
ryx_frame_buffer_reader_get_output_id (RyxFrameBufferReader *reader)
{
  return private_of (reader)->output_id;
}

guint32
ryx_frame_buffer_reader_get_block_size (RyxFrameBufferReader *reader)
{
  return private_of (reader)->block_size;
}

gint32
ryx_frame_buffer_reader_get_diffmap_refine_threshold (RyxFrameBufferReader *reader)
{
  return private_of (reader)->diffmap_refine_threshold;
}
