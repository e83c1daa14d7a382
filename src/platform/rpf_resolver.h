#pragma once
// RpfResolver: the unicast routing side of RPF for one VRF. It reads the
// addresses the routes ask for (RpfConfig) and writes what they resolve to in
// one unicast table (RpfStatus): the longest-prefix-match route's interface,
// next hop, preference and metric, or nothing when no route covers the
// address. It follows the table, so a route change re-resolves the addresses
// it can affect and reports the routes that use them in one batch
// (`rpfRouteChangedIs`).
//
// Cost, with A tracked addresses and L distinct prefix lengths in the table:
// - a route's request changing: O(log A + L) per address added or dropped;
// - a unicast route at prefix P changing: O(log A + k L) for the k tracked
//   addresses inside P, plus one entry per route using an address whose RPF
//   changed (a default route therefore touches every address, as it must);
// - a new table (`tableIs`): O(A L).

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "cask/collection.h"
#include "platform/rpf_status.h"
#include "platform/unicast_route_table.h"

namespace Routing::Pim {

class RpfResolver {
public:
    RpfResolver(Cask::Ptr<RpfConfig> config, Cask::Ptr<RpfStatus> status);
    RpfResolver(const RpfResolver&) = delete;
    RpfResolver& operator=(const RpfResolver&) = delete;

    // The table lookups use; null resolves nothing. Re-resolves everything.
    void tableIs(Cask::Ptr<Routing::Unicast::RouteTable> table);
    Routing::Unicast::RouteTable* table() const { return table_.get(); }
    std::size_t trackedAddresses() const { return resolved_.size(); }

private:
    using Addrs = std::array<Wirl::IpGenAddr, 3>;

    class ConfigWatcher : public RpfConfig::Notifiee {
    public:
        explicit ConfigWatcher(RpfResolver& owner) : owner_(owner) {}
        void handleRpfConfigInfo(const RouteKey& key) override {
            owner_.doUpdateRoute(key, owner_.config_->rpfConfigInfoBefore().addresses());
        }

    private:
        RpfResolver& owner_;
    };
    class TableWatcher : public Routing::Unicast::RouteTable::Notifiee {
    public:
        explicit TableWatcher(RpfResolver& owner) : owner_(owner) {}
        void handleRoute(const Wirl::IpGenPrefix& p) override {
            owner_.doReResolve(p.first(), p.last());
        }

    private:
        RpfResolver& owner_;
    };

    Rpf resolve(const Wirl::IpGenAddr& addr) const;
    // Follows a route's request from the addresses it asked for before.
    void doUpdateRoute(const RouteKey& key, const Addrs& before);
    // Re-resolves the tracked addresses in [first, last].
    void doReResolve(const Wirl::IpGenAddr& first, const Wirl::IpGenAddr& last);
    void doUpdateUnresolved(const RouteKey& key);
    // The same, given the route's request (null: it makes none).
    void doUpdateUnresolved(const RouteKey& key, const RpfConfigInfo* info);

    Cask::Ptr<RpfConfig> config_;
    Cask::Ptr<RpfStatus> status_;
    Cask::Ptr<Routing::Unicast::RouteTable> table_;
    // Every tracked address with its current result, in address order so a
    // prefix's addresses are one range.
    std::map<Wirl::IpGenAddr, Rpf> resolved_;
    // Counts the changes of `resolved_` (addresses added or dropped, results
    // changed), so that what was read from it is known to hold until the next.
    std::uint64_t changes_ = 0;
    // The request handled last, all of whose addresses were tracked when
    // `changes_` was `changes`, and whether its target resolved then.
    struct Last {
        Addrs addrs;
        bool targetResolved = false;
        std::uint64_t changes = ~std::uint64_t{0};
    };
    Last last_;
    ConfigWatcher configWatcher_{*this};
    TableWatcher tableWatcher_{*this};
};

}  // namespace Routing::Pim
