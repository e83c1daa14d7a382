// IntfStateSm, driven by the downstream join states as a machine plugs them in: the order of
// leave, write-through and enter; the " --> " trace lines; timers on virtual time; restart
// jitter; destruction with timers armed.
#include "pimsm/common/intf_state_sm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/format_probe.h"
#include "cask/random.h"
#include "cask/trace.h"
#include "pimsm/route/intf.h"

namespace {

using namespace Routing::Pim::SparseMode;
using Cask::Seconds;

constexpr Seconds holdTime = 210;
constexpr Seconds overrideInterval = 3;

// The downstream join states: the expiry timer runs from joined on, the prune-pending timer
// while prunePending. The log records the hooks and the record's notification, in order.
class JoinExample : public Intf::Notifiee, public IntfStateSm<JoinExample, JoinState> {
public:
    JoinExample(Cask::EventLoop& loop, Intf& intf, std::vector<std::string>& log)
        : Intf::Notifiee(&intf), loop_(loop), intf_(intf), log_(log) {}

    void handleJoinState() override {
        log_.push_back(fmt::format("record {}", intf_.joinState()));
        if (onRecord) onRecord(intf_.joinState());
    }

    std::function<void()> onExpiry;           // replaces the expiry handler's default
    std::function<void(JoinState)> onEnter;   // runs after the default enter action
    std::function<void(JoinState)> onRecord;  // runs when the record is written

private:
    friend class IntfStateSm<JoinExample, JoinState>;

    JoinState intfState() const { return intf_.joinState(); }
    void intfStateIs(JoinState s) { intf_.joinStateIs(s); }
    static const char* stateName(JoinState s) { return enumName(s); }
    void doLeaveState(JoinState old) {
        log_.push_back(fmt::format("leave {}", old));
        if (old == JoinState::prunePending) doStopTimer(IntfTimer::prunePending);
    }
    void doEnterState(JoinState next) {
        log_.push_back(fmt::format("enter {}", next));
        if (next == JoinState::joined) doArmTimer(IntfTimer::expiry, loop_.now() + holdTime);
        if (next == JoinState::prunePending) {
            doArmTimer(IntfTimer::prunePending, loop_.now() + overrideInterval);
        }
        if (next == JoinState::noInfo) doStopTimer(IntfTimer::expiry);
        if (onEnter) onEnter(next);
    }
    void handleExpiryTimer() {
        log_.push_back("expiry fired");
        if (onExpiry) {
            auto handler = onExpiry;  // it may destroy this machine
            return handler();
        }
        doChangeState(JoinState::noInfo,
                      traceText(6, "Expiry timer expired, downstream join state "));
    }
    void handlePrunePendingTimer() {
        log_.push_back("prune-pending fired");
        doChangeState(JoinState::noInfo,
                      traceText(6, "Prune pending timer expired, downstream join state "));
    }
    Cask::EventLoop& loop() const { return loop_; }
    std::string_view vrfName() const { return "red"; }

    Cask::EventLoop& loop_;
    Intf& intf_;
    std::vector<std::string>& log_;
};

// Both timers stopped cost two pointers: a Cask::Timer held by value would cost far more.
static_assert(sizeof(IntfStateSm<JoinExample, JoinState>) == 2 * sizeof(void*));

class IntfStateSmTest : public ::testing::Test {
protected:
    bool armed(IntfTimer t) const { return sm->timerArmed(t); }

