#pragma once
// The Assert exchange between the agent's assert machines and the PIM packet
// side of one VRF (RFC 7761 4.6).
//
// Incoming: `AssertMessageInfo` carries the last received Assert, decoded,
// with the interface it came in on; `rxCount` announces each one (the (S,G)
// assert machine watches it) and `wcRxCount` is how the (S,G) machine hands
// a message on to the (*,G) machine. `MrtMessageInfo` carries the last data
// upcall that matters to asserts: `rxCount` for a packet that arrived on an
// outgoing interface of a known route (wrong VIF), `wcRxCount` for one the
// forwarding plane had no entry for (no-cache).
//
// Requests: `AssertStatus` holds, per interface, what the assert machines
// want sent there: the keys this router is the assert winner for (repeated
// periodically), the keys to send an AssertCancel for (once each), and a
// single triggered winner Assert announced by `triggeredWinnerCount`.
//
// Outgoing: `IO::MessageInfo` is the transmit record. Each `count`
// increment is one Assert to send (`assertMessage` on `intfId`); the record
// also keeps a bounded log of what was sent, for display.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <string>

#include "cask/clock.h"
#include "cask/collection.h"
#include "platform/assert_metric.h"
#include "platform/membership.h"
#include "platform/route_key.h"
#include "wirl/intf_id.h"
#include "wirl/ip_gen_addr.h"

namespace Routing::Pim {

// One Assert message, decoded (RFC 7761 4.9.6). An Assert(*,G) carries the
// zero source and the RPT bit.
struct AssertMessage {
    Wirl::IpGenAddr group;
    Wirl::IpGenAddr source;
    bool rpt = false;
    std::uint32_t metricPreference = 0;
    std::uint32_t metric = 0;
    Wirl::IpGenAddr sender;  // the router that sent it (its address on the link)

    // The message for `key` offering `metric` (the metric's address is the
    // sender's, so it is not copied).
    static AssertMessage of(const RouteKey& key, const AssertMetric& metric);
    // An AssertCancel for `key`: RPT bit, infinite preference and metric.
    static AssertMessage cancel(const RouteKey& key) { return of(key, AssertMetric::infinite()); }
    RouteKey key() const { return RouteKey(source, group); }
    // The metric the sender offers, with its address.
    AssertMetric assertMetric() const {
        return AssertMetric{rpt, metricPreference, metric, sender};
    }
    bool isCancel() const {
        return rpt && metricPreference == AssertMetric::infinitePreference &&
               metric == AssertMetric::infiniteMetric;
    }
    bool operator==(const AssertMessage&) const = default;
    std::string str() const;
};

// The last received Assert of a VRF.
class AssertMessageInfo : public Cask::Record<AssertMessageInfo> {
public:
    class Notifiee : public Cask::NotifieeOf<AssertMessageInfo> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleMessage() {}
        virtual void handleIntfId() {}
        virtual void handleRxCount() {}
        virtual void handleWcRxCount() {}
    };
    CASK_ATTR(AssertMessage, message, Message)
    CASK_ATTR(Wirl::IntfId, intfId, IntfId)
    // One increment per received message.
    CASK_COUNTER(std::uint32_t, rxCount, RxCount)
    // Incremented by the (S,G) machine to hand `message` to the (*,G) machine.
    CASK_COUNTER(std::uint32_t, wcRxCount, WcRxCount)

private:
    AssertMessage message_;
    Wirl::IntfId intfId_;
    std::uint32_t rxCount_ = 0;
    std::uint32_t wcRxCount_ = 0;
};

// The last data upcall of a VRF that concerns the assert machines: the
// route (source, group) and the interface the packet arrived on.
class MrtMessageInfo : public Cask::Record<MrtMessageInfo> {
public:
    class Notifiee : public Cask::NotifieeOf<MrtMessageInfo> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleRouteIntf() {}
        virtual void handleRxCount() {}
        virtual void handleWcRxCount() {}
    };
    CASK_ATTR(Routing::Gmp::Tidal::RouteIntfKey, routeIntf, RouteIntf)
    // A packet arrived on an outgoing interface of a known route (wrong VIF).
    CASK_COUNTER(std::uint32_t, rxCount, RxCount)
    // A packet for which the forwarding plane had no entry (no-cache).
    CASK_COUNTER(std::uint32_t, wcRxCount, WcRxCount)

