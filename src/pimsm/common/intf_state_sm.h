#pragma once
// IntfStateSm: one protocol state of one (route, interface) pair, with the two timers such a
// state runs. Each per-interface machine keeps one in its per-interface reactor: the downstream
// (*,G)/(S,G) join state (noInfo, joined, prunePending), the downstream (S,G,rpt) state
// (rptNoInfo, rptPrunePending, rptPruned) and the (S,G) and (*,G) assert states (assertNoInfo,
// iAmAssertWinner, iAmAssertLoser).
//
// What it owns:
// - the one writer of the state, doChangeState(next). When `next` is the current state it does
//   nothing at all. Otherwise, in this order: it writes the machine's trace lines, each the
//   machine's text followed by "<old> --> <new>"; runs the machine's leave action for the old
//   state; writes `next` through to the machine's record (the Intf, which stays the one place
//   other machines read the state from, and whose watchers are told at that point); runs the
//   enter action for `next`. The enter action runs after the write so that it may itself change
//   the state again (an interface whose Join is gone after a restart expires at once); it is
//   skipped when a watcher of the record already moved the state on during the write.
// - two one-shot timers on the loop: `expiry` and `prunePending` (the assert machines use
//   `expiry` as their assert timer). A stopped timer is a null pointer: its Cask::Timer is
//   allocated when armed and freed when stopped or fired, so an interface with no timer running
//   costs two pointers. A timer is stopped before its expiry handler runs, so the handler may
//   re-arm it. Destroying the helper stops both; no handler runs afterwards.
// - re-arming a timer after a restart at now + base + randomDelay(jitterPeriod), which spreads
//   the deadlines of the many interfaces that are re-armed together. randomDelay draws from
//   Cask::random(), so a seed reproduces the deadlines.
// It keeps no copy of the state: the machine says where the state lives.
//
// What the machine supplies, as the class deriving from IntfStateSm<Machine, State> (the hooks
// may be private if the machine befriends IntfStateSm<Machine, State>):
//   State intfState() const;                the current state, read from where it lives
//   void intfStateIs(State s);              writes it there, e.g. intf.joinStateIs(s)
//   const char* stateName(State s) const;   the name trace lines print (may be static)
//   void doLeaveState(State old);           actions on leaving `old`, e.g. stop a timer
//   void doEnterState(State next);          actions on entering `next`, e.g. arm a timer
//   void handleExpiryTimer();               the expiry timer fired (it is already stopped)
//   void handlePrunePendingTimer();         the prune-pending timer fired (already stopped)
//   Cask::EventLoop& loop() const;          the loop the timers run on
//   vrfName() const;                        anything fmt prints; traceText lines start with it
//
// Trace lines are built by the machine with traceText / eventText and passed to doChangeState:
//   doChangeState(JoinState::noInfo,
//                 traceText(6, "Expiry timer expired, downstream join state "),
//                 eventText("DownstreamWcSgSm: Expiry timer expired on interface {} on route{}, "
//                           "flags: , join state: ", intf, key).tail(" "));
// writes "<Vrf:NAME>Expiry timer expired, downstream join state joined --> noInfo" to the trace
// ring and "DownstreamWcSgSm: ... join state: joined --> noInfo " to the event log. A line is
// formatted only when the state changes and its ring keeps lines of its level; it holds its
// arguments by reference, so make it inside the doChangeState call.

#include <cstdint>
#include <iterator>
#include <memory>
#include <string_view>
#include <tuple>

#include <fmt/format.h>

#include "cask/clock.h"
#include "cask/event_loop.h"
#include "cask/timer.h"
#include "cask/trace.h"
#include "pimsm/common/pimsm_common_utils.h"

namespace Routing::Pim::SparseMode {

enum class IntfTimer : std::uint8_t { expiry, prunePending };

// One line that a state change writes: the machine's text (a format string and its arguments,
// held by reference), then "<old> --> <new>", then a constant tail.
template <class... Args>
class StateChangeText {
public:
    StateChangeText(Cask::TraceRing& ring, int level, bool vrfPrefix,
                    fmt::format_string<const Args&...> text, const Args&... args)
        : ring_(&ring), level_(level), vrfPrefix_(vrfPrefix), text_(text), args_(args...) {}

    // Text written after the new state (some event records end in a blank).
    StateChangeText tail(std::string_view t) const {
        StateChangeText copy = *this;
        copy.tail_ = t;
        return copy;
    }

