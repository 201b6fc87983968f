#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "capture.h"
#include "faultproxy.h"
#include "fuzz.h"
#include "xserver.h"

/* What a scenario works with. */
struct SweepStage
{
  FaultProxy &proxy;
  Painter &painter; /* connected to the server itself */
};

/* Drives a host through a part of the module. Whatever goes wrong on the way must be reported as the host's contract
 * says; the subject checks that itself. */
class SweepSubject
{
public:
  virtual ~SweepSubject () = default;

  /* Does its work once. Any request may fail. */
  virtual void use () = 0;

  /* The connection lives and nothing fails any more: the same objects must work again. */
  virtual void
  expect_works ()
  {
    use ();
  }
};

struct SweepScenario
{
  const char *name;
  std::function<std::unique_ptr<SweepSubject> (const SweepStage &)> make;
  bool on_gdk = false; /* works on GDK's display, whose loss ends the process */
  XServer::Kind kind = XServer::XVFB;
  std::vector<std::string> arguments = { "-screen", "0", "96x64x24" };

  /* Brings the server to the state that each run begins with. */
  std::function<void (const SweepStage &)> prepare = {};
};

std::ostream &operator<< (std::ostream &stream, const SweepScenario &scenario);

/* Runs the scenario once for each request of its undisturbed run with that request answered by an X error, and once
 * with the connection cut there; then checks what must always hold. */
void sweep (const SweepScenario &scenario);

/* What the server may tell instead of the truth. */
struct FuzzedReply
{
  const char *request;
  void (Fuzz::*change) (Bytes &reply) = &Fuzz::change;
};

/* Runs the scenario again and again with one of these replies changed at random. It may fail in any way that its
 * subject allows, must leave the server in order, and another subject must work afterwards. */
void fuzz_replies (const SweepScenario &scenario, const std::vector<FuzzedReply> &replies, unsigned n_rounds);