    Cask::VirtualClock clock;
    Cask::EventLoop loop{clock};
    Cask::Ptr<Intf> intf = Cask::make<Intf>(nullptr, Wirl::IntfId("Ethernet1"));
    std::vector<std::string> log;
    std::unique_ptr<JoinExample> sm = std::make_unique<JoinExample>(loop, *intf, log);
};

TEST_F(IntfStateSmTest, TransitionsRunLeaveWriteEnterAndNothingWhenUnchanged) {
    using enum JoinState;
    struct Case {
        JoinState from, to;
        bool expiryArmed, prunePendingArmed;
    };
    const Case cases[] = {
        {noInfo, joined, true, false},       {joined, prunePending, true, true},
        {prunePending, joined, true, false}, {prunePending, noInfo, false, false},
        {joined, noInfo, false, false},      {noInfo, noInfo, false, false},
        {joined, joined, true, false},       {prunePending, prunePending, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(fmt::format("{} --> {}", c.from, c.to));
        sm = std::make_unique<JoinExample>(loop, *intf, log);
        intf->joinStateIs(noInfo);
        if (c.from != noInfo) sm->doChangeState(joined);
        if (c.from == prunePending) sm->doChangeState(prunePending);
        ASSERT_EQ(intf->joinState(), c.from);
        // Time moves, so that an enter action run again would move a deadline.
        clock.advanceBy(1);
        const Seconds expiry = sm->timerDeadline(IntfTimer::expiry);
        const Seconds prunePending = sm->timerDeadline(IntfTimer::prunePending);
        log.clear();

        EXPECT_EQ(sm->doChangeState(c.to), c.from != c.to);
        // A change leaves the old state, writes the record, then enters the new one.
        const std::vector<std::string> calls =
            c.from == c.to ? std::vector<std::string>{}
                           : std::vector<std::string>{fmt::format("leave {}", c.from),
                                                      fmt::format("record {}", c.to),
                                                      fmt::format("enter {}", c.to)};
        EXPECT_EQ(log, calls);
        EXPECT_EQ(intf->joinState(), c.to);
        EXPECT_EQ(armed(IntfTimer::expiry), c.expiryArmed);
        EXPECT_EQ(armed(IntfTimer::prunePending), c.prunePendingArmed);
        EXPECT_EQ(loop.armedTimers(), size_t{c.expiryArmed} + size_t{c.prunePendingArmed});
        if (c.from == c.to) {
            EXPECT_EQ(sm->timerDeadline(IntfTimer::expiry), expiry);
            EXPECT_EQ(sm->timerDeadline(IntfTimer::prunePending), prunePending);
        }
    }
}

// An enter action that moves on (a Join gone after a restart expires at once), and a watcher
// of the record that moves the state during the write, both end in the last state, with the
// timers of that state only.
TEST_F(IntfStateSmTest, StateChangedAgainDuringTheChangeEndsInTheLastState) {
    using enum JoinState;
    sm->onEnter = [&](JoinState s) {
        if (s == joined) sm->doChangeState(noInfo);
    };
    sm->doChangeState(joined);
    EXPECT_EQ(log, (std::vector<std::string>{"leave noInfo", "record joined", "enter joined",
                                             "leave joined", "record noInfo", "enter noInfo"}));
    EXPECT_EQ(intf->joinState(), noInfo);
    EXPECT_FALSE(armed(IntfTimer::expiry));

    sm->onEnter = nullptr;
    sm->onRecord = [&](JoinState s) {
        if (s == joined) sm->doChangeState(noInfo);
    };
    log.clear();
    sm->doChangeState(joined);
    EXPECT_EQ(log, (std::vector<std::string>{"leave noInfo", "record joined", "leave joined",
                                             "record noInfo", "enter noInfo"}));
    EXPECT_EQ(intf->joinState(), noInfo);
    EXPECT_FALSE(armed(IntfTimer::expiry));
}

TEST_F(IntfStateSmTest, TraceLinesShowOldAndNewStateAndAreFormattedOnlyWhenWritten) {
    auto& ring = Cask::trace();
    ring.clear();
    Cask::eventLog().clear();
    ring.levelIs(6);
    Cask::eventLog().levelIs(4);  // another test may have turned it off
    sm->doChangeState(JoinState::joined);
    const std::string key = " (10.0.0.1, 239.1.1.1)";
    sm->doChangeState(JoinState::noInfo,
                      traceText(6, "Expiry timer expired, downstream join state "),
                      eventText("DownstreamWcSgSm: Expiry timer expired on interface {} on "
                                "route{}, flags: , join state: ",
                                intf->intfId(), key)
                          .tail(" "));
    ASSERT_FALSE(ring.lines().empty());
    ASSERT_FALSE(Cask::eventLog().lines().empty());
    EXPECT_EQ(ring.lines().back().text,
              "<Vrf:red>Expiry timer expired, downstream join state joined --> noInfo");
    EXPECT_EQ(Cask::eventLog().lines().back().text,
              "DownstreamWcSgSm: Expiry timer expired on interface Ethernet1 on route (10.0.0.1, "
              "239.1.1.1), flags: , join state: joined --> noInfo ");

    int formatted = 0;
    ring.clear();
    sm->doChangeState(JoinState::noInfo, traceText(6, "unchanged {} ", Costly{&formatted}));
    ring.levelIs(4);
    sm->doChangeState(JoinState::joined, traceText(6, "level off {} ", Costly{&formatted}));
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(ring.size(), 0u);
}

TEST_F(IntfStateSmTest, ExpiryFiresAtTheDeadlineAndNotBefore) {
    sm->doChangeState(JoinState::joined);
    ASSERT_EQ(sm->timerDeadline(IntfTimer::expiry), holdTime);
    loop.runUntil(holdTime - 1e-6);
    EXPECT_EQ(intf->joinState(), JoinState::joined);
    loop.runUntil(holdTime);
    EXPECT_EQ(intf->joinState(), JoinState::noInfo);
    EXPECT_EQ(std::count(log.begin(), log.end(), "expiry fired"), 1);
    EXPECT_EQ(sm->timerDeadline(IntfTimer::expiry), Cask::never);
    EXPECT_EQ(loop.armedTimers(), 0u);
}

TEST_F(IntfStateSmTest, StoppedTimerNeverFires) {
    sm->doChangeState(JoinState::joined);
    sm->doChangeState(JoinState::prunePending);  // prune-pending timer at 3
    sm->doChangeState(JoinState::joined);        // leaving prunePending stops it
    sm->doArmTimer(IntfTimer::expiry, Cask::never);
    EXPECT_FALSE(armed(IntfTimer::expiry));
    EXPECT_FALSE(armed(IntfTimer::prunePending));
    loop.runUntil(1000);
    EXPECT_EQ(std::count(log.begin(), log.end(), "prune-pending fired"), 0);
    EXPECT_EQ(std::count(log.begin(), log.end(), "expiry fired"), 0);
    EXPECT_EQ(intf->joinState(), JoinState::joined);
}

TEST_F(IntfStateSmTest, ExpiryHandlerMayReArmItsOwnTimer) {
    sm->onExpiry = [&] { sm->doArmTimer(IntfTimer::expiry, loop.now() + 5); };
    sm->doChangeState(JoinState::joined);
    loop.runUntil(holdTime + 12);
    EXPECT_EQ(std::count(log.begin(), log.end(), "expiry fired"), 3);  // at 210, 215, 220
    EXPECT_EQ(sm->timerDeadline(IntfTimer::expiry), holdTime + 15);

    // A handler that does not re-arm leaves the timer stopped.
    sm->onExpiry = [] {};
    loop.runUntil(holdTime + 15);
    EXPECT_FALSE(armed(IntfTimer::expiry));
}

TEST_F(IntfStateSmTest, RestartReArmsWithinBasePlusTheJitterBand) {
    constexpr Seconds base = 10, period = 2;
    Cask::random().seedIs(11);
    clock.advanceTo(100);
    std::vector<Seconds> jitters;
    for (int i = 0; i < 1000; ++i) {
        const Seconds jitter = sm->doRestartTimer(IntfTimer::expiry, base, period);
        const Seconds delay = sm->timerDeadline(IntfTimer::expiry) - loop.now();
        ASSERT_GE(delay, base + 0.1 * period);
        ASSERT_LT(delay, base + period);
        ASSERT_DOUBLE_EQ(delay, base + jitter);
        jitters.push_back(jitter);
    }
    EXPECT_FALSE(armed(IntfTimer::prunePending));
    Cask::random().seedIs(11);
    EXPECT_EQ(sm->doRestartTimer(IntfTimer::prunePending, base, period), jitters[0]);
}

TEST_F(IntfStateSmTest, DestroyedWithTimersArmedNothingFiresAfter) {
    sm->doChangeState(JoinState::joined);
    sm->doChangeState(JoinState::prunePending);
    ASSERT_EQ(loop.armedTimers(), 2u);
    sm.reset();
    EXPECT_EQ(loop.armedTimers(), 0u);
    loop.runUntil(1000);  // a callback into the freed machine would be caught by ASan

    // Destroyed from inside its own timer's handler, with the other timer still armed.
    sm = std::make_unique<JoinExample>(loop, *intf, log);
    intf->joinStateIs(JoinState::noInfo);
    sm->onExpiry = [&] { sm.reset(); };
    sm->doChangeState(JoinState::joined);
    sm->doArmTimer(IntfTimer::prunePending, loop.now() + holdTime + 1);
    loop.runUntil(loop.now() + 2 * holdTime);
    EXPECT_EQ(sm, nullptr);
    EXPECT_EQ(loop.armedTimers(), 0u);
}

}  // namespace
