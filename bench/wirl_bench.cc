// Benchmarks for the address layer: hashing addresses (route-table keys) and range-set
// membership (SSM and boundary checks on every join and packet).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "wirl/address_range_set.h"
#include "wirl/ip_gen_addr.h"

namespace {

using Wirl::AddressFamily;
using Wirl::AddressRangeSet;
using Wirl::IpGenAddr;
using Wirl::IpGenPrefix;

std::vector<IpGenAddr> makeAddrs(AddressFamily family, std::size_t n) {
    std::vector<IpGenAddr> out;
    out.reserve(n);
    std::uint64_t x = 0x2545f4914f6cdd1dULL;
    for (std::size_t i = 0; i < n; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        if (family == AddressFamily::ipv4) {
            out.push_back(IpGenAddr::v4(static_cast<std::uint32_t>(x)));
        } else {
            IpGenAddr::Bytes b{};
            for (int k = 0; k < 8; ++k) b[8 + k] = static_cast<std::uint8_t>(x >> (8 * k));
            b[0] = 0x20;
            b[1] = 0x01;
            out.push_back(IpGenAddr::v6(b));
        }
    }
    return out;
}

void BM_IpGenAddrHash(benchmark::State& state) {
    auto family = state.range(0) == 4 ? AddressFamily::ipv4 : AddressFamily::ipv6;
    auto addrs = makeAddrs(family, 1024);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(addrs[i++ & 1023].hash());
    }
}
BENCHMARK(BM_IpGenAddrHash)->Arg(4)->Arg(6);

// A set of `range(0)` disjoint /24 blocks, probed with random addresses.
void BM_AddressRangeSetContains(benchmark::State& state) {
    AddressRangeSet set(AddressFamily::ipv4);
    for (std::int64_t k = 0; k < state.range(0); ++k) {
        set.add(IpGenPrefix(IpGenAddr::v4(static_cast<std::uint32_t>(k) << 9), 24));
    }
    auto probes = makeAddrs(AddressFamily::ipv4, 1024);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(set.contains(probes[i++ & 1023]));
    }
}
BENCHMARK(BM_AddressRangeSetContains)->Arg(16)->Arg(1024)->Arg(65536);

void BM_AddressRangeSetContainsV6Ssm(benchmark::State& state) {
    auto set = AddressRangeSet::defaultSsm(AddressFamily::ipv6);
    auto probes = makeAddrs(AddressFamily::ipv6, 1024);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(set.contains(probes[i++ & 1023]));
    }
}
BENCHMARK(BM_AddressRangeSetContainsV6Ssm);

}  // namespace
