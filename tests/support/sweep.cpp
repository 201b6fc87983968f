#include "sweep.h"

#include <optional>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "logrecorder.h"

/* A child has none of its parent's threads, so that what they own looks leaked there. LeakSanitizer asks this. */
static bool is_child = false;

extern "C" __attribute__ ((visibility ("default"))) int
__lsan_is_turned_off ()
{
  return is_child;
}

class Sweep
{
public:
  explicit Sweep (const SweepScenario &swept)
      : scenario (swept), server (swept.kind, swept.arguments), painter (server.display ()), proxy (server)
  {
    load_module ();
    if (scenario.on_gdk)
      gdk.emplace (proxy.display ());
  }

  void
  run ()
  {
    /* What a connection asks only once is asked before. */
    if (gdk)
      scenario.make (stage)->use ();

    prepare ();
    const std::vector<std::string> requests = proxy.record ([&] { scenario.make (stage)->use (); });
    ASSERT_FALSE (requests.empty ());
    ASSERT_FALSE (testing::Test::HasFailure ());

    for (unsigned n = 0; n < requests.size (); n++)
      {
        /* The protocol has no error for these; Xlib ends the process, and else nothing could be done about one. */
        if (requests[n] == "UngrabServer" || (scenario.on_gdk && requests[n] == "GrabServer"))
          continue;

        SCOPED_TRACE (requests[n] + " (request " + std::to_string (n) + ") answered with BadAlloc");
        run_failing (n);
        if (testing::Test::HasFailure ())
          return;
      }

    gdk.reset ();
    for (unsigned n = 0; n < requests.size (); n++)
      {
        SCOPED_TRACE ("connection cut at " + requests[n] + " (request " + std::to_string (n) + ")");
        if (scenario.on_gdk)
          run_cut_in_child (n);
        else
          run_cut (n);
        if (testing::Test::HasFailure ())
          return;
      }
  }

  void
  fuzz (const std::vector<FuzzedReply> &replies, unsigned n_rounds)
  {
    for (Fuzz rounds (n_rounds); rounds.next () && !testing::Test::HasFailure ();)
      {
        const FuzzedReply &reply = rounds.one_of (replies);
        const auto nth = unsigned (rounds.pick (0, 1) ? 1 : rounds.pick (2, 4));
        LogRecorder log (G_LOG_LEVEL_ERROR);

        prepare ();
        proxy.add ({ .request = reply.request, .nth = nth, .edit = [=] (Bytes &bytes) mutable {
                      (rounds.*reply.change) (bytes);
                    } });
        scenario.make (stage)->use ();
        proxy.clear ();
        expect_order (log);
        prepare ();
        scenario.make (stage)->expect_works ();
      }
  }

private:
  void
  prepare ()
  {
    if (scenario.prepare)
      scenario.prepare (stage);
  }

  void
  run_failing (unsigned n)
  {
    prepare ();
    LogRecorder log (G_LOG_LEVEL_ERROR);
    {
      const unsigned rule = proxy.add ({ .nth = n + 1, .error = XCB_ALLOC });
      const auto subject = scenario.make (stage);
      subject->use ();
      expect_no_grab ();
      EXPECT_EQ (proxy.hits (rule), 1u) << "the request did not come";
      proxy.remove (rule);
      subject->expect_works ();
    }
    expect_order (log);
  }

  void
  run_cut (unsigned n)
  {
    prepare ();
    LogRecorder log (G_LOG_LEVEL_ERROR);
    const unsigned rule = proxy.add ({ .nth = n + 1, .cut = true });

    scenario.make (stage)->use ();
    proxy.remove (rule);
    expect_order (log);
  }

  void
  run_cut_in_child (unsigned n)
  {
    int status = 0;

    prepare ();
    const pid_t child = fork ();
    if (child == 0)
      {
        LogRecorder log (G_LOG_LEVEL_ERROR);
        is_child = true;
        new GdkDisplayScope (proxy.display ()); /* Xlib ends the process without unwinding the stack */
        raise (SIGSTOP);                        /* until the proxy waits for its requests */
        scenario.make (stage)->use ();
        _exit (testing::Test::HasFailure () ? 2 : 0);
      }

    waitpid (child, &status, WUNTRACED);
    ASSERT_TRUE (WIFSTOPPED (status)) << "status " << status;
    const unsigned rule = proxy.add ({ .nth = n + 1, .cut = true });
    kill (child, SIGCONT);
    waitpid (child, &status, 0);
    proxy.remove (rule);

    EXPECT_TRUE (WIFEXITED (status) && WEXITSTATUS (status) < 2) /* 1: Xlib lost its connection */
      << "status " << status;
    expect_no_grab ();
  }

  void
  expect_no_grab ()
  {
    EXPECT_TRUE (painter.round_trip (5000)) << "the server is still grabbed";
  }

  void
  expect_order (const LogRecorder &log)
  {
    expect_no_grab ();
    EXPECT_TRUE (wait_until ([&] { return count_segments () == 0; })) << "a segment is left";
    EXPECT_FALSE (log.contains (nullptr, G_LOG_LEVEL_CRITICAL, "")) << log.dump ();
    for (const char *domain : { "GLib", "GLib-GObject", "GLib-GIO", "Gdk" })
      EXPECT_FALSE (log.contains (domain, G_LOG_LEVEL_WARNING, "")) << log.dump ();
  }

  const SweepScenario &scenario;
  XServer server;
  Painter painter;
  FaultProxy proxy;
  std::optional<GdkDisplayScope> gdk;
  const SweepStage stage{ proxy, painter };
};

std::ostream &
operator<< (std::ostream &stream, const SweepScenario &scenario)
{
  return stream << scenario.name;
}

void
sweep (const SweepScenario &scenario)
{
  Sweep (scenario).run ();
}

void
fuzz_replies (const SweepScenario &scenario, const std::vector<FuzzedReply> &replies, unsigned n_rounds)
{
  Sweep (scenario).fuzz (replies, n_rounds);
}