private:
    Routing::Gmp::Tidal::RouteIntfKey routeIntf_;
    std::uint32_t rxCount_ = 0;
    std::uint32_t wcRxCount_ = 0;
};

// What the assert machines want sent on one interface.
class IntfStatus : public Cask::Record<IntfStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<IntfStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleAssertWinner(const RouteKey&) {}
        virtual void handleAssertCancel(const RouteKey&) {}
        virtual void handleTriggeredWinnerKey() {}
        virtual void handleTriggeredWinnerMetric() {}
        virtual void handleTriggeredWinnerCount() {}
    };
    explicit IntfStatus(Wirl::IntfId intf) : intfId_(intf) {}
    Wirl::IntfId intfId() const { return intfId_; }

    // Routes this router is the assert winner for on the interface: their
    // Asserts are repeated every assert period. Ordered, so a walk can
    // resume at a bookmark.
    CASK_KEY_SET(assertWinner, AssertWinner, RouteKey)
    // Routes to send one AssertCancel for; each key leaves the set once sent.
    CASK_KEY_SET(assertCancel, AssertCancel, RouteKey)
    // A triggered winner Assert: set the key and metric, then increment the
    // count; each increment is one Assert.
    CASK_ATTR(RouteKey, triggeredWinnerKey, TriggeredWinnerKey)
    CASK_ATTR(AssertMetric, triggeredWinnerMetric, TriggeredWinnerMetric)
    CASK_COUNTER(std::uint32_t, triggeredWinnerCount, TriggeredWinnerCount)
    // Sets key and metric and increments the count, in that order.
    void triggeredWinnerIs(const RouteKey& key, const AssertMetric& metric) {
        triggeredWinnerKeyIs(key);
        triggeredWinnerMetricIs(metric);
        triggeredWinnerCountInc();
    }

    // Nothing left to send: no winners and no cancels.
    bool idle() const { return assertWinner_.empty() && assertCancel_.empty(); }

private:
    Wirl::IntfId intfId_;
    Cask::OrderedKeySet<RouteKey> assertWinner_;
    Cask::OrderedKeySet<RouteKey> assertCancel_;
    RouteKey triggeredWinnerKey_;
    AssertMetric triggeredWinnerMetric_;
    std::uint32_t triggeredWinnerCount_ = 0;
};

// The assert requests of a VRF, per interface.
class AssertStatus : public Cask::Record<AssertStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<AssertStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleIntf(Wirl::IntfId) {}
    };
    CASK_COLLECTION_COMMON(intf, Intf, Wirl::IntfId)
    IntfStatus* intf(Wirl::IntfId i) const { return intf_.raw(i); }
    // The interface's record, created (and announced) when absent.
    IntfStatus& intfIs(Wirl::IntfId i);

private:
    Cask::OrderedRecordMap<Wirl::IntfId, IntfStatus> intf_;
};

namespace IO {

// One Assert handed to the packet side, as remembered for display.
struct SentAssert {
    Cask::Seconds time = 0;
    Wirl::IntfId intf;
    RouteKey key;
    AssertMetric metric;  // offered (infinite for a cancel)
    bool cancel = false;
    bool operator==(const SentAssert&) const = default;
};

// The transmit record: each `count` increment is one Assert to send,
// `assertMessage` on `intfId`.
class MessageInfo : public Cask::Record<MessageInfo> {
public:
    class Notifiee : public Cask::NotifieeOf<MessageInfo> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleAssertMessage() {}
        virtual void handleIntfId() {}
        virtual void handleCount() {}
    };
    // How many sent Asserts the log keeps; older ones are dropped.
    static constexpr std::size_t logLimit = 4096;

    CASK_ATTR(AssertMessage, assertMessage, AssertMessage)
    CASK_ATTR(Wirl::IntfId, intfId, IntfId)
    CASK_COUNTER(std::uint32_t, count, Count)

    // Hands one Assert to the packet side: sets the message and interface,
    // logs it at `now`, then increments `count`.
    void send(Wirl::IntfId intf, const AssertMessage& m, Cask::Seconds now);

    // The last `logLimit` Asserts sent, oldest first.
    const std::deque<SentAssert>& sent() const { return sent_; }
    void sentDelAll() { sent_.clear(); }

private:
    AssertMessage assertMessage_;
    Wirl::IntfId intfId_;
    std::uint32_t count_ = 0;
    std::deque<SentAssert> sent_;
};

}  // namespace IO

}  // namespace Routing::Pim
