#pragma once
// SlicedReview: the review loop every machine that sweeps many items uses.
// A review walks a collection in key order, one bounded slice per turn of the
// event loop, and resumes at a bookmark, so that no sweep blocks the loop for
// longer than its budget plus one item.
//
//     Cask::SlicedReview<RouteKey>::Steps steps;
//     steps.walk = Cask::orderedWalk(status.route());
//     steps.visit = [this](const RouteKey& k) { doReviewRoute(k); };
//     review_ = std::make_unique<Cask::SlicedReview<RouteKey>>(
//         loop, Cask::ReviewTiming{0.01, 0.05}, Cask::ReviewTexts{vrf, "RouteReviewSm: "},
//         std::move(steps));
//     ...
//     review_->request();  // something changed: review it
//
// - Starting: a request while no review is in progress goes to the rate-limited
//   ReviewTimer, whose token bucket decides when the new review starts.
// - Requests during a review: the review in progress may have passed the keys
//   concerned, so one more full review runs once it has finished (however many
//   requests came). A machine whose producers fill a pending set while the
//   review works on another takes the pending set in `onStart`; the requests
//   its producers make meanwhile start the review of the next set.
// - Slices: the walk starts at the first item, or resumes at the first item at
//   or after the bookmark, so a bookmarked key removed between slices resumes
//   at the next one. The visitor may add or remove any items, its own
//   included: the next key is asked for after each item. After each item that
//   has a successor the slice ends if it has handled `itemsPerSlice` items or
//   the loop's clock reads at or past the turn's start + `quantum`. At least one item is
//   handled per slice; an empty walk finishes at once.
// - Continuing: a suspended review's next slice runs on the next turn of the
//   loop (its timer re-armed at now), not through the bucket: it takes no
//   credit and waits for no delay.
// - Bookmark: the key of the next item while suspended; the default key while
//   idle (`inProgress()` tells, even for walks where Key{} is a real key).
// - Holding (an output that must not grow meanwhile, say): while held no
//   slice runs, and a slice under way ends after its current item, keeping
//   the bookmark. Releasing the hold runs the suspended (or a requested)
//   review's next slice on the next turn.
//
// Traces, each "<Vrf:VRF>" + `name` + the text: `start` and `finish` at
// `startLevel`, `resume` and `suspend` at `sliceLevel`. The texts are format
// strings given the bookmark ({0}) and the slice's start time ({1}); an empty
// text is not traced (the machine traces its own, from a hook).

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include <fmt/format.h>

#include "cask/assert.h"
#include "cask/clock.h"
#include "cask/collection.h"
#include "cask/event_loop.h"
#include "cask/queue.h"
#include "cask/review_timer.h"
#include "cask/trace.h"

namespace Cask {

// The review timer's bucket and delays (see review_timer.h).
struct ReviewTiming {
    Seconds minDelay = 0.01;
    Seconds maxDelay = 0.05;
    Seconds fillInterval = ReviewTimer::defaultFillInterval;
    std::uint32_t credits = ReviewTimer::defaultCredits;
};

struct ReviewTexts {
    std::string vrf;
    std::string name;  // "RouteReviewSm: ", "GmpSm:doReview: "
    std::string start = "Starting new review";
    std::string resume = "Resuming review at: {}";
    std::string suspend = "Suspending review at: {}";
    std::string finish = "Finished review";
    int startLevel = 6;
    int sliceLevel = 6;
};

// How a review steps through its items, in key order. `first(from)`: the key
// of the first item, or with `from` of the first item at or after it;
// `next(key)`: the key of the first item after `key`. Both give nullopt past
// the end, and both are asked after the visitor ran, so they see its changes.
template <class Key>
struct ReviewWalk {
    std::function<std::optional<Key>(const std::optional<Key>& from)> first;
    std::function<std::optional<Key>(const Key& done)> next;
};

// The walk over an ordered collection (collection.h) that `get()` returns
// when asked: a machine that swaps its working set walks whichever is current.
template <class Get>
requires std::invocable<Get>
auto orderedWalk(Get get) -> ReviewWalk<typename std::remove_cvref_t<decltype(get())>::Key> {
    using Key = typename std::remove_cvref_t<decltype(get())>::Key;
    auto keyAt = [](const auto& coll, auto it) -> std::optional<Key> {
        if (it == coll.end()) return std::nullopt;
        return keyOf(*it);
    };
    return {[get, keyAt](const std::optional<Key>& from) {
                const auto& coll = get();
                return keyAt(coll, from ? coll.lowerBound(*from) : coll.begin());
            },
            [get, keyAt](const Key& done) {
                const auto& coll = get();
                return keyAt(coll, coll.upperBound(done));
            }};
}

// The walk over one ordered collection that stays where it is.
template <class Coll>
ReviewWalk<typename Coll::Key> orderedWalk(const Coll& coll) {
    return orderedWalk([&coll]() -> const Coll& { return coll; });
}

// The walk over a queue (queue.h), front to back by entry key. The visitor
// usually pops the entry it was given; entries pushed during the review are
// reviewed by it too.
//
// A queue whose entries hold many items each (a received message with its
// (group, interface, source) entries, say) is walked by the items of the
// front entry instead, Key being the item's key: `first` and `next` look in
// the front entry at or after the bookmark, or after the item done; once it
// has no more, they pop it and go on with the first item of the next.
template <class V>
ReviewWalk<typename Queue<V>::Key> queueWalk(const Queue<V>& queue) {
    using Key = typename Queue<V>::Key;
    return {[&queue](const std::optional<Key>& from) { return queue.lowerBound(from ? *from : 0); },
            [&queue](const Key& done) { return queue.lowerBound(done + 1); }};
}

template <class Key>
class SlicedReview {
public:
    struct Steps {
        ReviewWalk<Key> walk;
        std::function<void(const Key&)> visit;
        // Optional hooks. onStart: a new review begins (take the pending set
        // here); onSlice(start, stop): every slice, after its start or resume
        // trace; onSuspend: before the suspend trace; onFinish: after the
        // finish trace, idle again (a request made here is a new review).
        std::function<void()> onStart;
        std::function<void(Seconds start, Seconds stop)> onSlice;
        std::function<void()> onSuspend;
        std::function<void()> onFinish;
    };

