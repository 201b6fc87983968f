#pragma once

#include <string>
#include <vector>

#include <glib.h>

/* Collects the log messages of every domain and thread while it lives, the structured ones too. */
class LogRecorder
{
public:
  /* Messages less severe than `printed` are recorded only. */
  explicit LogRecorder (GLogLevelFlags printed = G_LOG_LEVEL_CRITICAL);
  ~LogRecorder ();
  LogRecorder (const LogRecorder &) = delete;

  /* How many messages of that domain (NULL: any) and level hold the text. */
  unsigned count (const char *domain, GLogLevelFlags level, const char *text) const;
  bool
  contains (const char *domain, GLogLevelFlags level, const char *text) const
  {
    return count (domain, level, text) > 0;
  }

  void clear ();

  /* All that was recorded, a line each, for a failure message. */
  std::string dump () const;

private:
  struct Message
  {
    std::string domain;
    GLogLevelFlags level;
    std::string text;
  };

  static GLogWriterOutput write (GLogLevelFlags level, const GLogField *fields, gsize n_fields, gpointer);

  const GLogLevelFlags printed;
  std::vector<Message> messages;
};
