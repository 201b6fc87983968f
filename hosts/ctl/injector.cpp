#include "injector.h"

static const guint channel_id = 1;

InjectorSession::~InjectorSession ()
{
  if (!injector)
    return;

  ryx_input_injector_channel_disconnected (injector, channel_id);
  g_object_unref (injector);
}

gboolean
InjectorSession::open (GError **error)
{
  if (!open_session (error))
    return FALSE;

  /* Without autorepeat a key needs no release. The user's own setting is not touched: this one stays in memory. */
  g_setenv ("GSETTINGS_BACKEND", "memory", TRUE);
  g_autoptr (GSettings) settings = ryx_settings_new ("com.quorlane.ryx.input");
  g_settings_set_boolean (settings, "enable-autorepeat", FALSE);

  gpointer object = ryx_host_create (RYX_INPUT_INJECTOR_EXTENSION_POINT, nullptr, error, nullptr);
  if (!object)
    return FALSE;

  injector = RYX_INPUT_INJECTOR (object);
  ryx_input_injector_channel_connected (injector, channel_id);
  return TRUE;
}

/* The injector waits for the server when it changes the keyboard map, so the announcement of the change lies here
 * unread; reading it types the character. */
void
InjectorSession::settle ()
{
  while (g_main_context_iteration (nullptr, FALSE))
    ;
}

void
InjectorSession::type (const gchar *character)
{
  ryx_input_injector_key_event (injector, character, RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD, TRUE);
  settle ();
}

void
InjectorSession::press (const gchar *key_name)
{
  ryx_input_injector_special_key_event (injector, key_name, RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD, TRUE);
  settle ();
}

void
InjectorSession::release (const gchar *key_name)
{
  ryx_input_injector_special_key_event (injector, key_name, RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD, FALSE);
}

void
InjectorSession::strike (const gchar *key_name)
{
  press (key_name);
  release (key_name);
}

gboolean
InjectorSession::check_interruption (GError **error) const
{
  if (!loop.was_interrupted ())
    return TRUE;

  g_set_error_literal (error, G_IO_ERROR, G_IO_ERROR_CANCELLED, "Interrupted");
  return FALSE;
}
