#include <algorithm>
#include <atomic>
#include <thread>

#include <gtest/gtest.h>
#include <gdk/gdkx.h>

#include "inputobserver.h"
#include "layout.h"
#include "sweep.h"

/* A reader that sets up, configures and takes two frames, as a host does: configuring again when it is asked to. */
class ReaderSubject : public SweepSubject
{
public:
  explicit ReaderSubject (const SweepStage &sweep_stage)
      : stage (sweep_stage), outputs (stage.painter.outputs ()),
        reader (stage.proxy.display (), outputs.empty () ? 0 : outputs[0]) /* which shows the whole screen */
  {
  }

  void
  use () override
  {
    is_set_up = reader.setup ();
    if (!is_set_up || !reader.configure () || !grab ())
      return;
    draw ();
    grab ();
  }

  void
  expect_works () override
  {
    is_set_up = is_set_up || reader.setup ();
    ASSERT_TRUE (is_set_up) << reader.failure;

    /* At most: shared memory given up, and the screen changed by the waker. */
    Frame frame;
    for (int tries = 0; tries < 4 && !frame; tries++)
      {
        if (reader.failure.starts_with ("EMPTY_FRAME") || reader.configure ())
          {
            draw ();
            frame = grab ();
          }
      }
    ASSERT_TRUE (frame) << reader.failure;
    EXPECT_EQ (pixels_of (frame.get ()), stage.painter.image (0, 0, 96, 64));
  }

private:
  void
  draw ()
  {
    stage.painter.fill (5, 5, 70, 3, colour += 0x010203);
  }

  /* A reader whose damage was lost would wait for ever; a host wakes it by saying that the screen changed. */
  Frame
  grab ()
  {
    std::atomic<bool> grabbed = false;
    std::thread waker ([&] {
      const gint64 deadline = g_get_monotonic_time () + G_USEC_PER_SEC;
      while (!grabbed && g_get_monotonic_time () < deadline)
        g_usleep (2000);
      if (!grabbed)
        {
          const uint8_t notify[32] = { XCB_CONFIGURE_NOTIFY | 0x80 };
          stage.proxy.insert (notify);
        }
    });
    Frame frame = reader.grab ();

    grabbed = true;
    waker.join ();
    return frame;
  }

  const SweepStage stage;
  const std::vector<uint32_t> outputs;
  TestReader reader;
  bool is_set_up = false;
  uint32_t colour = 0;
};

class EnumeratorSubject : public SweepSubject
{
public:
  explicit EnumeratorSubject (const SweepStage &) {}

  void
  use () override
  {
    enumerate_heads ();
  }
  void
  expect_works () override
  {
    EXPECT_NE (enumerate_heads ().find ("+0+0"), std::string::npos);
  }
};

template <typename Subject>
static std::unique_ptr<SweepSubject>
make (const SweepStage &stage)
{
  return std::make_unique<Subject> (stage);
}

class ReaderSweep : public testing::TestWithParam<Means>
{
protected:
  const MeansScope means{ GetParam ().dirty_region, GetParam ().shm_pixmaps };
  const SweepScenario scenario
    = { .name = GetParam ().name,
        .make = make<ReaderSubject>,
        .arguments = { "-screen", "0", "96x64x24", "-extension", GetParam ().missing_extension } };
};

TEST_P (ReaderSweep, SurvivesEveryFailedRequestAndEveryCut)
{
  sweep (scenario);
}

static const FuzzedReply reader_replies[] = {
  { "Setup", &Fuzz::change_setup },
  { "QueryExtension" },
  { "XFixesQueryVersion" },
  { "RRQueryVersion" },
  { "ShmQueryVersion" },
  { "DamageQueryVersion" },
  { "GetGeometry", &Fuzz::change_area },
  { "RRGetScreenResources" },
  { "RRGetCrtcInfo", &Fuzz::change_area },
  { "RRGetOutputInfo" },
  { "XFixesFetchRegion" },
  { "ShmGetImage" },
  { "GetImage" },
};