    template <class Vrf>
    void write(const Vrf& vrf, std::string_view oldName, std::string_view newName) const {
        if (!ring_->on(level_)) return;
        fmt::memory_buffer out;
        auto it = std::back_inserter(out);
        if (vrfPrefix_) fmt::format_to(it, "<Vrf:{}>", vrf);
        std::apply(
            [&](const auto&... a) { fmt::vformat_to(it, text_, fmt::make_format_args(a...)); },
            args_);
        fmt::format_to(it, "{} --> {}{}", oldName, newName, tail_);
        ring_->add(level_, fmt::to_string(out));
    }

private:
    Cask::TraceRing* ring_;
    int level_;
    bool vrfPrefix_;
    fmt::string_view text_;
    std::string_view tail_;
    std::tuple<const Args&...> args_;
};

// A line for the trace ring, after the machine's "<Vrf:NAME>" prefix.
template <class... Args>
StateChangeText<Args...> traceText(int level, fmt::format_string<const Args&...> text,
                                   const Args&... args) {
    return StateChangeText<Args...>(Cask::trace(), level, true, text, args...);
}

// A record for the event log (level 4, no VRF prefix, as CASK_EVENT writes).
template <class... Args>
StateChangeText<Args...> eventText(fmt::format_string<const Args&...> text, const Args&... args) {
    return StateChangeText<Args...>(Cask::eventLog(), 4, false, text, args...);
}

template <class Machine, class State>
class IntfStateSm {
public:
    IntfStateSm() = default;
    IntfStateSm(const IntfStateSm&) = delete;
    IntfStateSm& operator=(const IntfStateSm&) = delete;

    // Moves the state to `next` (see the header comment); returns whether it changed.
    template <class... Texts>
    bool doChangeState(State next, const Texts&... texts) {
        const State old = machine().intfState();
        if (old == next) return false;
        (texts.write(machine().vrfName(), machine().stateName(old), machine().stateName(next)),
         ...);
        machine().doLeaveState(old);
        machine().intfStateIs(next);
        if (machine().intfState() == next) machine().doEnterState(next);
        return true;
    }

    // When the timer fires; `never` when it is stopped.
    Cask::Seconds timerDeadline(IntfTimer which) const {
        const auto& t = slot(which);
        return t ? t->timeMin() : Cask::never;
    }
    bool timerArmed(IntfTimer which) const { return slot(which) != nullptr; }

    // Arms (or re-arms) the timer to fire at `at`; `never` stops it.
    void doArmTimer(IntfTimer which, Cask::Seconds at) {
        if (at == Cask::never) return doStopTimer(which);
        auto& t = slot(which);
        if (!t) t = std::make_unique<Cask::Timer>(machine().loop(), [this, which] { fire(which); });
        t->timeMinIs(at);
    }
    void doStopTimer(IntfTimer which) { slot(which).reset(); }

    // After a restart: arms the timer at now + base + randomDelay(jitterPeriod), randomDelay's
    // factor lying in [0.1, 1.0). Returns the jitter drawn, for the machine's trace.
    Cask::Seconds doRestartTimer(IntfTimer which, Cask::Seconds base, Cask::Seconds jitterPeriod) {
        const Cask::Seconds jitter = randomDelay(jitterPeriod);
        doArmTimer(which, machine().loop().now() + base + jitter);
        return jitter;
    }

protected:
    ~IntfStateSm() = default;

private:
    Machine& machine() { return static_cast<Machine&>(*this); }

    std::unique_ptr<Cask::Timer>& slot(IntfTimer which) {
        return which == IntfTimer::expiry ? expiry_ : prunePending_;
    }
    const std::unique_ptr<Cask::Timer>& slot(IntfTimer which) const {
        return which == IntfTimer::expiry ? expiry_ : prunePending_;
    }

    // Runs inside the timer's own callback: freeing the timer there is allowed, and stopping it
    // before the handler lets the handler re-arm it (with a new Timer).
    void fire(IntfTimer which) {
        slot(which).reset();
        if (which == IntfTimer::expiry) {
            machine().handleExpiryTimer();
        } else {
            machine().handlePrunePendingTimer();
        }
    }

    std::unique_ptr<Cask::Timer> expiry_;
    std::unique_ptr<Cask::Timer> prunePending_;
};

}  // namespace Routing::Pim::SparseMode
