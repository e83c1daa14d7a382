#pragma once
// AssertMetric: what a router offers in an Assert (RFC 7761 4.6.3).
//
// `a < b` means a is preferred over b: lower RPT bit, then lower metric
// preference, then lower metric, then the HIGHER address. The default
// metric is the infinite one (RPT bit set, preference and metric at their
// maximum, no address), which every real metric beats. An AssertCancel
// carries the infinite preference and metric with the RPT bit set.
//
// It lives with the platform records because the Assert messages received
// and sent carry it; the route table uses the same type.

#include <compare>
#include <cstdint>
#include <string>

#include "wirl/ip_gen_addr.h"

namespace Routing::Pim {

struct AssertMetric {
    static constexpr std::uint32_t infinitePreference = 0x7fffffff;
    static constexpr std::uint32_t infiniteMetric = 0xffffffff;

    bool rptBit = true;
    std::uint32_t metricPreference = infinitePreference;
    std::uint32_t metric = infiniteMetric;
    Wirl::IpGenAddr address;

    static AssertMetric infinite() { return AssertMetric{}; }
    bool isInfinite() const { return *this == infinite(); }

    bool operator==(const AssertMetric&) const = default;
    // Ordered by preference: the lesser metric is the better one.
    std::strong_ordering operator<=>(const AssertMetric& o) const {
        if (auto c = rptBit <=> o.rptBit; c != 0) return c;
        if (auto c = metricPreference <=> o.metricPreference; c != 0) return c;
        if (auto c = metric <=> o.metric; c != 0) return c;
        return o.address <=> address;  // higher address wins
    }
    std::string str() const;
};

}  // namespace Routing::Pim