TEST_P (ReaderSweep, FuzzedRepliesAreNotBelieved)
{
  fuzz_replies (scenario, { std::begin (reader_replies), std::end (reader_replies) }, 40);
}

INSTANTIATE_TEST_SUITE_P (Of, ReaderSweep, testing::ValuesIn (all_means),
                          [] (const auto &info) { return std::string (info.param.name); });

struct LayoutChange
{
  const char *name, *from, *from_heads, *to;
  std::vector<std::string> exceptions; /* what else a failure may leave than the old layout or the new one, whole */
};

class LayoutSubject : public SweepSubject
{
public:
  LayoutSubject (const SweepStage &stage, const LayoutChange &layout_change)
      : observer (stage.painter), change (layout_change)
  {
  }

  void
  use () override
  {
    error = request_layout (change.to);
  }

  void
  expect_works () override
  {
    EXPECT_TRUE (observer.look ());
    const std::string left = observer.heads;
    EXPECT_EQ (request_layout (change.to), "");
    EXPECT_TRUE (observer.look ());
    EXPECT_TRUE (left == (error.empty () ? observer.heads : change.from_heads)
                 || std::ranges::count (change.exceptions, left) > 0)
      << left << " " << error;
  }

private:
  LayoutObserver observer;
  const LayoutChange &change;
  std::string error = "nothing was asked for";
};

static const char two[] = "1280x720+0+0 800x600+1280+0";
static const char two_heads[] = "2080x720: DUMMY0 1280x720+0+0, DUMMY1 800x600+1280+0";

/* An output that tells nothing is left out, a switch-off stops half-way, a mode that fails has a substitute. */
static const LayoutChange layout_changes[] = {
  { "same_size",
    two,
    two_heads,
    "800x600+0+0 1280x720+800+0",
    { "800x600: DUMMY0 800x600+0+0", "800x600: DUMMY1 800x600+0+0", "2080x720: DUMMY1 800x600+1280+0", "2080x720:" } },
  { "new_mode",
    two,
    two_heads,
    "1000x700+0+0 800x600+1000+0",
    { "1000x696: DUMMY0 1000x696+0+0", "1000x696: DUMMY1 1000x696+0+0", "2080x720: DUMMY1 800x600+1280+0",
      "2080x720:", "1800x696: DUMMY0 832x624+0+0, DUMMY1 800x600+1000+0" } },
  { "one_to_two",
    "1024x768+0+0",
    "1024x768: DUMMY0 1024x768+0+0",
    two,
    { "1280x720: DUMMY0 1280x720+0+0", "1280x720: DUMMY1 1280x720+0+0" } },
  { "two_to_one", two, two_heads, "1024x768+0+0", { "640x480:", "1024x768: DUMMY1 1024x768+0+0" } },
};

class LayoutSweep : public testing::TestWithParam<LayoutChange>
{
protected:
  const LayoutChange &change = GetParam ();
  const SweepScenario scenario
    = { .name = change.name,
        .make = [this] (const SweepStage &stage) { return std::make_unique<LayoutSubject> (stage, change); },
        .on_gdk = true,
        .kind = XServer::XORG_DUMMY,
        .arguments = {},
        .prepare = [this] (const SweepStage &stage) { LayoutObserver (stage.painter).arrange (change.from); } };
};

TEST_P (LayoutSweep, LeavesOneLayoutWholeWhicheverRequestFails)
{
  sweep (scenario);
}

TEST_P (LayoutSweep, FuzzedRepliesAreNotBelieved)
{
  fuzz_replies (scenario,
                { { "RRQueryVersion" },
                  { "RRGetScreenResources" },
                  { "RRGetCrtcInfo" },
                  { "RRGetOutputInfo" },
                  { "RRSetCrtcConfig" },
                  { "RRGetScreenSizeRange" },
                  { "RRCreateMode" },
                  { "GetGeometry" } },
                20);
}

