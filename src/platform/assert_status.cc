#include "platform/assert_status.h"

#include <fmt/format.h>

namespace Routing::Pim {

AssertMessage AssertMessage::of(const RouteKey& key, const AssertMetric& metric) {
    AssertMessage m;
    m.group = key.group();
    m.source = key.source();
    m.rpt = metric.rptBit;
    m.metricPreference = metric.metricPreference;
    m.metric = metric.metric;
    return m;
}

std::string AssertMessage::str() const {
    return fmt::format("{} rpt {} pref {:#x} metric {:#x} from {}", key(), rpt ? 1 : 0,
                       metricPreference, metric, sender);
}

IntfStatus& AssertStatus::intfIs(Wirl::IntfId i) {
    if (IntfStatus* s = intf_.raw(i)) return *s;
    auto s = Cask::make<IntfStatus>(i);
    intf_.is(*this, i, s, &Notifiee::handleIntf,
             "null _intf parameter to mutator for Routing::Pim::AssertStatus::intf not allowed");
    return *s;
}

namespace IO {

void MessageInfo::send(Wirl::IntfId intf, const AssertMessage& m, Cask::Seconds now) {
    assertMessageIs(m);
    intfIdIs(intf);
    if (sent_.size() >= logLimit) sent_.pop_front();
    sent_.push_back(SentAssert{now, intf, m.key(), m.assertMetric(), m.isCancel()});
    countInc();
}

}  // namespace IO

}  // namespace Routing::Pim
