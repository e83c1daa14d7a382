#pragma once
// One slice of a long walk ("review") over an ordered collection, bounded by
// a time quantum and resumable at a bookmark key. Every machine that sweeps
// many routes or memberships uses this, so that no sweep blocks the event
// loop for longer than its quantum plus one item.
//
//     auto r = Cask::reviewSlice(status.route(), bookmark_, clock, quantum_,
//                                [&](const RouteKey& k) { doReviewRoute(k); });
//     if (r == Cask::SliceResult::suspended) timer.timeMinIs(loop.now());
//
// - The walk starts at the first key when `bookmark` is the default key, and
//   otherwise at the first key not below it, so it resumes correctly even if
//   the bookmarked key was removed between slices.
// - `each(key)` may add or remove any entries, the current one included: the
//   next key is looked up again after each call.
// - The clock is read after each item; once it is at or past start +
//   quantum, the walk stops with the NEXT key as bookmark (suspended). At the
//   end of the collection the bookmark is reset to the default key
//   (finished). At least one item is handled per slice.

#include "cask/clock.h"
#include "cask/collection.h"

namespace Cask {

enum class SliceResult { finished, suspended };

template <class Coll, class Key, class F>
SliceResult reviewSlice(const Coll& coll, Key& bookmark, const Clock& clock, Seconds quantum,
                        F&& each) {
    const Seconds stop = clock.now() + quantum;
    auto it = bookmark == Key{} ? coll.begin() : coll.lowerBound(bookmark);
    while (it != coll.end()) {
        const Key key = keyOf(*it);
        each(key);
        it = coll.upperBound(key);
        if (it != coll.end() && clock.now() >= stop) {
            bookmark = keyOf(*it);
            return SliceResult::suspended;
        }
    }
    bookmark = Key{};
    return SliceResult::finished;
}

}  // namespace Cask
