// PrefixTrie: a set of address prefixes of one family with longest-prefix match.
//
// The prefixes are kept per length, each length as a sorted array of the prefixes'
// address bits, the lengths longest first. A lookup masks the address to each present
// length in turn and binary-searches that array, so it costs one short search per
// distinct length and allocates nothing. The sets this serves (group ranges of access
// lists, RP mappings) hold a handful of lengths (/4, /8, /16, /24, /32), where a per-bit
// binary trie would chase up to 32 (IPv4) or 128 (IPv6) nodes per lookup and allocate a
// node per branch. They change only with configuration, so the linear cost of inserting
// into a sorted array buys compact, cache-friendly lookups.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
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
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    bool contains(const IpGenPrefix& prefix) const {
        const Level* level = find(prefix.length());
        return level &&
               std::binary_search(level->keys.begin(), level->keys.end(), keyOf(prefix.addr()));
    }

    // Returns whether the prefix was new. A prefix of the other family throws
    // std::invalid_argument.
    bool insert(const IpGenPrefix& prefix) {
        if (prefix.family() != family_) throw std::invalid_argument("PrefixTrie: wrong family");
        auto level = std::lower_bound(levels_.begin(), levels_.end(), prefix.length(),
                                      [](const Level& l, unsigned len) { return l.length > len; });
        if (level == levels_.end() || level->length != prefix.length()) {
            level = levels_.insert(level, Level{static_cast<std::uint8_t>(prefix.length()), {}});
        }
        const Key key = keyOf(prefix.addr());
        auto at = std::lower_bound(level->keys.begin(), level->keys.end(), key);
        if (at != level->keys.end() && *at == key) return false;
        level->keys.insert(at, key);
        ++size_;
        return true;
    }

    // Returns whether the prefix was there.
    bool erase(const IpGenPrefix& prefix) {
        if (prefix.family() != family_) return false;
        auto level = std::find_if(levels_.begin(), levels_.end(),
                                  [&](const Level& l) { return l.length == prefix.length(); });
        if (level == levels_.end()) return false;
        const Key key = keyOf(prefix.addr());
        auto at = std::lower_bound(level->keys.begin(), level->keys.end(), key);
        if (at == level->keys.end() || *at != key) return false;
        level->keys.erase(at);
        if (level->keys.empty()) levels_.erase(level);
        --size_;
        return true;
    }

    // The longest prefix holding `addr`; none when no prefix does or `addr` is of the
    // other family.
    std::optional<IpGenPrefix> longestMatch(const IpGenAddr& addr) const {
        if (addr.family() != family_) return std::nullopt;
        const Key key = keyOf(addr);
        for (const Level& level : levels_) {
            if (std::binary_search(level.keys.begin(), level.keys.end(),
                                   key & mask(level.length))) {
                return IpGenPrefix(addr, level.length);
            }
        }
        return std::nullopt;
    }

    // Every prefix, in address order (then shorter first).
    std::vector<IpGenPrefix> prefixes() const {
        std::vector<IpGenPrefix> out;
        out.reserve(size_);
        for (const Level& level : levels_) {
            for (Key key : level.keys) out.emplace_back(addrOf(key), level.length);
        }
        std::sort(out.begin(), out.end());
        return out;
    }

    void clear() {
        levels_.clear();
        size_ = 0;
    }

private:
    // An address's bits, first bit highest; IPv4 fills the top 32.
    __extension__ using Key = unsigned __int128;
    struct Level {
        std::uint8_t length;
        std::vector<Key> keys;  // sorted, host bits clear
    };

    static Key keyOf(const IpGenAddr& addr) {
        Key key = 0;
        unsigned shift = 128;
        for (std::uint8_t byte : addr.bytes()) key |= Key{byte} << (shift -= 8);
        return key;
    }
    IpGenAddr addrOf(Key key) const {
        if (family_ == AddressFamily::ipv4)
            return IpGenAddr::v4(static_cast<std::uint32_t>(key >> 96));
        IpGenAddr::Bytes bytes;
        for (unsigned i = 0; i < 16; ++i)
            bytes[i] = static_cast<std::uint8_t>(key >> (120 - 8 * i));
        return IpGenAddr::v6(bytes);
    }
    static Key mask(unsigned length) { return length == 0 ? Key{0} : ~Key{0} << (128 - length); }
    const Level* find(unsigned length) const {
        for (const Level& l : levels_) {
            if (l.length == length) return &l;
        }
        return nullptr;
    }

    AddressFamily family_;
    std::vector<Level> levels_;  // longest first, none empty
    std::size_t size_ = 0;
};

}  // namespace Wirl