    static constexpr Seconds defaultQuantum = 0.1;

    SlicedReview(EventLoop& loop, const ReviewTiming& timing, ReviewTexts texts, Steps steps)
        : loop_(loop),
          texts_(std::move(texts)),
          steps_(std::move(steps)),
          timer_(loop, timing.fillInterval, timing.credits, timing.minDelay, timing.maxDelay,
                 [this] { runSlice(); }) {
        CASK_ASSERT(steps_.walk.first && steps_.walk.next && steps_.visit,
                    "sliced review without a walk or a visitor");
    }
    SlicedReview(const SlicedReview&) = delete;
    SlicedReview& operator=(const SlicedReview&) = delete;

    // Asks for a review: a new one through the bucket while idle, one more
    // after the review in progress otherwise.
    void request() {
        if (active_) {
            again_ = true;
            return;
        }
        timer_.doUpdateNextReview();
    }
    // One slice, now: what the timer runs.
    void runSlice();

    bool inProgress() const { return active_; }
    // A request came during the review in progress.
    bool again() const { return again_; }
    // A new review or the next slice is scheduled.
    bool pending() const { return timer_.reviewPending(); }
    const Key& bookmark() const { return bookmark_; }

    bool held() const { return held_; }
    void heldIs(bool held) {
        held_ = held;
        if (held_ || !waiting_) return;
        waiting_ = false;
        timer_.timer().timeMinIs(loop_.now());
    }

    // Budget of a slice: time, and optionally a count (0: no count limit).
    Seconds quantum() const { return quantum_; }
    void quantumIs(Seconds q) { quantum_ = q; }
    std::size_t itemsPerSlice() const { return itemsPerSlice_; }
    void itemsPerSliceIs(std::size_t n) { itemsPerSlice_ = n; }

    ReviewTimer& timer() { return timer_; }
    const ReviewTimer& timer() const { return timer_; }

private:
    void trace(int level, const std::string& text, Seconds start) const {
        if (text.empty()) return;
        if constexpr (fmt::is_formattable<Key>::value) {
            CASK_VRF_TRACE(level, texts_.vrf, "{}{}", texts_.name,
                           fmt::format(fmt::runtime(text), bookmark_, start));
        } else {
            CASK_VRF_TRACE(level, texts_.vrf, "{}{}", texts_.name,
                           fmt::format(fmt::runtime(text), "?", start));
        }
    }

    EventLoop& loop_;
    ReviewTexts texts_;
    Steps steps_;
    Seconds quantum_ = defaultQuantum;
    std::size_t itemsPerSlice_ = 0;
    Key bookmark_{};
    bool active_ = false;
    bool again_ = false;
    bool held_ = false;
    bool waiting_ = false;  // a slice was due while held
    ReviewTimer timer_;
};

template <class Key>
void SlicedReview<Key>::runSlice() {
    if (held_) {
        waiting_ = true;
        return;
    }
    const Seconds start = loop_.now();
    // The budget counts from the start of the turn: slices of several reviews
    // due together share it rather than adding up.
    const Seconds stop = std::min(start, loop_.turnStart()) + quantum_;
    std::optional<Key> from;
    if (!active_) {
        active_ = true;
        again_ = false;  // this review covers every request made so far
        trace(texts_.startLevel, texts_.start, start);
        if (steps_.onStart) steps_.onStart();
    } else {
        from = bookmark_;
        trace(texts_.sliceLevel, texts_.resume, start);
    }
    if (steps_.onSlice) steps_.onSlice(start, stop);
    std::size_t done = 0;
    for (auto key = steps_.walk.first(from); key;) {
        steps_.visit(*key);
        ++done;
        key = steps_.walk.next(*key);
        if (key && (held_ || done == itemsPerSlice_ || loop_.now() >= stop)) {
            bookmark_ = *key;
            if (steps_.onSuspend) steps_.onSuspend();
            trace(texts_.sliceLevel, texts_.suspend, start);
            if (held_) {
                waiting_ = true;
            } else {
                timer_.timer().timeMinIs(loop_.now());
            }
            return;
        }
    }
    active_ = false;
    bookmark_ = Key{};
    trace(texts_.startLevel, texts_.finish, start);
    if (steps_.onFinish) steps_.onFinish();
    if (again_) {
        again_ = false;
        request();
    }
}

}  // namespace Cask
