// The player's loop run headless: a clock that moves only when the loop sleeps, events from a
// script keyed by that clock, and a presentation that records which frame each present showed.
// Files are first-generation clips of mixed content written to a scratch folder.
#include "player/player_loop.h"
#include "player/player_options.h"
#include "reader/velmo_handle.h"
#include "support/files.h"
#include "support/velmo1_mixed_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

namespace {

// The test's time: moved by the loop's sleeps on the main thread, read by the library's async
// workers as well.
std::atomic<uint32_t> FakeMs{1000};
uint32_t FakeClock() { return FakeMs.load(); }

struct Shown {
  uint32_t Frame;
  bool Seeking;
  bool Paused;
  uint32_t At;
  bool Card;  // the end-card's
};

struct ScriptedEvent {
  uint32_t At;  // ms after the start
  PlayerEvent Event;
};

struct FakeHost {
  uint32_t Start = FakeMs;
  std::vector<ScriptedEvent> Script;
  size_t NextEvent = 0;
  std::vector<Shown> Presents;
  std::vector<std::string> Setups;
  uint32_t SliderAnswer = 0;
  uint32_t SleepCalls = 0;
  // Each setup: whether it was the end-card's, the picture's planned size, the statistics.
  struct Setup {
    bool Card;
    int32_t Width, Height;
    bool Statistics;
    uint32_t At;
  };
  std::vector<Setup> SetupViews;
  bool RefuseCard = false;         // the end-card's setup fails
  std::vector<std::string> Pages;  // addresses asked to be opened
  bool SetupWorks = true;
  bool HasDisplayMode = true;       // the display can switch to the mode asked
  std::vector<std::string> Display;  // display mode calls, with the setups between them


  static FakeHost* Of(void* c) { return static_cast<FakeHost*>(c); }
  PlayerHost Host() {
    PlayerHost h;
    h.Context = this;
    h.Now = [](void*) { return FakeMs.load(); };
    h.Sleep = [](void* c, uint32_t ms) {
      ++Of(c)->SleepCalls;
      FakeMs += ms;
    };
    h.NextEvent = [](void* c, PlayerEvent* e) {
      FakeHost* f = Of(c);
      if (f->NextEvent >= f->Script.size() || FakeMs - f->Start < f->Script[f->NextEvent].At)
        return false;
      *e = f->Script[f->NextEvent++].Event;
      return true;
    };
    h.Setup = [](void* c, PlayerState* s) {
      FakeHost* f = Of(c);
      f->Setups.push_back(s->FileTitle);
      f->Display.push_back("setup");
      const PlayerWindowPlan plan = PlayerPlanWindow(s->Options, int32_t(s->Handle->Width),
                                                     int32_t(s->Handle->Height), 1024, 768);
      f->SetupViews.push_back({s->EndCard, plan.VideoWidth, plan.VideoHeight,
                               s->Options.Statistics, FakeMs - f->Start});
      if (!f->SetupWorks) s->Error = "no presentation";
      return f->SetupWorks && !(s->EndCard && f->RefuseCard);
    };
    h.SwitchDisplay = [](void* c, int32_t w, int32_t hgt) {
      Of(c)->Display.push_back("switch " + std::to_string(w) + "x" + std::to_string(hgt));
      return Of(c)->HasDisplayMode;
    };
    h.RestoreDisplay = [](void* c) { Of(c)->Display.push_back("restore"); };
    h.Present = [](void* c, PlayerState* s) {
      Of(c)->Presents.push_back(
          {s->ShownFrame, s->Seeking != 0, s->Paused, FakeMs - Of(c)->Start, s->EndCard});
    };
    h.OpenPage = [](void* c, const char* address) { Of(c)->Pages.push_back(address); };
    h.SliderFrame = [](void* c, const PlayerState*, int32_t, int32_t) { return Of(c)->SliderAnswer; };
    h.AsyncThreadCount = 2;
    return h;
  }
  void At(uint32_t ms, PlayerEventType type, int32_t value = 0) {
    PlayerEvent e;
    e.Type = type;
    e.Value = value;
    Script.push_back({ms, e});
  }
  void Key(uint32_t ms, PlayerKey key) { At(ms, PlayerEventKey, key); }
  void Mouse(uint32_t ms, int32_t x, int32_t y) {
    At(ms, PlayerEventMouseMove);
    Script.back().Event.X = x;
    Script.back().Event.Y = y;
  }
  // The frames of the files shown when no seek was passing over them.
  std::vector<uint32_t> Frames() const {
    std::vector<uint32_t> out;
    for (const Shown& s : Presents)
      if (!s.Seeking && !s.Card) out.push_back(s.Frame);
    return out;
  }
  size_t CardPresents() const {
    size_t n = 0;
    for (const Shown& s : Presents) n += s.Card;
    return n;
  }
  uint32_t Elapsed() const { return FakeMs - Start; }
};

std::vector<uint32_t> Span(uint32_t first, uint32_t last) {
  std::vector<uint32_t> v;
  for (uint32_t i = first; i <= last; ++i) v.push_back(i);
  return v;
}

std::vector<uint32_t> Joined(std::vector<std::vector<uint32_t>> parts) {
  std::vector<uint32_t> v;
  for (auto& p : parts) v.insert(v.end(), p.begin(), p.end());
  return v;
}

class PlayerLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeMs = 1000;
    VelmoSetClockForTest(FakeClock);
  }
  void TearDown() override { VelmoSetClockForTest(nullptr); }

  std::string Clip(const std::string& name, uint32_t frames, uint32_t keyEvery = 4) {
    const std::string path = dir / name;
    velmo_test::FilePlan plan = velmo_test::MixedFirstGenerationPlan(64, 48, frames, keyEvery);
    test_support::WriteFile(path, velmo_test::BuildFile(plan));
    return path;
  }
  // Reads `line` as the command line, with reads on the loop's thread so that no frame waits
  // for the read-ahead thread while the fake clock stands.
  int Play(const std::string& line, FakeHost* host) {
    std::vector<char> text(line.begin(), line.end());
    text.resize(line.size() + 256, 0);
    EXPECT_TRUE(PlayerReadLine(text.data(), text.size(), "", &state.Options, &state.Names));
    state.Options.OpenFlags |= VelmoOpenNoBackground;
    return PlayerRun(&state, host->Host());
  }

  test_support::ScratchDir dir;
  PlayerState state;
};

