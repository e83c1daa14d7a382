#include "cask/event_loop.h"

#include <algorithm>
#include <utility>

#include "cask/assert.h"
#include "cask/timer.h"

namespace Cask {

namespace {

// Runs `f` when the scope ends, also when a callback throws, so the loop's state stays whole.
template <class F>
struct OnExit {
    F f;
    ~OnExit() { f(); }
};
template <class F>
OnExit(F) -> OnExit<F>;

}  // namespace

EventLoop::~EventLoop() {
    for (auto* list : {&heap_, &deferred_}) {
        for (const Entry& e : *list) {
            e.timer->where_ = Timer::Where::none;
            e.timer->timeMin_ = never;
        }
    }
}

void EventLoop::post(std::function<void()> work) {
    CASK_ASSERT(work, "posted empty work");
    posted_.push_back(std::move(work));
}

void EventLoop::atEndOfTurn(std::function<void()> work) {
    CASK_ASSERT(work, "end-of-turn work empty");
    endOfTurn_.push_back(std::move(work));
}

bool EventLoop::runEndOfTurn() {
    if (endOfTurn_.empty()) return false;
    while (!endOfTurn_.empty()) {
        std::function<void()> work = std::move(endOfTurn_.front());
        endOfTurn_.pop_front();
        work();
    }
    return true;
}

Seconds EventLoop::nextExpiry() const {
    Seconds next = heap_.empty() ? never : heap_.front().at;
    for (const Entry& e : deferred_) next = std::min(next, e.at);
    return next;
}

bool EventLoop::runOnce() {
    CASK_ASSERT(!inTurn_, "event loop run from inside a callback");
    inTurn_ = true;
    OnExit leave{[this] { inTurn_ = false; }};
    const Seconds start = clock_.now();
    turnStart_ = start;
    // The previous turn's end-of-turn work runs first: its handler chains
    // have settled and nothing has run since. It counts against this turn's
    // time budget (`turnStart`), so a review slice after it runs shorter and
    // the turn as a whole stays near one quantum.
    bool ran = runEndOfTurn();
    ran = runPosted() || ran;
    ran = fireDue() || ran;
    if (ran) {
        ++turns_;
        longestTurn_ = std::max(longestTurn_, clock_.now() - start);
    }
    return ran;
}

void EventLoop::runUntil(Seconds t) {
    drive(t);
    if (!stopped_ && t != never) clock_.waitUntil(t);
}

void EventLoop::runUntilIdle(Seconds limit) {
    drive(limit);
}

void EventLoop::run() {
    drive(never);
}

void EventLoop::drive(Seconds limit) {
    stopped_ = false;
    while (!stopped_) {
        if (runOnce()) continue;
        // Nothing was posted and nothing was due: the next thing to happen is the next expiry.
        const Seconds next = nextExpiry();
        if (next == never || next > limit) return;
        clock_.waitUntil(next);
    }
}

bool EventLoop::runPosted() {
    std::size_t n = posted_.size();
    if (n == 0) return false;
    for (; n > 0; --n) {
        std::function<void()> work = std::move(posted_.front());
        posted_.pop_front();
        work();
        runEndOfTurn();
    }
    return true;
}

bool EventLoop::fireDue() {
    if (heap_.empty()) return false;
    phaseNow_ = clock_.now();
    if (heap_.front().at > phaseNow_) return false;
    inTimerPhase_ = true;
    OnExit end{[this] { endTimerPhase(); }};
    // Timers armed during the phase for a due time go to deferred_, so every due entry left in the
    // heap was armed before the phase began and the loop ends.
    while (!heap_.empty() && heap_.front().at <= phaseNow_) {
        Timer& timer = *heap_.front().timer;
        heapRemove(0);
        timer.where_ = Timer::Where::none;
        timer.timeMin_ = never;
        fire(timer);
        runEndOfTurn();
    }
    return true;
}

void EventLoop::fire(Timer& timer) {
    // The callback is moved out while it runs, so that it (and what it captured) survives the
    // callback destroying its own timer; it is moved back if the timer still exists.
    std::function<void()> callback = std::move(timer.onExpiry_);
    timer.firing_ = true;
    firing_ = &timer;
    OnExit giveBack{[this, &callback] {
        if (firing_) {
            firing_->onExpiry_ = std::move(callback);
            firing_->firing_ = false;
            firing_ = nullptr;
        }
    }};
    callback();
}

void EventLoop::endTimerPhase() {
    inTimerPhase_ = false;
    for (const Entry& e : deferred_) heapPush(e);
    deferred_.clear();
}

void EventLoop::arm(Timer& timer, Seconds at) {
    const Entry e{at, nextSeq_++, &timer};
    timer.timeMin_ = at;
    const bool defer = inTimerPhase_ && at <= phaseNow_;
    switch (timer.where_) {
        case Timer::Where::heap:
            if (!defer) {
                place(timer.slot_, e);
                heapFix(timer.slot_);
                return;
            }
            heapRemove(timer.slot_);
            break;
        case Timer::Where::deferred:
            if (defer) {
                deferred_[timer.slot_] = e;
                return;
            }
            deferredRemove(timer.slot_);
            break;
        case Timer::Where::none:
            break;
    }
    if (defer) {
        deferredPush(e);
    } else {
        heapPush(e);
    }
}

void EventLoop::disarm(Timer& timer) {
    if (timer.where_ == Timer::Where::heap) {
        heapRemove(timer.slot_);
    } else if (timer.where_ == Timer::Where::deferred) {
        deferredRemove(timer.slot_);
    }
    timer.where_ = Timer::Where::none;
    timer.timeMin_ = never;
}

void EventLoop::place(std::size_t i, const Entry& e) {
    heap_[i] = e;
    e.timer->slot_ = i;
}

void EventLoop::heapPush(const Entry& e) {
    e.timer->where_ = Timer::Where::heap;
    heap_.push_back(e);
    e.timer->slot_ = heap_.size() - 1;
    siftUp(heap_.size() - 1);
}

void EventLoop::heapRemove(std::size_t i) {
    const Entry last = heap_.back();
    heap_.pop_back();
    if (i == heap_.size()) return;
    place(i, last);
    heapFix(i);
}

// Restores the heap order after the entry at i changed key.
void EventLoop::heapFix(std::size_t i) {
    if (i > 0 && before(heap_[i], heap_[(i - 1) / 2])) {
        siftUp(i);
    } else {
        siftDown(i);
    }
}

void EventLoop::siftUp(std::size_t i) {
    const Entry e = heap_[i];
    while (i > 0) {
        const std::size_t parent = (i - 1) / 2;
        if (!before(e, heap_[parent])) break;
        place(i, heap_[parent]);
        i = parent;
    }
    place(i, e);
}

void EventLoop::siftDown(std::size_t i) {
    const Entry e = heap_[i];
    const std::size_t n = heap_.size();
    for (;;) {
        std::size_t child = 2 * i + 1;
        if (child >= n) break;
        if (child + 1 < n && before(heap_[child + 1], heap_[child])) ++child;
        if (!before(heap_[child], e)) break;
        place(i, heap_[child]);
        i = child;
    }
    place(i, e);
}

void EventLoop::deferredPush(const Entry& e) {
    e.timer->where_ = Timer::Where::deferred;
    e.timer->slot_ = deferred_.size();
    deferred_.push_back(e);
}

// Order within deferred_ does not matter: the entries are sorted when they join the heap.
void EventLoop::deferredRemove(std::size_t i) {
    if (i + 1 != deferred_.size()) {
        deferred_[i] = deferred_.back();
        deferred_[i].timer->slot_ = i;
    }
    deferred_.pop_back();
}

}  // namespace Cask
