// PrefixTrie: a set of address prefixes of one family with longest-prefix match.
//
// It is kept as one hash set of prefixes plus the distinct prefix lengths present,
// longest first. A lookup masks the address to each present length in turn and probes
// the set, so it costs one hash probe per distinct length, not one node per bit. The
// sets this serves (group ranges of access lists, RP mappings) hold a handful of
// lengths (/4, /8, /16, /24, /32), where a per-bit binary trie would chase up to 32
// (IPv4) or 128 (IPv6) nodes per lookup and allocate a node per branch; inserting or
// erasing touches one hash entry and, at most, the short list of lengths.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <unordered_set>
#include <vector>

#include "wirl/address_family.h"
#include "wirl/ip_gen_addr.h"
#include "wirl/ip_gen_prefix.h"

namespace Wirl {

class PrefixTrie {
public:
    // Throws std::invalid_argument for ipunknown.
    explicit PrefixTrie(AddressFamily family) : family_(family) {
        if (familyBits(family) == 0) throw std::invalid_argument("PrefixTrie needs a family");
    }

    AddressFamily family() const { return family_; }
    std::size_t size() const { return set_.size(); }
    bool empty() const { return set_.empty(); }
    bool contains(const IpGenPrefix& prefix) const { return set_.count(prefix) != 0; }

    // Returns whether the prefix was new. A prefix of the other family throws
    // std::invalid_argument.
    bool insert(const IpGenPrefix& prefix) {
        if (prefix.family() != family_) throw std::invalid_argument("PrefixTrie: wrong family");
        if (!set_.insert(prefix).second) return false;
        if (perLength_[prefix.length()]++ == 0) {
            lengths_.insert(std::upper_bound(lengths_.begin(), lengths_.end(), prefix.length(),
                                             [](unsigned a, unsigned b) { return a > b; }),
                            static_cast<std::uint8_t>(prefix.length()));
        }
        return true;
    }

    // Returns whether the prefix was there.
    bool erase(const IpGenPrefix& prefix) {
        if (set_.erase(prefix) == 0) return false;
        if (--perLength_[prefix.length()] == 0) {
            lengths_.erase(std::find(lengths_.begin(), lengths_.end(), prefix.length()));
        }
        return true;
    }

    // The longest prefix holding `addr`; none when no prefix does or `addr` is of the
    // other family.
    std::optional<IpGenPrefix> longestMatch(const IpGenAddr& addr) const {
        if (addr.family() != family_) return std::nullopt;
        for (unsigned length : lengths_) {
            IpGenPrefix candidate(addr, length);
            if (set_.count(candidate)) return candidate;
        }
        return std::nullopt;
    }

    // Every prefix, in address order (then shorter first).
    std::vector<IpGenPrefix> prefixes() const {
        std::vector<IpGenPrefix> out(set_.begin(), set_.end());
        std::sort(out.begin(), out.end());
        return out;
    }

    void clear() {
        set_.clear();
        lengths_.clear();
        perLength_.fill(0);
    }

private:
    AddressFamily family_;
    std::unordered_set<IpGenPrefix> set_;
    std::vector<std::uint8_t> lengths_;              // present lengths, longest first
    std::array<std::uint32_t, 129> perLength_ = {};  // prefixes of each length
};

}  // namespace Wirl
