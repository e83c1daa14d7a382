#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/timer.h"

namespace Cask {
namespace {

TEST(VirtualClockTest, MovesOnlyForwardAndAdvancesPerRead) {
    VirtualClock clock(5);
    clock.advanceTo(3);
    clock.advanceTo(never);
    EXPECT_EQ(clock.now(), 5);
    clock.advanceBy(2.5);
    EXPECT_EQ(clock.now(), 7.5);
    clock.advancePerReadIs(0.25);
    EXPECT_EQ(clock.now(), 7.5);
    EXPECT_EQ(clock.now(), 7.75);
    EXPECT_EQ(clock.now(), 8.0);
}

// Records the order in which named timers fire.
struct Fixture {
    VirtualClock clock;
    EventLoop loop{clock};
    std::string log;
    std::unique_ptr<Timer> timer(char name) {
        return std::make_unique<Timer>(loop, [this, name] { log += name; });
    }
};

TEST(EventLoopTest, FiresInTimeOrderThenArmingOrder) {
    // (name, time) in arming order; b is re-armed last, so it loses its place among the 2s.
    Fixture f;
    const std::vector<std::tuple<char, Seconds>> arms = {{'a', 2}, {'b', 2}, {'c', 1}, {'d', 3},
                                                         {'e', 2}, {'b', 2}, {'f', 0}};
    std::vector<std::unique_ptr<Timer>> timers(6);
    for (auto [name, t] : arms) {
        auto& timer = timers[name - 'a'];
        if (!timer) timer = f.timer(name);
        timer->timeMinIs(t);
    }
    f.loop.runUntil(2.5);
    EXPECT_EQ(f.log, "fcaeb");
    EXPECT_EQ(f.clock.now(), 2.5);
    EXPECT_EQ(f.loop.armedTimers(), 1u);
    EXPECT_EQ(f.loop.nextExpiry(), 3);
    EXPECT_TRUE(timers[3]->armed());
    f.loop.runUntilIdle();
    EXPECT_EQ(f.log, "fcaebd");
    EXPECT_EQ(f.clock.now(), 3);
}

TEST(EventLoopTest, PostedWorkRunsFifoBeforeTimersAndNextTurnWhenPostedMeanwhile) {
    Fixture f;
    auto t = f.timer('T');
    t->timeMinIs(0);
    f.loop.post([&] {
        f.log += '1';
        f.loop.post([&] { f.log += '3'; });
    });
    f.loop.post([&] { f.log += '2'; });
    EXPECT_TRUE(f.loop.runOnce());
    EXPECT_EQ(f.log, "12T");
    EXPECT_TRUE(f.loop.runOnce());
    EXPECT_FALSE(f.loop.runOnce());
    EXPECT_EQ(f.log, "12T3");
    EXPECT_EQ(f.loop.turns(), 2u);
}

// What a callback does to the timers of a turn in which a, b and c are all due at 1 (armed in
// that order) and d is due at 5. The first callback of `a` runs `act`.
TEST(EventLoopTest, CallbacksMayChangeOrDestroyAnyTimer) {
    struct Case {
        const char* what;
        void (*act)(Fixture&, std::vector<std::unique_ptr<Timer>>&);
        const char* firstTurn;  // what fires in the turn at 1
        const char* all;        // what has fired once the loop is idle
    };
    using Timers = std::vector<std::unique_ptr<Timer>>;
    const Case cases[] = {
        {"nothing", [](Fixture&, Timers&) {}, "abc", "abcd"},
        {"cancel a later due timer", [](Fixture&, Timers& t) { t[2]->cancel(); }, "ab", "abd"},
        {"set it to never", [](Fixture&, Timers& t) { t[1]->timeMinIs(never); }, "ac", "acd"},
        {"destroy a later due timer", [](Fixture&, Timers& t) { t[1].reset(); }, "ac", "acd"},
        {"destroy itself", [](Fixture&, Timers& t) { t[0].reset(); }, "abc", "abcd"},
        {"re-arm itself later", [](Fixture&, Timers& t) { t[0]->timeMinIs(3); }, "abc", "abcad"},
        {"re-arm itself now", [](Fixture& f, Timers& t) { t[0]->timeMinIs(f.loop.now()); }, "abc",
         "abcad"},
        {"re-arm a due timer later", [](Fixture&, Timers& t) { t[2]->timeMinIs(6); }, "ab", "abdc"},
        {"re-arm a due timer in the past", [](Fixture&, Timers& t) { t[2]->timeMinIs(0); }, "ab",
         "abcd"},
        {"pull a later timer forward", [](Fixture&, Timers& t) { t[3]->timeMinIs(1); }, "abc",
         "abcd"},
        {"destroy a later timer", [](Fixture&, Timers& t) { t[3].reset(); }, "abc", "abc"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Fixture f;
        Timers timers;
        for (char name : std::string("abcd")) timers.push_back(f.timer(name));
        timers[0] = std::make_unique<Timer>(f.loop, [&f, &timers, &c] {
            EXPECT_EQ(timers[0]->timeMin(), never);  // disarmed before its callback
            f.log += 'a';
            if (f.log.size() == 1) c.act(f, timers);
            EXPECT_FALSE(f.log.empty());  // captures outlive a timer destroyed here
        });
        for (int i = 0; i < 3; ++i) timers[i]->timeMinIs(1);
        timers[3]->timeMinIs(5);
        f.clock.advanceTo(1);
        EXPECT_TRUE(f.loop.runOnce());
        EXPECT_EQ(f.log, c.firstTurn);
        f.loop.runUntilIdle();
        EXPECT_EQ(f.log, c.all);
        EXPECT_EQ(f.loop.armedTimers(), 0u);
    }
}

TEST(EventLoopTest, TimerRearmedNowLetsPostedWorkIn) {
    Fixture f;
    int fired = 0;
    Timer spinner(f.loop, [&] {
        f.log += 'T';
        if (++fired == 1) f.loop.post([&] { f.log += 'P'; });
        if (fired < 5) spinner.timeMinIs(f.loop.now());
    });
    spinner.timeMinIs(0);
    EXPECT_TRUE(f.loop.runOnce());
    EXPECT_EQ(f.log, "T");  // the re-armed timer waits for the next turn
    f.loop.runUntil(1);
    EXPECT_EQ(f.log, "TPTTTT");
    EXPECT_EQ(f.loop.turns(), 5u);
}

TEST(EventLoopTest, ThousandsOfRandomTimersFireSorted) {
    for (unsigned seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(seed);
        VirtualClock clock;
        EventLoop loop(clock);
        std::mt19937 rng(seed);
        // Coarse times make many ties, which must break by (re-)arming order.
        std::uniform_int_distribution<int> time(0, 500);
        std::vector<std::tuple<Seconds, int, int>> expected;  // (time, arm order, id)
        std::vector<int> fired;
        std::vector<std::unique_ptr<Timer>> timers;
        const int n = 5000;
        for (int id = 0; id < n; ++id) {
            timers.push_back(std::make_unique<Timer>(loop, [&, id] {
                fired.push_back(id);
                EXPECT_EQ(clock.now(), std::get<0>(expected[fired.size() - 1]));
            }));
        }
        std::vector<std::tuple<Seconds, int>> last(n, {never, 0});
        for (int step = 0; step < 3 * n; ++step) {
            const int id = rng() % n;
            const Seconds t = rng() % 10 == 0 ? never : time(rng) / 10.0;
            timers[id]->timeMinIs(t);
            last[id] = {t, step};
        }
        for (int id = 0; id < n; ++id) {
            auto [t, order] = last[id];
            if (t != never) expected.emplace_back(t, order, id);
        }
        std::sort(expected.begin(), expected.end());
        ASSERT_EQ(loop.armedTimers(), expected.size());
        loop.runUntilIdle();
        ASSERT_EQ(fired.size(), expected.size());
        for (std::size_t i = 0; i < fired.size(); ++i)
            EXPECT_EQ(fired[i], std::get<2>(expected[i]));
    }
}

TEST(EventLoopTest, StopEndsRunAndTimersMayOutliveTheLoop) {
    auto clock = std::make_unique<VirtualClock>();
    auto loop = std::make_unique<EventLoop>(*clock);
    int ticks = 0;
    Timer periodic(*loop, [&] {
        periodic.timeMinIs(loop->now() + 1);
        if (++ticks == 3) loop->stop();
    });
    periodic.timeMinIs(1);
    loop->run();
    EXPECT_EQ(ticks, 3);
    EXPECT_EQ(clock->now(), 3);
    EXPECT_EQ(periodic.timeMin(), 4);
    loop.reset();
    EXPECT_FALSE(periodic.armed());  // and its destructor must not touch the loop
}

TEST(EventLoopTest, RealClockSleepsUntilExpiry) {
    SteadyClock clock;
    EventLoop loop(clock);
    Seconds firedAt = never;
    Timer timer(loop, [&] { firedAt = clock.now(); });
    timer.timeMinIs(0.002);
    loop.run();  // returns once idle
    EXPECT_GE(firedAt, 0.002);
    EXPECT_LT(firedAt, never);
}

TEST(EventLoopTest, LongestTurnIsMeasuredOnTheLoopClock) {
    Fixture f;
    f.clock.advancePerReadIs(0.5);
    f.loop.post([&] {
        for (int i = 0; i < 4; ++i) f.loop.now();
    });
    f.loop.runOnce();
    // The turn reads the clock at its start, 4 times in the work, and at its end.
    EXPECT_DOUBLE_EQ(f.loop.longestTurn(), 2.5);
}

TEST(EventLoopTest, EndOfTurnWorkRunsWhenEachCallbackHasReturned) {
    // Work queued at end of turn runs after the callback that queued it (and after the work it
    // queued in turn), before the next posted item, the next due timer and later timers.
    Fixture f;
    auto mark = [&f](char c) { return [&f, c] { f.log += c; }; };
    f.loop.atEndOfTurn(mark('0'));  // from outside: first thing of the next turn
    f.loop.post([&] {
        f.log += 'p';
        f.loop.atEndOfTurn([&] {
            f.log += 'e';
            f.loop.atEndOfTurn(mark('E'));
        });
        f.log += 'P';
    });
    f.loop.post(mark('q'));
    auto t1 = std::make_unique<Timer>(f.loop, [&] {
        f.log += 't';
        f.loop.atEndOfTurn(mark('x'));
    });
    auto t2 = f.timer('u');
    auto t3 = f.timer('v');
    t1->timeMinIs(1);
    t2->timeMinIs(1);
    t3->timeMinIs(2);
    EXPECT_EQ(f.loop.endOfTurnWork(), 1u);
    f.loop.runUntil(1);
    EXPECT_EQ(f.log, "0pPeEqtxu");
    EXPECT_EQ(f.loop.endOfTurnWork(), 0u);
    f.loop.runUntilIdle();
    EXPECT_EQ(f.log, "0pPeEqtxuv");
}

}  // namespace
}  // namespace Cask
