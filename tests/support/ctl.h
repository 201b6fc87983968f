#pragma once

#include <string>
#include <vector>

#include <gio/gio.h>

/* One run of ryxctl, against the module of this build. */
class CtlRun
{
public:
  /* `display` NULL: none is named. `output_file` NULL: standard output goes to `out`. */
  CtlRun (const char *display, const std::vector<std::string> &arguments, const char *output_file = nullptr);
  ~CtlRun ();
  CtlRun (const CtlRun &) = delete;

  /* To its standard input, which ends with the object. */
  void write (const std::string &text);
  void end_input ();
  void interrupt ();
  pid_t pid () const;

  /* Waits until the program has ended; -1 when it did not end by itself. */
  int status ();

  /* Complete once the program has ended. */
  std::string out, err;

  /* Waits until standard output holds so many lines. */
  bool wait_for_lines (unsigned n);

private:
  const int output, errors; /* files that the program writes into */
  GSubprocess *process;
};
