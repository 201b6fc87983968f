#pragma once

#include "command.h"

/* An injector with a channel of its own, for as long as a command runs; with the channel goes what it held down. Its
 * keys are strokes: they are up again when the call returns, but for modifiers. */
class InjectorSession
{
public:
  InjectorSession () = default;
  ~InjectorSession ();
  InjectorSession (const InjectorSession &) = delete;
  InjectorSession &operator= (const InjectorSession &) = delete;

  /* Opens the display, too. */
  gboolean open (GError **error);

  /* A character that no key made has been added to the keyboard map when this returns, and typed. */
  void type (const gchar *character);
  void press (const gchar *key_name);
  void release (const gchar *key_name);
  void strike (const gchar *key_name);

  /* FALSE with @error set when a signal has ended the loop. */
  gboolean check_interruption (GError **error) const;

  InterruptibleLoop loop;
  RyxInputInjector *injector = nullptr;

private:
  void settle ();
};
