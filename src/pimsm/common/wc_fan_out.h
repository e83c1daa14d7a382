#pragma once
// WcFanOut: hands the changes of a group's (*,G) route to a machine that keeps (S,G) routes
// of the group: what an (S,G) route inherits (inherited_olist, RPF'(*,G), lost_assert(*,G))
// moves with the (*,G) route.
//
// The machine forwards LocalStatus's (*,G) announcements (`handleWcRoute`) and says which
// (S,G) routes it keeps a reactor for (`sgAdded` once its map holds the new reactor,
// `sgRemoved` once the map no longer does). The fan-out calls the machine's
//
//     void handleWcChange(const Wirl::IpGenAddr& group, const WcChange& change);
//
// for every change of the (*,G) route of a group in which the machine keeps an (S,G) route
// that the machine hears (`WcHears`: the interface attributes that matter to it, and whether
// the route review's change flags do); `forEachSg` walks those (S,G) routes.
//
// Cost: the (*,G) route is watched (one pooled reactor, one index slot) only while the group
// has both a (*,G) route and at least one (S,G) route of the machine. A group without sources,
// the common case, costs nothing; nor does an SSM group without a (*,G) route. No event is
// made when the watch starts or stops because (S,G) routes came or went: an (S,G) route reads
// the (*,G) route at its own start-up, and a group without (S,G) routes has nobody to tell.

#include <cstdint>
#include <initializer_list>

#include "cask/assert.h"
#include "cask/reactor_map.h"
#include "pimsm/common/vrf_context.h"
#include "pimsm/route/local_status.h"
#include "pimsm/route/route.h"
#include "pimsm/route/status.h"
#include "platform/route_key.h"

namespace Routing::Pim::SparseMode {

// One change of a group's (*,G) route. Only `intf` names an interface: the others may change
// what the group's routes inherit on any.
struct WcChange {
    enum class What : std::uint8_t {
        route,        // came, went or was replaced (`wc` null: it went)
        rpf,          // RPF'(*,G) moved: the primary upstream's `rpf`
        intf,         // interface `intf` was added or removed, or changed an attribute heard
        changeFlags,  // the route review handed the route its change flags
    };
    What what = What::route;
    const Route* wc = nullptr;  // the (*,G) route now
    Wirl::IntfId intf{};        // intf
};

// What a machine hears of the (*,G) routes besides their coming and going, RPF' and
// interfaces: which interface attributes, and the change flags.
struct WcHears {
    WcHears(std::initializer_list<IntfAttr> attrs, bool flags = false) : changeFlags(flags) {
        for (IntfAttr a : attrs) intfAttrs |= std::uint16_t(1u << unsigned(a));
    }
    bool has(IntfAttr a) const { return intfAttrs & (1u << unsigned(a)); }
    std::uint16_t intfAttrs = 0;
    bool changeFlags;
};

template <class Sm, class Rho>
class WcFanOut {
public:
    using SgMap = Cask::ReactorMap<Routing::Pim::RouteKey, Rho>;

    // Reads ctx.localStatus and ctx.status, which the machine requires.
    WcFanOut(Sm& sm, const VrfContext& ctx, const SgMap& sgRoutes, WcHears hears)
        : sm_(sm), ls_(*ctx.localStatus), status_(*ctx.status), sg_(sgRoutes), hears_(hears) {}
    WcFanOut(const WcFanOut&) = delete;
    WcFanOut& operator=(const WcFanOut&) = delete;

    // LocalStatus announced the (*,G) route of `wcKey`.
    void handleWcRoute(const Routing::Pim::RouteKey& wcKey) {
        // A machine keeping no (S,G) route watches no (*,G) route: nothing to tell.
        if (watch_.empty() && sg_.empty()) return;
        Route* wc = ls_.wcRoute().raw(wcKey);
        Watch* w = watch_.get(wcKey);
        if (w ? w->reactorRecord() == wc : !wc) return;
        const std::uint32_t n = w ? w->count : sgCount(wcKey.group());
        if (w) watch_.del(wcKey);
        if (n == 0) return;
        if (wc) watch_.update(wcKey, wc, *this, n);
        sm_.handleWcChange(wcKey.group(), WcChange{.what = WcChange::What::route, .wc = wc});
    }

