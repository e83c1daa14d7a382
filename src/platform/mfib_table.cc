#include "platform/mfib_table.h"

#include <bit>

namespace Routing::Multicast::Fib {

std::string IpGenRouteKey::str() const {
    if (wildcard_) return fmt::format("(*, {})", group_);
    return fmt::format("({}, {})", source_, group_);
}

IpGenRouteKey convertKey(const Routing::Pim::RouteKey& key) {
    return IpGenRouteKey(key.source(), key.group(), key.isWc());
}

Routing::Pim::RouteKey convertKey(const IpGenRouteKey& key) {
    if (key.wildcard()) return Routing::Pim::RouteKey::wc(key.group());
    return Routing::Pim::RouteKey(key.source(), key.group());
}

}  // namespace Routing::Multicast::Fib

namespace Tidal::Multicast::Fib {

Route::OifIterator& Route::OifIterator::operator++() {
    at_ = at_.isNull() ? at_ : route_->nextOif(OifIndex(at_.value() + 1));
    return *this;
}

void Route::oifIs(OifIndex i, bool on) {
    if (i.isNull()) return;
    const std::uint64_t bit = std::uint64_t(1) << (i.value() % 64);
    auto& word = bitmap_[i.value() / 64];
    word = on ? word | bit : word & ~bit;
}

OifIndex Route::nextOif(OifIndex from) const {
    for (unsigned w = from.value() / 64; w < bitmapWords; ++w) {
        std::uint64_t word = bitmap_[w];
        // Mask off the bits below `from` in its own word only.
        if (w == from.value() / 64u) word &= ~std::uint64_t(0) << (from.value() % 64);
        if (word) return OifIndex(std::uint16_t(w * 64 + std::countr_zero(word)));
    }
    return OifIndex();
}

unsigned Route::oifs() const {
    unsigned n = 0;
    for (auto w : bitmap_) n += std::popcount(w);
    return n;
}

std::string Route::str() const {
    std::string oifList;
    for (OifIndex i : oifIteratorConst()) {
        if (!oifList.empty()) oifList += ',';
        oifList += fmt::format("{}", i.value());
    }
    return fmt::format("{} iif {} iifFrr {} notify {} fastdrop {} flags 0x{:x} oifs [{}]", key_,
                       iif_, iifFrr_, notify_, fastdrop_, routeFlags_, oifList);
}

void Status::reportCorruption(const std::string& what) {
    ++corruptionCount_;
    if (corruptionHandler_) corruptionHandler_(what);
}

}  // namespace Tidal::Multicast::Fib
