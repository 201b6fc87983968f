#include "logrecorder.h"

#include <algorithm>
#include <mutex>

#include <string.h>

/* Recursive: a writer of messages may itself be logged about. */
static std::recursive_mutex mutex;
static std::vector<LogRecorder *> recorders;

static std::string
field_value (const GLogField *fields, gsize n_fields, const char *key)
{
  const auto found = std::find_if (fields, fields + n_fields, [&] (auto &field) { return !strcmp (field.key, key); });
  return found == fields + n_fields ? "" : static_cast<const char *> (found->value);
}

GLogWriterOutput
LogRecorder::write (GLogLevelFlags level, const GLogField *fields, gsize n_fields, gpointer)
{
  std::lock_guard lock (mutex);
  const auto plain_level = GLogLevelFlags (level & G_LOG_LEVEL_MASK);
  bool wanted = true;

  for (auto recorder : recorders)
    {
      recorder->messages.push_back (
        { field_value (fields, n_fields, "GLIB_DOMAIN"), plain_level, field_value (fields, n_fields, "MESSAGE") });
      /* The lower the bit, the graver the message. */
      wanted = wanted && plain_level <= recorder->printed;
    }
  return wanted ? g_log_writer_default (level, fields, n_fields, nullptr) : G_LOG_WRITER_HANDLED;
}

LogRecorder::LogRecorder (GLogLevelFlags printed) : printed (printed)
{
  /* GLib takes a writer once and for all. */
  static std::once_flag once;
  std::call_once (once, [] { g_log_set_writer_func (write, nullptr, nullptr); });

  std::lock_guard lock (mutex);
  recorders.push_back (this);
}

LogRecorder::~LogRecorder ()
{
  std::lock_guard lock (mutex);
  recorders.erase (std::find (recorders.begin (), recorders.end (), this));
}

unsigned
LogRecorder::count (const char *domain, GLogLevelFlags level, const char *text) const
{
  std::lock_guard lock (mutex);
  return std::count_if (messages.begin (), messages.end (), [&] (const Message &message) {
    return (!domain || message.domain == domain) && message.level == level
           && message.text.find (text) != std::string::npos;
  });
}

void
LogRecorder::clear ()
{
  std::lock_guard lock (mutex);
  messages.clear ();
}

std::string
LogRecorder::dump () const
{
  std::lock_guard lock (mutex);
  std::string lines;

  for (const auto &message : messages)
    lines += message.domain + " [" + std::to_string (message.level) + "] " + message.text + "\n";
  return lines;
}