TEST_F(PlayerLoopTest, PlaysEachFrameOnceInTimeAndEnds) {
  const std::string clip = Clip("a.vlm", 12);
  FakeHost host;
  EXPECT_EQ(Play(clip, &host), 0) << state.Error;
  EXPECT_EQ(host.Frames(), Span(1, 12));
  EXPECT_EQ(host.Setups, std::vector<std::string>{"a.vlm"});
  // At 30 frames a second, frame n is due (n - 1) / 30 s after the first: the loop sleeps
  // through the gaps instead of presenting early.
  for (const Shown& s : host.Presents) EXPECT_GE(s.At + 1, (s.Frame - 1) * 1000 / 30) << s.Frame;
  EXPECT_LE(host.Presents.back().At, 12 * 1000 / 30 + 50);
  EXPECT_GT(host.SleepCalls, 100u);
  EXPECT_EQ(state.Handle, nullptr);
}

// A bare /F plays as fast as possible: no frame waits for its time.
TEST_F(PlayerLoopTest, BareForcedRatePlaysAsFastAsPossible) {
  const std::string clip = Clip("a.vlm", 12);
  FakeHost host;
  EXPECT_EQ(Play(clip + " /F", &host), 0) << state.Error;
  EXPECT_EQ(host.Frames(), Span(1, 12));
  EXPECT_LT(host.Presents.back().At, 12u * 1000 / 30 / 4) << "frames waited for a rate";
}

TEST_F(PlayerLoopTest, NamesWithoutExtensionAndLoopsThenTheNextFile) {
  Clip("one.vlm", 5);
  Clip("two.vm2", 3);
  FakeHost host;
  EXPECT_EQ(Play(dir / "one" + " " + dir / "two" + " /L2", &host), 0) << state.Error;
  EXPECT_EQ(host.Frames(), Joined({Span(1, 5), Span(1, 5), Span(1, 3), Span(1, 3)}));
  EXPECT_EQ(host.Setups, (std::vector<std::string>{"one.vlm", "two.vm2"}));
}

TEST_F(PlayerLoopTest, RepeatAllStartsTheListAnew) {
  const std::string a = Clip("a.vlm", 2), b = Clip("b.vlm", 3);
  FakeHost host;
  state.RepeatAll = 2;
  EXPECT_EQ(Play(a + " " + b, &host), 0);
  EXPECT_EQ(host.Frames(), Joined({Span(1, 2), Span(1, 3), Span(1, 2), Span(1, 3)}));
}

