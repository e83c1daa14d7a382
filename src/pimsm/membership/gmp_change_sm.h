#pragma once
// GmpChangeSm: collects the membership keys the membership protocol changed
// and hands them to GmpSm in time-bounded batches.
// Watches: the membership table.
// Writes:  nothing outside itself: its batches are decided by GmpSm.
//
// Every change of the membership table lands in `gmpChangeStatus` (a
// (*,G) change also queues the (S,G) keys that SSM conversion derives from
// it). A review then swaps that set out for a fresh one and decides its
// keys one by one, in slices of at most `reviewQuantum`, resuming at
// `reviewBookmark` on a later turn of the loop. Changes that arrive while a
// review runs gather in the fresh set and start the next review.

#include <memory>
#include <set>

#include "cask/event_loop.h"
#include "cask/sliced_review.h"
#include "pimsm/membership/gmp_change_status.h"
#include "platform/membership.h"

namespace Routing::Pim::SparseMode {

class GmpSm;

class GmpChangeSm : public Routing::Gmp::Tidal::Status::Notifiee {
public:
    using RouteIntfKey = Routing::Gmp::Tidal::RouteIntfKey;

    static constexpr Cask::Seconds defaultReviewQuantum = 0.1;
    // A lone change is decided after the short delay; a storm of changes is
    // held to a few reviews a second by the review timer's bucket.
    static constexpr Cask::Seconds reviewMinDelay = 0.01;
    static constexpr Cask::Seconds reviewMaxDelay = 0.5;

    GmpChangeSm(GmpSm& parent, Routing::Gmp::Tidal::Status& membership, Cask::EventLoop& loop);
    ~GmpChangeSm() override;

    // A key of the membership table changed (added, replaced or removed).
    void handleMembership(const RouteIntfKey& key) override;
    // Creates the review and the first, empty, change set.
    void handleInitialized();
    // The group filter changed: keys that changed while their group was
    // filtered, and whose group is permitted now, are decided again.
    void handleGroupFilterChanged();
    // Schedules a review unless one is pending or nothing has changed.
    void doUpdateReviewTimer();

    // The set new changes go to, and the set the review in progress works on.
    GmpChangeStatus* gmpChangeStatus() const { return gmpChangeStatus_.get(); }
    GmpChangeStatus* reviewChangeStatus() const { return reviewChangeStatus_.get(); }
    // Where a suspended review resumes; the default key when none is running.
    const RouteIntfKey& reviewBookmark() const { return review_->bookmark(); }
    Cask::Seconds reviewQuantum() const { return review_->quantum(); }
    void reviewQuantumIs(Cask::Seconds q) { review_->quantumIs(q); }
    const Cask::ReviewTimer& reviewTimer() const { return review_->timer(); }

private:
    class ChangeWatcher;
    void changeStatusIs(Cask::Ptr<GmpChangeStatus> fresh);

    GmpSm& parent_;
    Cask::EventLoop& loop_;
    Cask::Ptr<GmpChangeStatus> gmpChangeStatus_;
    Cask::Ptr<GmpChangeStatus> reviewChangeStatus_;
    // A slice was suspended: the reviewed keys below the bookmark are decided.
    bool decidedBelowBookmark_ = false;
    std::unique_ptr<ChangeWatcher> changeWatcher_;
    // Keys changed while their group was filtered (bidirectional).
    std::set<RouteIntfKey> filtered_;
    std::unique_ptr<Cask::SlicedReview<RouteIntfKey>> review_;
};

// Creates the change machine of `parent`, watching `membership`, and queues
// every key the table already holds.
std::unique_ptr<GmpChangeSm> gmpChangeSmFactory(GmpSm& parent,
                                                Routing::Gmp::Tidal::Status& membership,
                                                Cask::EventLoop& loop);

}  // namespace Routing::Pim::SparseMode
