#include "pimsm/route/route.h"

#include <fmt/format.h>

#include "cask/trace.h"
#include "pimsm/route/local_status.h"

namespace Routing::Pim::SparseMode {

namespace {
constexpr const char* flagNames[Route::routeFlagCount] = {
    "rpTree",         "wildCard",          "spTree",
    "switching",      "iifSwitching",      "mbr",
    "katExpired",     "markedForDeletion", "mayAdvertise",
    "msdpDiscovered", "anycastDiscovered", "drDiscovered",
    "oifRegister"};
}  // namespace

Route::Route(const Routing::Pim::RouteKey& key, const RouteContext* context, double creationTime)
    : key_(key),
      context_(context),
      creationTime_(creationTime),
      umh_(Cask::make<UpstreamInfo>(this, false)) {
    if (key.isWc()) routeFlags_ |= 1u << wildCardBit;
    // The keepalive timer of an (S,G) route starts with its first data
    // packet, so a route learnt any other way starts with it expired.
    else
        routeFlags_ |= 1u << katExpiredBit;
}

Route::~Route() {
    // Machines may still hold an interface or upstream record: cut their
    // way back to this route.
    umh_->route_ = nullptr;
    if (umhFrr_) umhFrr_->route_ = nullptr;
    for (auto& [id, intf] : routeIntf_) intf->route_ = nullptr;
}

std::string Route::routeFlagsStr() const {
    std::string out;
    for (unsigned b = 0; b < routeFlagCount; ++b) {
        if (b) out += ' ';
        out += fmt::format("{} {}", flagNames[b], (routeFlags_ >> b) & 1u);
    }
    return out;
}

void Route::umhFrrIs(Cask::Ptr<UpstreamInfo> frr) {
    if (frr == umhFrr_) return;
    if (umhFrr_) umhFrr_->route_ = nullptr;
    umhFrr_ = std::move(frr);
    notify(&Notifiee::handleUmhFrr);
}

Cask::Ptr<Intf> Route::routeIntfIs(Wirl::IntfId intf, std::uint32_t ifIndex) {
    if (auto existing = routeIntf_.get(intf)) return existing;
    if (context_ && context_->maxRouteIntfs && routeIntf_.size() >= context_->maxRouteIntfs) {
        ++context_->routeIntfsRefused;
        CASK_TRACE(4,
                   "Route::routeIntfIs({}): interface {} refused, the route has {} (maxRouteIntfs)",
                   key_, intf, routeIntf_.size());
        return nullptr;
    }
    auto fresh = Cask::make<Intf>(this, intf, ifIndex);
    routeIntf_.is(*this, intf, fresh, &Notifiee::handleRouteIntf, "");
    return fresh;
}

void Route::spTreeReached() {
    const RouteFlags spt = RouteFlags(1u << spTreeBit), switching = RouteFlags(1u << switchingBit);
    const RouteFlags before = routeFlags_;
    routeFlags_ = (routeFlags_ | spt) & ~switching;
    const RouteFlags changed = before ^ routeFlags_;
    if (!changed) return;
    // A watcher may drop the last reference: then the route is gone and
    // nothing more is announced.
    if ((changed & switching) && !notify(&Notifiee::handleSwitching)) return;
    if ((changed & spt) && !notify(&Notifiee::handleSpTree)) return;
    notify(&Notifiee::handleRouteFlags);
}

const Route* Route::wc() const {
    if (isWc()) return this;
    if (!context_ || !context_->localStatus) return nullptr;
    return context_->localStatus->wcRoute().raw(Routing::Pim::RouteKey::wc(key_.group()));
}

void Route::Notifiee::deliverIntfAttr(Intf& intf, IntfAttr attr) {
    // An earlier watcher may have removed the interface.
    if (notifier()->routeIntfRaw(intf.intfId()) == &intf) handleIntfAttr(intf, attr);
}

void Route::Notifiee::deliverUmhAttr(UpstreamInfo& umh, UmhAttr attr) {
    const Route* r = notifier();
    if (r->umh() == &umh || r->umhFrr() == &umh) handleUmhAttr(umh, attr);
}

void Intf::notifyWithRoute(void (Notifiee::*handler)(), IntfAttr attr) {
    if (!notify(handler)) return;  // a watcher dropped this record
    Route* r = route_;
    if (!r || r->routeIntfRaw(intfId_) != this) return;
    // Alive through the route's delivery, even if a watcher removes it.
    Cask::Ptr<Intf> self(this);
    r->notify(&Route::Notifiee::deliverIntfAttr, *this, attr);
}

void UpstreamInfo::notifyWithRoute(void (Notifiee::*handler)(), UmhAttr attr) {
    if (!notify(handler)) return;
    Route* r = route_;
    if (!r || (r->umh() != this && r->umhFrr() != this)) return;
    Cask::Ptr<UpstreamInfo> self(this);
    r->notify(&Route::Notifiee::deliverUmhAttr, *this, attr);
}

void UpstreamInfo::doUpdateRptState(UpRptState state) {
    if (state == upRptState_) return;
    prevRptState_ = upRptState_;
    upRptState_ = state;
    notifyWithRoute(&Notifiee::handleUpRptState, UmhAttr::upRptState);
}

}  // namespace Routing::Pim::SparseMode