TEST_F(PlayerLoopTest, OneFrameFileShowsItAndEnds) {
  FakeHost host;
  EXPECT_EQ(Play(Clip("one.vlm", 1), &host), 0);
  EXPECT_EQ(host.Frames(), std::vector<uint32_t>{1});
}

TEST_F(PlayerLoopTest, OpenFailureEndsWithTheLibrarysText) {
  FakeHost host;
  EXPECT_EQ(Play(dir / "missing", &host), 1);
  EXPECT_FALSE(state.Error.empty());
  EXPECT_TRUE(host.Presents.empty());
}

TEST_F(PlayerLoopTest, PauseStopsFramesAndSleepsMore) {
  const std::string clip = Clip("a.vlm", 12);
  FakeHost host;
  host.Key(100, PlayerKeySpace);
  host.Key(1100, PlayerKeySpace);
  EXPECT_EQ(Play(clip, &host), 0);
  EXPECT_EQ(host.Frames(), Span(1, 12));
  for (const Shown& s : host.Presents) EXPECT_TRUE(s.At < 140 || s.At >= 1100) << s.At;
  // Paused turns sleep 5 ms more each: about 200 sleeps cover the second, not 1000.
  EXPECT_LT(host.SleepCalls, 700u);
  EXPECT_GE(host.Presents.back().At, 1100u);
}

TEST_F(PlayerLoopTest, SeekingByKeysLandsOnTheTargets) {
  const std::string clip = Clip("a.vlm", 12, 4);
  FakeHost host;
  host.Key(50, PlayerKeyEnd);
  host.Key(200, PlayerKeyHome);
  host.Key(300, PlayerKeyRight);
  host.Key(400, PlayerKeyRight);
  host.Key(500, PlayerKeyRight);
  host.Key(600, PlayerKeyLeft);
  host.Key(700, PlayerKeyEscape);
  EXPECT_EQ(Play(clip, &host), 0);
  std::vector<uint32_t> shown = host.Frames();
  ASSERT_GE(shown.size(), 7u);
  // The frames played before the first key, then each seek's target once.
  EXPECT_EQ(std::vector<uint32_t>(shown.end() - 6, shown.end()),
            (std::vector<uint32_t>{12, 1, 2, 3, 4, 3}));
  // Back from 4 to 3 goes through the key frame: frames 1 and 2 pass while seeking; back from 3
  // to 2 passes frame 1.
  uint32_t passed = 0;
  for (const Shown& s : host.Presents) passed += s.Seeking;
  EXPECT_GT(passed, 0u);
  EXPECT_TRUE(state.Paused);
}

TEST_F(PlayerLoopTest, SliderClickSeeksAndOtherClicksPause) {
  const std::string clip = Clip("a.vlm", 12);
  FakeHost host;
  host.SliderAnswer = 9;
  host.At(50, PlayerEventClick);
  host.Key(100, PlayerKeyEscape);
  EXPECT_EQ(Play(clip, &host), 0);
  EXPECT_EQ(host.Frames().back(), 9u);
  EXPECT_TRUE(state.Paused);

  PlayerState second;
  state = second;
  FakeHost plain;
  plain.At(50, PlayerEventClick);
  plain.Key(100, PlayerKeyEscape);
  EXPECT_EQ(Play(clip, &plain), 0);
  EXPECT_TRUE(state.Paused);
  EXPECT_LE(plain.Frames().back(), 4u);
}

TEST_F(PlayerLoopTest, DisabledControls) {
  const std::string a = Clip("a.vlm", 6), b = Clip("b.vlm", 6);
  {
    FakeHost host;  // /U2: "." does not skip
    host.Key(20, PlayerKeyDot);
    EXPECT_EQ(Play(a + " " + b + " /U2", &host), 0);
    EXPECT_EQ(host.Frames(), Joined({Span(1, 6), Span(1, 6)}));
  }
  {
    state = PlayerState{};
    FakeHost host;  // "." goes to the next file at once
    host.Key(20, PlayerKeyDot);
    EXPECT_EQ(Play(a + " " + b, &host), 0);
    EXPECT_LT(host.Frames().size(), 12u);
    EXPECT_EQ(host.Setups.size(), 2u);
  }
  {
    state = PlayerState{};
    FakeHost host;  // /U4: Escape does not quit
    host.Key(20, PlayerKeyEscape);
    EXPECT_EQ(Play(a + " /U4", &host), 0);
    EXPECT_EQ(host.Frames(), Span(1, 6));
  }
  {
    state = PlayerState{};
    FakeHost host;  // /U1: Escape is a click, which pauses; a second one goes on
    host.Key(20, PlayerKeyEscape);
    host.Key(500, PlayerKeyEscape);
    EXPECT_EQ(Play(a + " /U1", &host), 0);
    EXPECT_EQ(host.Frames(), Span(1, 6));
    EXPECT_GE(host.Presents.back().At, 500u);
  }
}

