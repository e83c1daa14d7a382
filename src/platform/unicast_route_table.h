#pragma once
// A unicast routing table as the unicast routing side publishes it: prefix
// to next hop, interface, preference and metric. The agent reads it for RPF
// (the route toward a source or an RP, by longest prefix match); tests and
// the scenario driver write it.

#include <bitset>
#include <cstdint>
#include <optional>

#include "cask/collection.h"
#include "wirl/intf_id.h"
#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"

namespace Routing::Unicast {

struct UnicastRoute {
    Wirl::IpGenPrefix prefix;
    Wirl::IntfId intf;
    // The next hop; for a directly attached prefix, the unspecified address.
    Wirl::IpGenAddr nextHop;
    std::uint32_t preference = 0;
    std::uint32_t metric = 0;
    bool attached = false;
    bool operator==(const UnicastRoute&) const = default;
};

class RouteTable : public Cask::Record<RouteTable> {
public:
    class Notifiee : public Cask::NotifieeOf<RouteTable> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRoute(const Wirl::IpGenPrefix&) {}
    };

    explicit RouteTable(Wirl::AddressFamily family) : family_(family) {}
    Wirl::AddressFamily family() const { return family_; }

    const auto& route() const { return route_; }
    std::size_t routeSize() const { return route_.size(); }
    std::optional<UnicastRoute> route(const Wirl::IpGenPrefix& p) const;
    void routeDel(const Wirl::IpGenPrefix& p);
    // Inserts or replaces the route of `r.prefix`. Refuses (std::invalid_argument)
    // a route of the other address family.
    void routeIs(const UnicastRoute& r);

    // Longest prefix match; nullopt when no route covers the address.
    std::optional<UnicastRoute> lookup(const Wirl::IpGenAddr& addr) const;

private:
    Wirl::AddressFamily family_;
    Cask::ValueMap<Wirl::IpGenPrefix, UnicastRoute> route_;
    // Prefix lengths in use, so a lookup probes only those.
    std::bitset<129> lengths_;
    std::uint32_t lengthCount_[129] = {};
    // Answers already given, forgotten at every change of the table: every
    // (*,G) route of an RP asks for the same address. Bounded, since (S,G)
    // routes ask for as many addresses as there are sources.
    static constexpr std::size_t lookupMemoLimit = 4096;
    mutable Cask::HashMap<Wirl::IpGenAddr, std::optional<UnicastRoute>> lookupMemo_;
};

}  // namespace Routing::Unicast
