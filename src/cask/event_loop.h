#pragma once
// The single-threaded event loop that every state machine of the agent runs on. Handlers run to
// completion; work is either posted (run on a later turn) or attached to a Timer (run at a time).
// All code reads time from the loop's clock, so the same code runs on real time (SteadyClock) and
// on virtual time (VirtualClock) in tests and scenarios.
//
// Turn order, which is what makes runs reproducible. A turn first runs the end-of-turn work
// queued from outside the loop (by code that changed records between runs), FIFO; then the
// posted work that was queued before the turn began, FIFO (work posted meanwhile waits for the
// next turn); then it reads the clock once (call it T) and fires every timer whose expiry <= T,
// in order of (expiry, arming sequence number).
//
// After every posted item and every timer callback, the end-of-turn work that the callback's
// handler chain queued (`atEndOfTurn`) runs, FIFO, including work queued by that work, before the
// next item or timer: so a machine that marks records dirty in its handlers builds them once, when
// the chain has settled, and before anything of a later time happens.
//
// Every arm or re-arm takes a new sequence number. A timer is disarmed before its callback runs,
// so the callback may re-arm it. A timer armed while timers fire, for a time <= T, fires on the
// NEXT turn, not this one: a timer that re-arms itself "now" lets posted work in between, and a
// turn always ends.
// Timers may be armed, re-armed, cancelled and destroyed from any callback, their own included;
// none is skipped or fired twice because of it.
//
// Timers are kept in an indexed binary heap (each Timer knows its slot): arm, re-arm, cancel and
// firing are O(log n) and allocate nothing beyond amortised growth of the heap.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "cask/clock.h"

namespace Cask {

class Timer;

class EventLoop {
public:
    explicit EventLoop(Clock& clock) : clock_(clock) {}
    // Timers still armed are disarmed, so they may outlive the loop (but not be armed again).
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    Clock& clock() const { return clock_; }
    Seconds now() const { return clock_.now(); }
    // When the current turn began (now, outside a turn). Work sliced by time
    // measures its budget from here, so several slices due in one turn share
    // one budget and no turn runs much past it.
    Seconds turnStart() const { return inTurn_ ? turnStart_ : clock_.now(); }

    // Runs `work` on a later turn, after everything posted before it.
    void post(std::function<void()> work);
    // Runs `work` once the current callback's handler chain has returned (see above); from outside
    // a callback, at the start of the next turn.
    void atEndOfTurn(std::function<void()> work);

    // One turn (see above). Returns whether any work or timer callback ran. Not re-entrant: a
    // callback must not run the loop.
    bool runOnce();
    // Runs everything due up to t, waiting on the clock for each timer's expiry in turn (a virtual
    // clock jumps there); the clock ends at t.
    void runUntil(Seconds t);
    // Runs until nothing is posted or armed, or the next expiry is past `limit`. The clock stays at
    // the last expiry that fired.
    void runUntilIdle(Seconds limit = never);
    // Runs until stop(), sleeping until each next expiry. It also returns once nothing is posted or
    // armed, since nothing could ever happen again on a single thread.
    void run();
    // Makes the run*() call in progress return once the current turn ends.
    void stop() { stopped_ = true; }

    std::size_t armedTimers() const { return heap_.size() + deferred_.size(); }
    std::size_t postedWork() const { return posted_.size(); }
    std::size_t endOfTurnWork() const { return endOfTurn_.size(); }
    Seconds nextExpiry() const;                           // `never` when no timer is armed
    std::uint64_t turns() const { return turns_; }        // turns in which something ran
    Seconds longestTurn() const { return longestTurn_; }  // measured on the loop's clock

private:
    friend class Timer;

    struct Entry {
        Seconds at;
        std::uint64_t seq;
        Timer* timer;
    };

    // Called by Timer.
    void arm(Timer& timer, Seconds at);
    void disarm(Timer& timer);
    void firingTimerDestroyed() { firing_ = nullptr; }

    void drive(Seconds limit);
    bool runPosted();
    bool runEndOfTurn();
    bool fireDue();
    void fire(Timer& timer);
    void endTimerPhase();

    static bool before(const Entry& a, const Entry& b) {
        return a.at < b.at || (a.at == b.at && a.seq < b.seq);
    }
    void place(std::size_t i, const Entry& e);
    void heapPush(const Entry& e);
    void heapRemove(std::size_t i);
    void heapFix(std::size_t i);
    void siftUp(std::size_t i);
    void siftDown(std::size_t i);
    void deferredPush(const Entry& e);
    void deferredRemove(std::size_t i);

    Clock& clock_;
    std::deque<std::function<void()>> posted_;
    std::deque<std::function<void()>> endOfTurn_;
    std::vector<Entry> heap_;
    // Timers armed during the timer phase for a time already due: they join the heap when the
    // phase ends, so that the phase fires only timers armed before it.
    std::vector<Entry> deferred_;
    std::uint64_t nextSeq_ = 0;
    bool inTurn_ = false;
    bool inTimerPhase_ = false;
    Seconds phaseNow_ = 0;
    Timer* firing_ = nullptr;  // whose callback runs; cleared if the timer is destroyed meanwhile
    bool stopped_ = false;
    Seconds turnStart_ = 0;
    std::uint64_t turns_ = 0;
    Seconds longestTurn_ = 0;
};

}  // namespace Cask