TEST_F(PlayerLoopTest, ExposureAndBackgroundKeys) {
  const std::string clip = Clip("a.vlm", 3);
  FakeHost host;
  for (int i = 0; i < 7; ++i) host.Key(1, PlayerKeyUp);
  host.Key(1, PlayerKeyBackground);
  EXPECT_EQ(Play(clip, &host), 0);
  EXPECT_EQ(state.Exposure, PlayerExposureHigh);
  EXPECT_TRUE(state.LightBackground);
  state = PlayerState{};
  FakeHost down;
  for (int i = 0; i < 45; ++i) down.Key(1, PlayerKeyDown);
  EXPECT_EQ(Play(clip, &down), 0);
  EXPECT_EQ(state.Exposure, PlayerExposureLow);
}

TEST_F(PlayerLoopTest, SummaryIsFormedBeforeTheClose) {
  FakeHost host;
  EXPECT_EQ(Play(Clip("a.vlm", 8) + " /S", &host), 0);
  EXPECT_NE(state.Summary.find("Video: 64 x 48 at 30.0 frames/sec\nTotal frames: 8\n"),
            std::string::npos)
      << state.Summary;
  EXPECT_NE(state.Summary.find("Total frames played: 8\n"), std::string::npos) << state.Summary;
}

TEST_F(PlayerLoopTest, FocusLossPausesWithJ) {
  const std::string clip = Clip("a.vlm", 12);
  FakeHost host;
  host.At(60, PlayerEventFocus, 0);
  host.At(900, PlayerEventFocus, 1);
  EXPECT_EQ(Play(clip + " /J", &host), 0);
  EXPECT_EQ(host.Frames(), Span(1, 12));
  for (const Shown& s : host.Presents) EXPECT_TRUE(s.At < 100 || s.At >= 900) << s.At;
}

// ---- The end-card ------------------------------------------------------------------------------

class PlayerEndCardTest : public PlayerLoopTest {
 protected:
  // Registers a 48 x 32 clip of `frames` frames, held in memory, as the end-card.
  void GiveCard(uint32_t frames) {
    card = velmo_test::BuildFile(velmo_test::MixedFirstGenerationPlan(48, 32, frames));
    state.EndCardClip = card.data();
    state.EndCardSize = card.size();
  }
  // When the card's setup came, and how long it stood until the player left.
  uint32_t CardStart(const FakeHost& host) const {
    for (const FakeHost::Setup& v : host.SetupViews)
      if (v.Card) return v.At;
    ADD_FAILURE() << "no end-card";
    return 0;
  }
  uint32_t CardTime(const FakeHost& host) const { return host.Elapsed() - CardStart(host); }

  std::vector<uint8_t> card;
};

TEST_F(PlayerEndCardTest, FollowsTheLastFileAtItsOwnSizeForItsTime) {
  const std::string a = Clip("a.vlm", 6), b = Clip("b.vlm", 4);
  GiveCard(12);
  FakeHost host;
  EXPECT_EQ(Play(a + " " + b + " /Q /W-2 /H-2 /S", &host), 0) << state.Error;
  // Both files whole, then the card; never between the files.
  EXPECT_EQ(host.Frames(), Joined({Span(1, 6), Span(1, 4)}));
  ASSERT_EQ(host.SetupViews.size(), 3u);
  EXPECT_FALSE(host.SetupViews[1].Card);
  const FakeHost::Setup& view = host.SetupViews[2];
  EXPECT_TRUE(view.Card);
  EXPECT_FALSE(view.Statistics);
  EXPECT_EQ(view.Width, 48);
  EXPECT_EQ(view.Height, 32);
  EXPECT_EQ(host.SetupViews[0].Width, 128);  // the files themselves as asked, twice their size
  size_t firstCard = host.Presents.size();
  for (size_t i = 0; i < host.Presents.size(); ++i)
    if (host.Presents[i].Card) firstCard = std::min(firstCard, i);
  for (size_t i = firstCard; i < host.Presents.size(); ++i) {
    EXPECT_TRUE(host.Presents[i].Card) << i;
    EXPECT_FALSE(host.Presents[i].Paused) << i;
  }
  // It shows for its time, a frame each turn of at most 100 ms of sleep, looping as it must.
  EXPECT_GE(CardTime(host), PlayerEndCardMs);
  EXPECT_LE(CardTime(host), PlayerEndCardMs + 100);
  EXPECT_GE(host.CardPresents(), 15u);
  EXPECT_LE(host.CardPresents(), PlayerEndCardMs / 100 + 2);
  EXPECT_EQ(state.QuitState, 0);
  EXPECT_EQ(state.Handle, nullptr);
  // The summary is the last file's, not the card's.
  EXPECT_NE(state.Summary.find("Total frames: 4\n"), std::string::npos) << state.Summary;
}

