#pragma once
// The multicast forwarding table of one VRF and address family, as the
// forwarding plane reads it: one record per route (incoming interface,
// fast-failover incoming interface, notify and fast-drop interfaces, route
// flags, and a 512-bit bitmap of outgoing interfaces), plus the mapping from
// the bitmap's indexes to interfaces with the number of records using each.
//
// The sparse-mode agent is the only writer (see MfibSm). Records are plain
// values compared as a whole, so the writer can tell an unchanged record and
// skip the write; `routeWriteCount` counts every write request, which is how
// tests and benchmarks see what reached the table.

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <string>

#include <absl/container/node_hash_map.h>
#include <fmt/format.h>

#include "cask/collection.h"
#include "platform/route_key.h"
#include "wirl/intf_id.h"
#include "wirl/ip_gen_addr.h"

namespace Routing::Multicast::Fib {

// The key of a forwarding record: source and group, and whether the record
// is a (*,G) record (whose source is the family's zero address).
class IpGenRouteKey {
public:
    IpGenRouteKey() = default;
    IpGenRouteKey(const Wirl::IpGenAddr& source, const Wirl::IpGenAddr& group, bool wildcard)
        : source_(source), group_(group), wildcard_(wildcard) {}

    const Wirl::IpGenAddr& source() const { return source_; }
    const Wirl::IpGenAddr& group() const { return group_; }
    bool wildcard() const { return wildcard_; }

    std::size_t hash() const {
        const std::size_t h = group_.hash();
        return h ^ (source_.hash() + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2)) ^ wildcard_;
    }
    bool operator==(const IpGenRouteKey&) const = default;
    std::strong_ordering operator<=>(const IpGenRouteKey&) const = default;
    std::string str() const;

private:
    Wirl::IpGenAddr source_;
    Wirl::IpGenAddr group_;
    bool wildcard_ = false;
};

// The forwarding key of an agent route, and back.
IpGenRouteKey convertKey(const Routing::Pim::RouteKey& key);
Routing::Pim::RouteKey convertKey(const IpGenRouteKey& key);

}  // namespace Routing::Multicast::Fib

namespace Tidal::Multicast::Fib {

using Routing::Multicast::Fib::IpGenRouteKey;

// An index into the outgoing-interface bitmap, 0 to 511. The empty index is
// 512, one past the last bit, so "no index" can never address a bit.
class OifIndex {
public:
    static constexpr std::uint16_t count = 512;

    constexpr OifIndex() = default;
    constexpr explicit OifIndex(std::uint16_t value) : value_(value) {}

    constexpr std::uint16_t value() const { return value_; }
    constexpr bool isNull() const { return value_ >= count; }
    std::size_t hash() const { return value_; }
    constexpr bool operator==(const OifIndex&) const = default;
    constexpr std::strong_ordering operator<=>(const OifIndex&) const = default;

private:
    std::uint16_t value_ = count;
};

// One forwarding record.
class Route {
public:
    using RouteFlags = std::uint32_t;
    // The bits of the flag word this agent writes; the others belong to the
    // forwarding plane and are carried through unchanged.
    enum Flag : RouteFlags {
        toCpu = 0x2,                   // copy packets to the agent
        iifRegister = 0x4,             // the register tunnel is the incoming interface
        oifRegister = 0x8,             // register-encapsulate towards the RP
        noRpf = 0x10,                  // accept on any interface (source on a loopback)
        skipKernelProgramming = 0x20,  // the forwarding plane only, not the kernel
        notifyProgrammable = 0x40,     // the notify interface may be programmed
    };
    static constexpr unsigned bitmapWords = OifIndex::count / 64;

    // Walks the set bits of a record's bitmap in ascending order.
    class OifIterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = OifIndex;
        using difference_type = std::ptrdiff_t;
        using pointer = const OifIndex*;
        using reference = OifIndex;
        OifIterator() = default;
        OifIterator(const Route* route, OifIndex at) : route_(route), at_(at) {}
        OifIndex operator*() const { return at_; }
        OifIterator& operator++();
        OifIterator operator++(int) {
            auto old = *this;
            ++*this;
            return old;
        }
        bool operator==(const OifIterator& o) const { return at_ == o.at_; }

    private:
        const Route* route_ = nullptr;
        OifIndex at_;
    };
    struct OifRange {
        const Route* route;
        OifIterator begin() const { return {route, route->nextOif(OifIndex(0))}; }
        OifIterator end() const { return {route, OifIndex()}; }
    };

    Route() = default;
    explicit Route(const IpGenRouteKey& key) : key_(key) {}

    const IpGenRouteKey& key() const { return key_; }
    Wirl::IntfId iif() const { return iif_; }
    void iifIs(Wirl::IntfId i) { iif_ = i; }
    Wirl::IntfId iifFrr() const { return iifFrr_; }
    void iifFrrIs(Wirl::IntfId i) { iifFrr_ = i; }
    Wirl::IntfId notify() const { return notify_; }
    void notifyIs(Wirl::IntfId i) { notify_ = i; }
    Wirl::IntfId fastdrop() const { return fastdrop_; }
    void fastdropIs(Wirl::IntfId i) { fastdrop_ = i; }