    // The machine's map now holds a reactor for the (S,G) route of `sgKey`.
    void sgAdded(const Routing::Pim::RouteKey& sgKey) {
        const Routing::Pim::RouteKey wcKey = Routing::Pim::RouteKey::wc(sgKey.group());
        if (Watch* w = watch_.get(wcKey)) {
            ++w->count;
            return;
        }
        Route* wc = ls_.wcRoute().raw(wcKey);
        if (!wc) return;
        const std::uint32_t n = sgCount(sgKey.group());
        CASK_ASSERT(n > 0, "fan-out told of an (S,G) route its machine does not keep");
        // Other (S,G) routes of the group without a watch: the (*,G) route is new, and its
        // announcement, still on its way to the machine, starts the watch and tells them.
        if (n == 1) watch_.update(wcKey, wc, *this, n);
    }

    // The machine's map no longer holds a reactor for the (S,G) route of `sgKey`.
    void sgRemoved(const Routing::Pim::RouteKey& sgKey) {
        const Routing::Pim::RouteKey wcKey = Routing::Pim::RouteKey::wc(sgKey.group());
        Watch* w = watch_.get(wcKey);
        if (!w) return;
        CASK_ASSERT(w->count > 0, "fan-out count");
        if (--w->count == 0) watch_.del(wcKey);
    }

    // Calls f(Rho&) for every (S,G) route of the group the machine keeps. The keys are taken
    // first: f may add or remove routes (one removed before its turn is skipped).
    template <class F>
    void forEachSg(const Wirl::IpGenAddr& group, F&& f) const {
        for (const Routing::Pim::RouteKey& k : status_.sgKeysOfGroup(group)) {
            if (Rho* rho = sg_.get(k)) f(*rho);
        }
    }

    // The group's (*,G) route is watched now.
    bool watches(const Wirl::IpGenAddr& group) const {
        return watch_.has(Routing::Pim::RouteKey::wc(group));
    }
    std::size_t size() const { return watch_.size(); }

private:
    // The watch on one (*,G) route, with the number of the machine's (S,G) routes of the group.
    class Watch : public RouteReactor {
    public:
        Watch(WcFanOut& fanOut, std::uint32_t sgCount, Route& wc)
            : RouteReactor(wc), count(sgCount), fanOut_(fanOut) {}
        void handleRouteIntf(Wirl::IntfId intf) override {
            tell({.what = WcChange::What::intf, .intf = intf});
        }
        void handleIntfAttr(Intf& intf, IntfAttr attr) override {
            if (fanOut_.hears_.has(attr)) {
                tell({.what = WcChange::What::intf, .intf = intf.intfId()});
            }
        }
        void handleUmhAttr(UpstreamInfo& umh, UmhAttr attr) override {
            if (attr == UmhAttr::rpf && !umh.frr()) tell({.what = WcChange::What::rpf});
        }
        void handleChangeFlags() override {
            if (fanOut_.hears_.changeFlags) tell({.what = WcChange::What::changeFlags});
        }

        std::uint32_t count;

    private:
        // The machine may end this watch (its last (S,G) route of the group goes): nothing of
        // the watch is touched after the call.
        void tell(WcChange change) {
            change.wc = notifier();
            const Wirl::IpGenAddr group = notifier()->key().group();
            fanOut_.sm_.handleWcChange(group, change);
        }
        WcFanOut& fanOut_;
    };

    // The machine's (S,G) routes of the group. The route status lists a group's sources
    // before their routes are announced and until their removal has been.
    std::uint32_t sgCount(const Wirl::IpGenAddr& group) const {
        const auto sources = status_.groupSource(group);
        if (!sources) return 0;
        std::uint32_t n = 0;
        for (const Wirl::IpGenAddr& s : sources->member()) {
            if (sg_.has(Routing::Pim::RouteKey(s, group))) ++n;
        }
        return n;
    }

    Sm& sm_;
    const LocalStatus& ls_;
    const Status& status_;
    const SgMap& sg_;
    const WcHears hears_;
    Cask::ReactorMap<Routing::Pim::RouteKey, Watch> watch_;
};

}  // namespace Routing::Pim::SparseMode