INSTANTIATE_TEST_SUITE_P (Of, LayoutSweep, testing::ValuesIn (layout_changes),
                          [] (const auto &info) { return std::string (info.param.name); });

/* Holds a special key, types, clicks, and goes. Nothing may be down then, unless the connection was cut. */
class InjectorSubject : public SweepSubject
{
public:
  InjectorSubject (const SweepStage &sweep_stage, const char *held_key, const char *typed)
      : stage (sweep_stage), held (held_key), text (typed)
  {
  }

  void
  use () override
  {
    ryx_input_injector_channel_connected (injector.get (), 1);
    ryx_input_injector_special_key_event (injector.get (), held, RYX_INPUT_INJECTOR_KEY_LOCATION_LEFT, TRUE);
    type (injector, text, RYX_INPUT_INJECTOR_KEY_LOCATION_NUMPAD);
    for (bool down : { true, false })
      ryx_input_injector_button_event (injector.get (), 1, down);
    ryx_input_injector_special_key_event (injector.get (), held, RYX_INPUT_INJECTOR_KEY_LOCATION_LEFT, FALSE);
    ryx_input_injector_channel_disconnected (injector.get (), 1);

    /* What was added to the keymap is missing again next time. */
    KeySym none = NoSymbol;
    gdk_error_trap_push ();
    XChangeKeyboardMapping (gdk_x11_get_default_xdisplay (), 93, 1, &none, 1);
    settle ();
    gdk_error_trap_pop ();
  }

  void
  expect_works () override
  {
    EXPECT_TRUE (wait_until ([this] {
      const auto keyboard = X_REPLY (stage.painter.conn, query_keymap);
      const auto pointer = X_REPLY (stage.painter.conn, query_pointer, stage.painter.root);
      return pointer->mask == 0 && std::count (keyboard->keys, keyboard->keys + 32, 0) == 32;
    }))
      << "something is down";
    use ();
  }

private:
  const SweepStage stage;
  const char *const held, *const text;
  const TestInjector injector = create_injector ();
};

static SweepScenario
inject (const char *name, const char *held, const char *text)
{
  return { .name = name,
           .make = [=] (const SweepStage &stage) { return std::make_unique<InjectorSubject> (stage, held, text); },
           .on_gdk = true };
}

static const SweepScenario scenarios[] = {
  { .name = "enumerate",
    .make = make<EnumeratorSubject>,
    .on_gdk = true,
    .kind = XServer::XORG_DUMMY,
    .arguments = {} },
  inject ("type", "", "A!5é"),
  inject ("type_under_shift", "Shift", "1"),
  inject ("type_under_altgr", "AltGraph", "a"),
};

class ScenarioSweep : public testing::TestWithParam<SweepScenario>
{
};

TEST_P (ScenarioSweep, SurvivesEveryFailedRequestAndEveryCut)
{
  sweep (GetParam ());
}

INSTANTIATE_TEST_SUITE_P (Of, ScenarioSweep, testing::ValuesIn (scenarios),
                          [] (const auto &info) { return std::string (info.param.name); });

/* Xlib reads most of the injector's replies, and goes by their counts as they come: it waits for what is not sent, or
 * writes behind its memory. So these lie about other values only. */
static const std::vector<FuzzedReply> gdk_replies[] = {
  { { "RRQueryVersion" }, { "RRGetScreenResources" }, { "RRGetCrtcInfo" }, { "RRGetOutputInfo" }, { "GetGeometry" } },
  { { "GetKeyboardMapping" },
    { "XkbGetControls", &Fuzz::change_values },
    { "GetKeyboardControl", &Fuzz::change_values },
    { "GetPointerMapping", &Fuzz::change_values } },
};

TEST_P (ScenarioSweep, FuzzedRepliesAreNotBelieved)
{
  fuzz_replies (GetParam (), gdk_replies[strcmp (GetParam ().name, "enumerate") != 0], 40);
}