TEST_F(PlayerEndCardTest, AClickOpensTheMakersPageOnlyWhenOneIsSet) {
  const std::string a = Clip("a.vlm", 6);
  for (const std::string page : {"", "https://example.org/velmo"}) {
    SCOPED_TRACE(page);
    state = PlayerState{};
    GiveCard(12);
    state.MakerPage = page;
    FakeHost host;
    host.At(900, PlayerEventClick);
    host.At(1200, PlayerEventClick);
    EXPECT_EQ(Play(a, &host), 0);
    if (page.empty())
      EXPECT_TRUE(host.Pages.empty());
    else
      EXPECT_EQ(host.Pages, std::vector<std::string>(2, page + "?from=velmoplay64&ver=2020.06.2"));
    // The clicks do not end the card, nor pause it.
    EXPECT_GE(CardTime(host), PlayerEndCardMs);
    EXPECT_FALSE(host.Presents.back().Paused);
  }
}

TEST_F(PlayerEndCardTest, AQuittingKeyOrTheCloseBoxEndsIt) {
  const std::string a = Clip("a.vlm", 6);
  struct Case {
    PlayerEventType Type;
    int32_t Key;
    const char* Line;
    bool Ends;
  };
  for (const Case& c : {Case{PlayerEventKey, PlayerKeyEscape, "", true},
                        Case{PlayerEventClose, 0, "", true},
                        Case{PlayerEventKey, PlayerKeyEscape, " /U4", false},
                        Case{PlayerEventKey, PlayerKeySpace, "", false},
                        Case{PlayerEventKey, PlayerKeyDot, "", false}}) {
    SCOPED_TRACE(std::to_string(int(c.Type)) + " " + std::to_string(c.Key) + c.Line);
    state = PlayerState{};
    GiveCard(12);
    FakeHost host;
    host.At(900, c.Type, c.Key);
    EXPECT_EQ(Play(a + c.Line, &host), 0);
    if (c.Ends) {
      EXPECT_EQ(state.QuitState, 2);
      EXPECT_LT(host.Elapsed(), 900u + 101);
      EXPECT_LT(CardTime(host), PlayerEndCardMs);
    } else {
      EXPECT_EQ(state.QuitState, 0);
      EXPECT_GE(CardTime(host), PlayerEndCardMs);
    }
  }
}

TEST_F(PlayerEndCardTest, ACardThatCannotBeShownEndsThePlayerAtOnce) {
  const std::string a = Clip("a.vlm", 6);
  const std::vector<uint8_t> junk(4096, 0x5a);
  for (int kind = 0; kind < 3; ++kind) {
    SCOPED_TRACE(kind);
    state = PlayerState{};
    FakeHost host;
    if (kind == 0) {  // not a Velmo file
      state.EndCardClip = junk.data();
      state.EndCardSize = junk.size();
    } else if (kind == 1) {  // the program carries none
      state.EndCardClip = nullptr;
    } else {  // it opens, but the window cannot show it
      GiveCard(12);
      host.RefuseCard = true;
    }
    EXPECT_EQ(Play(a, &host), 0) << state.Error;
    EXPECT_TRUE(state.Error.empty()) << state.Error;
    EXPECT_EQ(host.Frames(), Span(1, 6));
    EXPECT_EQ(host.CardPresents(), 0u);
    EXPECT_LE(host.Elapsed(), host.Presents.back().At + 101);
    EXPECT_EQ(state.Handle, nullptr);
  }
}

