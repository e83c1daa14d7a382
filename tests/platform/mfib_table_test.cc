#include "platform/mfib_table.h"

#include <set>
#include <vector>

#include <gtest/gtest.h>

namespace Tidal::Multicast::Fib {
namespace {

Wirl::IpGenAddr addr(const char* text) {
    return *Wirl::IpGenAddr::parse(text);
}

TEST(MfibTable, BitmapOperationsAcrossWordBoundaries) {
    const std::vector<std::set<unsigned>> cases = {
        {}, {0}, {511}, {63, 64}, {0, 1, 2, 127, 128, 300, 511}, {64, 65, 191, 192, 448},
    };
    for (const auto& bits : cases) {
        Route r;
        for (unsigned b : bits) r.oifIs(OifIndex(std::uint16_t(b)), true);
        EXPECT_EQ(r.oifs(), bits.size());
        std::vector<unsigned> walked;
        for (OifIndex i : r.oifIteratorConst()) walked.push_back(i.value());
        EXPECT_EQ(walked, std::vector<unsigned>(bits.begin(), bits.end()));
        for (unsigned from = 0; from < OifIndex::count; ++from) {
            auto it = bits.lower_bound(from);
            const OifIndex want = it == bits.end() ? OifIndex() : OifIndex(std::uint16_t(*it));
            ASSERT_EQ(r.nextOif(OifIndex(std::uint16_t(from))), want) << "from " << from;
        }
        std::uint64_t word[Route::bitmapWords] = {};
        for (unsigned b : bits) word[b / 64] |= std::uint64_t(1) << (b % 64);
        for (unsigned w = 0; w < Route::bitmapWords; ++w) EXPECT_EQ(r.oifBitmap(w), word[w]);
        for (unsigned b : bits) r.oifDel(OifIndex(std::uint16_t(b)));
        EXPECT_EQ(r, Route());
    }
    // The empty index addresses no bit.
    Route r;
    r.oifIs(OifIndex(), true);
    EXPECT_EQ(r.oifs(), 0u);
    EXPECT_FALSE(r.oif(OifIndex()));
    EXPECT_TRUE(r.nextOif(OifIndex()).isNull());
}

TEST(MfibTable, KeysConvertBothWays) {
    for (const auto& key : {Routing::Pim::RouteKey::wc(addr("239.1.1.1")),
                            Routing::Pim::RouteKey(addr("10.0.0.1"), addr("239.1.1.1")),
                            Routing::Pim::RouteKey(addr("2001:db8::1"), addr("ff0e::1"))}) {
        const auto fib = Routing::Multicast::Fib::convertKey(key);
        EXPECT_EQ(fib.wildcard(), key.isWc());
        EXPECT_EQ(Routing::Multicast::Fib::convertKey(fib), key);
        EXPECT_EQ(fib.str(), key.str());
    }
}

TEST(MfibTable, EveryWriteIsCountedButOnlyChangesAreAnnounced) {
    struct Watcher : Status::Notifiee {
        using Status::Notifiee::Notifiee;
        void handleRoute(const IpGenRouteKey&) override { ++calls; }
        int calls = 0;
    };
    auto table = Cask::make<Status>();
    Watcher w(table.get());
    Route r(Routing::Multicast::Fib::convertKey(Routing::Pim::RouteKey::wc(addr("239.1.1.1"))));
    r.iifIs(Wirl::IntfId("up"));
    table->routeIs(r);
    table->routeIs(r);
    EXPECT_EQ(table->routeWriteCount(), 2u);
    EXPECT_EQ(w.calls, 1);
    r.flagIs(Route::toCpu, true);
    table->routeIs(r);
    EXPECT_EQ(w.calls, 2);
    ASSERT_TRUE(table->route(r.key()));
    EXPECT_EQ(table->route(r.key())->routeFlags(), 0x2u);
}

}  // namespace
}  // namespace Tidal::Multicast::Fib
