#include "wirl/address_range_set.h"

#include <bit>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <type_traits>

namespace Wirl {

namespace {

__extension__ using Key6 = unsigned __int128;

// ICL decides from these traits whether closed intervals can be joined by stepping to the
// next value; a 128-bit key that failed them would silently keep [a,b] and [b+1,c] apart
// and break equality.
static_assert(boost::icl::is_discrete<Key6>::value);
static_assert(boost::icl::is_numeric<Key6>::value);
static_assert(std::numeric_limits<Key6>::digits == 128);

template <typename K>
K toKey(const IpGenAddr& addr) {
    if constexpr (std::is_same_v<K, std::uint32_t>) {
        return addr.v4HostOrder();
    } else {
        K key = 0;
        for (std::uint8_t b : addr.bytes()) key = key << 8 | b;
        return key;
    }
}

template <typename K>
IpGenAddr fromKey(K key) {
    if constexpr (std::is_same_v<K, std::uint32_t>) {
        return IpGenAddr::v4(key);
    } else {
        IpGenAddr::Bytes bytes;
        for (int i = 15; i >= 0; --i) {
            bytes[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(key);
            key >>= 8;
        }
        return IpGenAddr::v6(bytes);
    }
}

template <typename K>
unsigned trailingZeros(K key) {
    if constexpr (std::is_same_v<K, std::uint32_t>) {
        return static_cast<unsigned>(std::countr_zero(key));
    } else {
        auto low = static_cast<std::uint64_t>(key);
        if (low != 0) return static_cast<unsigned>(std::countr_zero(low));
        return 64 + static_cast<unsigned>(std::countr_zero(static_cast<std::uint64_t>(key >> 64)));
    }
}

// Splits [lo, hi] into the fewest CIDR blocks: at each step the largest block that starts
// at `lo` (limited by lo's alignment) and does not run past `hi`.
template <typename K>
void appendPrefixes(K lo, K hi, std::vector<IpGenPrefix>& out) {
    constexpr unsigned width = std::numeric_limits<K>::digits;
    constexpr K all = std::numeric_limits<K>::max();
    while (true) {
        K span = hi - lo;
        unsigned k = lo == 0 ? width : trailingZeros(lo);
        // A block of 2^k addresses ends at lo + 2^k - 1; 2^width itself is not a K.
        auto blockSpan = [](unsigned bits) { return bits == width ? all : (K{1} << bits) - 1; };
        while (blockSpan(k) > span) --k;
        out.push_back(IpGenPrefix(fromKey(lo), width - k));
        K blockLast = lo + blockSpan(k);
        if (blockLast == hi) return;
        lo = blockLast + 1;
    }
}

template <typename K>
boost::icl::closed_interval<K, std::less> toInterval(const IpGenPrefix& p) {
    return {toKey<K>(p.first()), toKey<K>(p.last())};
}

// Calls f(set, std::type_identity<K>{}) with the family's interval set and its key type K,
// so that each operation converts addresses with toKey<K> / toInterval<K> once.
template <class Sets, class F>
decltype(auto) visitKeyed(Sets& sets, F&& f) {
    return std::visit(
        [&](auto& set) {
            using K = typename std::decay_t<decltype(set)>::domain_type;
            return f(set, std::type_identity<K>{});
        },
        sets);
}

}  // namespace

AddressRangeSet::AddressRangeSet(AddressFamily family) : family_(family) {
    switch (family) {
        case AddressFamily::ipv4:
            set_.emplace<Set<std::uint32_t>>();
            return;
        case AddressFamily::ipv6:
            set_.emplace<Set<Key6>>();
            return;
        case AddressFamily::ipunknown:
            break;
    }
    throw std::invalid_argument("AddressRangeSet needs an address family");
}

AddressRangeSet AddressRangeSet::defaultSsm(AddressFamily family) {
    AddressRangeSet set(family);
    if (family == AddressFamily::ipv4) {
        set.add(IpGenPrefix(IpGenAddr::v4(232u << 24), 8));
        return set;
    }
    for (std::uint8_t scope = 0; scope < 16; ++scope) {
        IpGenAddr::Bytes bytes{};
        bytes[0] = 0xff;
        bytes[1] = static_cast<std::uint8_t>(0x30 | scope);
        set.add(IpGenPrefix(IpGenAddr::v6(bytes), 32));
    }
    return set;
}

void AddressRangeSet::checkFamily(AddressFamily family) const {
    if (family != family_) {
        throw std::invalid_argument(std::string("AddressRangeSet of ") + familyName(family_) +
                                    " given an address of " + familyName(family));
    }
}

void AddressRangeSet::add(const IpGenPrefix& prefix) {
    add(prefix.first(), prefix.last());
}

void AddressRangeSet::add(const IpGenAddr& first, const IpGenAddr& last) {
    checkFamily(first.family());
    checkFamily(last.family());
    if (last < first) throw std::invalid_argument("AddressRangeSet range ends before it starts");
    visitKeyed(set_, [&]<class K>(auto& set, std::type_identity<K>) {
        set.add({toKey<K>(first), toKey<K>(last)});
    });
}

void AddressRangeSet::remove(const IpGenPrefix& prefix) {
    remove(prefix.first(), prefix.last());
}

void AddressRangeSet::remove(const IpGenAddr& first, const IpGenAddr& last) {
    checkFamily(first.family());
    checkFamily(last.family());
    if (last < first) throw std::invalid_argument("AddressRangeSet range ends before it starts");
    visitKeyed(set_, [&]<class K>(auto& set, std::type_identity<K>) {
        set.subtract({toKey<K>(first), toKey<K>(last)});
    });
}

bool AddressRangeSet::contains(const IpGenAddr& addr) const {
    if (addr.family() != family_) return false;
    return visitKeyed(set_, [&]<class K>(const auto& set, std::type_identity<K>) {
        return boost::icl::contains(set, toKey<K>(addr));
    });
}

bool AddressRangeSet::containsAll(const IpGenPrefix& prefix) const {
    if (prefix.family() != family_) return false;
    return visitKeyed(set_, [&]<class K>(const auto& set, std::type_identity<K>) {
        return boost::icl::contains(set, toInterval<K>(prefix));
    });
}

bool AddressRangeSet::intersects(const IpGenPrefix& prefix) const {
    if (prefix.family() != family_) return false;
    return visitKeyed(set_, [&]<class K>(const auto& set, std::type_identity<K>) {
        return set.find(toInterval<K>(prefix)) != set.end();
    });
}

bool AddressRangeSet::empty() const {
    return std::visit([](const auto& set) { return set.empty(); }, set_);
}

void AddressRangeSet::clear() {
    std::visit([](auto& set) { set.clear(); }, set_);
}

std::vector<IpGenPrefix> AddressRangeSet::prefixes() const {
    std::vector<IpGenPrefix> out;
    std::visit(
        [&](const auto& set) {
            for (const auto& iv : set) appendPrefixes(iv.lower(), iv.upper(), out);
        },
        set_);
    return out;
}

std::string AddressRangeSet::str() const {
    std::string out;
    for (const IpGenPrefix& p : prefixes()) {
        if (!out.empty()) out += ", ";
        out += p.str();
    }
    return out;
}

std::ostream& operator<<(std::ostream& os, const AddressRangeSet& set) {
    return os << set.str();
}

}  // namespace Wirl
