#pragma once
// What the whole-agent benchmarks share when they build their scenario and
// time it: address and prefix literals, a PIM interface with a /24, wall
// seconds, and the heap in use.

#include <chrono>
#include <string_view>

#include "alloc_count.h"
#include "driver/scenario.h"
#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"

namespace Bench {

using WallClock = std::chrono::steady_clock;

inline double seconds(WallClock::duration d) {
    return std::chrono::duration<double>(d).count();
}
inline Wirl::IpGenAddr addr(std::string_view text) {
    return *Wirl::IpGenAddr::parse(text);
}
inline Wirl::IpGenPrefix prefix(std::string_view text) {
    return *Wirl::IpGenPrefix::parse(text);
}
// A PIM interface with this router's address `a` on a /24; `dr`: this
// router is its DR.
inline Driver::InterfaceSpec interfaceSpec(std::string_view name, std::string_view a, bool dr) {
    Driver::InterfaceSpec i;
    i.name = Wirl::IntfId(name);
    i.addr = addr(a);
    i.address = Wirl::IpGenPrefix(i.addr, 24);
    i.dr = dr;
    return i;
}
inline double heapBytes() {
    return double(heapBytesInUse());
}

}  // namespace Bench