    RouteFlags routeFlags() const { return routeFlags_; }
    void routeFlagsIs(RouteFlags f) { routeFlags_ = f; }
    bool flag(Flag f) const { return routeFlags_ & f; }
    void flagIs(Flag f, bool on) {
        routeFlags_ = on ? routeFlags_ | f : routeFlags_ & ~RouteFlags(f);
    }

    std::uint64_t oifBitmap(unsigned word) const { return bitmap_[word]; }
    void oifBitmapIs(unsigned word, std::uint64_t value) { bitmap_[word] = value; }
    bool oif(OifIndex i) const {
        return !i.isNull() && (bitmap_[i.value() / 64] >> (i.value() % 64)) & 1u;
    }
    void oifIs(OifIndex i, bool on);
    void oifDel(OifIndex i) { oifIs(i, false); }
    // The first set bit at or after `from`; the empty index when none.
    OifIndex nextOif(OifIndex from) const;
    // The number of set bits.
    unsigned oifs() const;
    OifRange oifIteratorConst() const { return {this}; }

    // The highest index the writer set; the empty index before any.
    OifIndex highestOifIndex() const { return highestOifIndex_; }
    void highestOifIndexIs(OifIndex i) { highestOifIndex_ = i; }

    bool operator==(const Route&) const = default;
    std::string str() const;

private:
    IpGenRouteKey key_;
    Wirl::IntfId iif_;
    Wirl::IntfId iifFrr_;
    Wirl::IntfId notify_;
    Wirl::IntfId fastdrop_;
    RouteFlags routeFlags_ = 0;
    OifIndex highestOifIndex_;
    std::array<std::uint64_t, bitmapWords> bitmap_{};
};

// One bitmap index in use: its interface and how many records set its bit.
struct OifIndexIntf {
    OifIndex index;
    Wirl::IntfId intf;
    std::uint32_t refCount = 0;
    bool operator==(const OifIndexIntf&) const = default;
};

class Status : public Cask::Record<Status> {
public:
    class Notifiee : public Cask::NotifieeOf<Status> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRoute(const IpGenRouteKey&) {}
        virtual void handleOifIndexIntf(OifIndex) {}
    };

    CASK_COLLECTION_COMMON(route, Route, IpGenRouteKey)
    // The record of `key`; null when absent.
    const Route* route(const IpGenRouteKey& key) const {
        auto it = route_.find(key);
        return it == route_.end() ? nullptr : &it->second;
    }
    // Writes a record (announced only when it differs from the one held).
    void routeIs(const Route& r) {
        ++routeWriteCount_;
        route_.is(*this, r.key(), r, &Notifiee::handleRoute);
    }
    // Every `routeIs` call, changed or not.
    std::uint64_t routeWriteCount() const { return routeWriteCount_; }

    CASK_VALUE_MAP(oifIndexIntf, OifIndexIntf, OifIndex, OifIndexIntf)
    void oifIndexIntfIs(const OifIndexIntf& r) { oifIndexIntfIs(r.index, r); }

    // Where readers report a table they found inconsistent.
    void corruptionHandlerIs(std::function<void(const std::string&)> h) {
        corruptionHandler_ = std::move(h);
    }
    void reportCorruption(const std::string& what);
    // Room for `n` records, so that growing to that many never rehashes.
    void routeCapacityIs(std::size_t n) { route_.reserve(n); }
    std::uint32_t corruptionCount() const { return corruptionCount_; }

private:
    // Records stay where they are while others are written: `route(key)`
    // hands out pointers, and a record is too large to move on every growth.
    Cask::ValueMap<IpGenRouteKey, Route,
                   Cask::GrowingTable<absl::node_hash_map<IpGenRouteKey, Route, Cask::FlatKeyHash>>>
        route_;
    Cask::ValueMap<OifIndex, OifIndexIntf> oifIndexIntf_;
    std::uint64_t routeWriteCount_ = 0;
    std::uint32_t corruptionCount_ = 0;
    std::function<void(const std::string&)> corruptionHandler_;
};

}  // namespace Tidal::Multicast::Fib

template <>
struct fmt::formatter<Routing::Multicast::Fib::IpGenRouteKey> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const Routing::Multicast::Fib::IpGenRouteKey& k, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(k.str(), ctx);
    }
};

template <>
struct fmt::formatter<Tidal::Multicast::Fib::OifIndex> : fmt::formatter<unsigned> {
    template <typename Ctx>
    auto format(Tidal::Multicast::Fib::OifIndex i, Ctx& ctx) const {
        return fmt::formatter<unsigned>::format(i.value(), ctx);
    }
};

template <>
struct fmt::formatter<Tidal::Multicast::Fib::Route> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const Tidal::Multicast::Fib::Route& r, Ctx& ctx) const {
        return fmt::formatter<std::string_view>::format(r.str(), ctx);
    }
};
