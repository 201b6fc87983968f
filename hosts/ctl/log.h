#pragma once

/* From now on, log lines go to standard error, down to the level that the options ask for. */
void set_up_log ();

/* While it lives, log lines wait. A terminal on the display can't take them while the server is grabbed, and a full one
 * would hold up the grab. */
class LogDelay
{
public:
  LogDelay ();
  ~LogDelay ();
  LogDelay (const LogDelay &) = delete;
  LogDelay &operator= (const LogDelay &) = delete;
};