// /D and /B together switch the display before the first file is set up, and every way out of
// the run puts the mode back: the end, an open failure, a presentation that cannot be made.
TEST_F(PlayerLoopTest, DisplayModeIsSwitchedForTheRunAndAlwaysRestored) {
  const std::string clip = Clip("a.vlm", 3);
  using Calls = std::vector<std::string>;
  {
    FakeHost host;
    EXPECT_EQ(Play(clip + " /D800 /B600", &host), 0);
    EXPECT_EQ(host.Display, (Calls{"switch 800x600", "setup", "restore"}));
    EXPECT_EQ(host.Frames(), Span(1, 3));
  }
  for (const char* one : {" /D800", " /B600"}) {
    state = PlayerState{};
    FakeHost host;
    EXPECT_EQ(Play(clip + one, &host), 0);
    EXPECT_EQ(host.Display, Calls{"setup"}) << "both are needed:" << one;
  }
  {
    state = PlayerState{};
    FakeHost host;  // a mode the display does not have: nothing to put back
    host.HasDisplayMode = false;
    EXPECT_EQ(Play(clip + " /D640 /B480", &host), 0);
    EXPECT_EQ(host.Display, (Calls{"switch 640x480", "setup"}));
  }
  {
    state = PlayerState{};
    FakeHost host;
    EXPECT_EQ(Play(dir / "missing" + " /D640 /B480", &host), 1);
    EXPECT_EQ(host.Display, (Calls{"switch 640x480", "restore"}));
  }
  {
    state = PlayerState{};
    FakeHost host;
    host.SetupWorks = false;
    EXPECT_EQ(Play(clip + " /D640 /B480", &host), 1);
    EXPECT_EQ(host.Display, (Calls{"switch 640x480", "setup", "restore"}));
    EXPECT_TRUE(host.Presents.empty());
  }
  {
    state = PlayerState{};
    FakeHost host;  // quitting with two names left
    host.Key(20, PlayerKeyEscape);
    EXPECT_EQ(Play(clip + " " + clip + " " + clip + " /D640 /B480", &host), 0);
    EXPECT_EQ(host.Display, (Calls{"switch 640x480", "setup", "restore"}));
  }
}

// "h" steps through the three HDR looks and back to the first; it is a character key, so
// /U1 leaves it alone instead of taking it as a click.
TEST_F(PlayerLoopTest, LookKeyStepsThroughTheHdrLooks) {
  const std::string clip = Clip("a.vlm", 3);
  for (const int presses : {0, 1, 2, 3, 4}) {
    SCOPED_TRACE(presses);
    state = PlayerState{};
    FakeHost host;
    for (int i = 0; i < presses; ++i) host.Key(1, PlayerKeyLook);
    EXPECT_EQ(Play(clip + " /U1", &host), 0);
    EXPECT_EQ(state.HdrLook, (1 + presses) % PlayerHdrLooks);
    EXPECT_FALSE(state.Paused);
    EXPECT_EQ(host.Frames(), Span(1, 3));
  }
}

// A screen saver's first frame comes 501 ms after the start, a plain run's at once; the run
// ends on the sixth movement of the mouse to another place, not on reports of the same place.
TEST_F(PlayerLoopTest, ScreenSaverWaitsBeforeItsFirstFrameAndEndsOnMovements) {
  const std::string clip = Clip("a.vlm", 30);
  {
    FakeHost host;
    EXPECT_EQ(Play(clip, &host), 0);
    ASSERT_FALSE(host.Presents.empty());
    EXPECT_LT(host.Presents.front().At, 50u);
  }
  {
    state = PlayerState{};
    state.ScreenSaver = 1;
    FakeHost host;
    host.Mouse(10, 50, 50);  // where the pointer was when the saver started
    for (uint32_t i = 1; i <= 5; ++i) {
      host.Mouse(600 + 20 * i, 50 + int32_t(i), 50);
      host.Mouse(610 + 20 * i, 50 + int32_t(i), 50);
    }
    host.Mouse(800, 40, 40);
    EXPECT_EQ(Play(clip, &host), 0);
    ASSERT_FALSE(host.Presents.empty());
    EXPECT_GE(host.Presents.front().At, PlayerSaverStartDelay);
    EXPECT_LT(host.Presents.front().At, PlayerSaverStartDelay + 40);
    EXPECT_EQ(host.Frames().front(), 1u);
    // Frames go on through the five movements and stop at the sixth, at 800 ms.
    EXPECT_EQ(state.SaverMoves, 6);
    EXPECT_GE(host.Presents.back().At, 700u);
    EXPECT_LE(host.Presents.back().At, 800u);
    EXPECT_LT(host.Frames().size(), 30u);
  }
}

}  // namespace
