// AddressRangeSet: an arbitrary set of addresses of one family, kept as disjoint closed
// intervals in a boost::icl::interval_set. SSM ranges, group filters and multicast
// boundaries are unions of prefixes with holes cut out of them, and membership is asked
// for every packet and join, so contains() is a single O(log n) lookup however the set
// was built. Adjacent and overlapping ranges are merged as they are added, which makes
// two sets holding the same addresses compare equal.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <fmt/format.h>
#include <boost/icl/closed_interval.hpp>
#include <boost/icl/interval_set.hpp>

#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"

namespace Wirl {

class AddressRangeSet {
public:
    // Throws std::invalid_argument for ipunknown.
    explicit AddressRangeSet(AddressFamily family);

    // The source-specific multicast range (RFC 4607): 232.0.0.0/8 for IPv4, and for IPv6
    // ff3x::/32 for every scope x, i.e. the sixteen blocks ff30::/32 ... ff3f::/32.
    static AddressRangeSet defaultSsm(AddressFamily family);

    AddressFamily family() const { return family_; }

    // Adding or removing addresses of the other family throws std::invalid_argument, as
    // does a range whose first address is above its last.
    void add(const IpGenPrefix& prefix);
    void add(const IpGenAddr& first, const IpGenAddr& last);
    void remove(const IpGenPrefix& prefix);
    void remove(const IpGenAddr& first, const IpGenAddr& last);

    // Queries with an address or prefix of the other family answer false.
    bool contains(const IpGenAddr& addr) const;
    bool containsAll(const IpGenPrefix& prefix) const;  // the whole block is in the set
    bool intersects(const IpGenPrefix& prefix) const;   // any address of it is

    bool empty() const;
    void clear();

    bool operator==(const AddressRangeSet& other) const = default;

    // The fewest prefixes whose union is exactly this set, in address order.
    std::vector<IpGenPrefix> prefixes() const;
    // The prefixes joined by ", "; empty text for the empty set.
    std::string str() const;

private:
    __extension__ using Key6 = unsigned __int128;
    template <typename K>
    using Set = boost::icl::interval_set<K, std::less, boost::icl::closed_interval<K, std::less>>;

    void checkFamily(AddressFamily family) const;

    AddressFamily family_;
    std::variant<Set<std::uint32_t>, Set<Key6>> set_;
};

std::ostream& operator<<(std::ostream& os, const AddressRangeSet& set);

}  // namespace Wirl

template <>
struct fmt::formatter<Wirl::AddressRangeSet> : fmt::formatter<std::string_view> {
    template <typename FormatContext>
    auto format(const Wirl::AddressRangeSet& set, FormatContext& ctx) const {
        return fmt::formatter<std::string_view>::format(set.str(), ctx);
    }
};
