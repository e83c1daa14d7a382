#include "wirl/ip_gen_prefix.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

namespace Wirl {

namespace {

IpGenAddr::Bytes copyBytes(const IpGenAddr& addr) {
    IpGenAddr::Bytes out{};
    auto in = addr.bytes();
    std::copy(in.begin(), in.end(), out.begin());
    return out;
}

IpGenAddr fromBytes(AddressFamily family, const IpGenAddr::Bytes& b) {
    if (family == AddressFamily::ipv6) return IpGenAddr::v6(b);
    return IpGenAddr::v4(std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 |
                         std::uint32_t{b[2]} << 8 | std::uint32_t{b[3]});
}

// Bits of byte `i` that belong to the network part of a /length prefix.
std::uint8_t networkMask(unsigned i, unsigned length) {
    if (length >= 8 * (i + 1)) return 0xff;
    if (length <= 8 * i) return 0;
    return static_cast<std::uint8_t>(0xff << (8 * (i + 1) - length));
}

// Parses a decimal prefix length of at most three digits; leading zeros and signs are
// refused so that every length has one spelling.
std::optional<unsigned> parseLength(std::string_view text) {
    if (text.empty() || text.size() > 3 || (text.size() > 1 && text[0] == '0')) {
        return std::nullopt;
    }
    unsigned value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return value;
}

}  // namespace

IpGenPrefix::IpGenPrefix(const IpGenAddr& addr, unsigned length) {
    unsigned bits = familyBits(addr.family());
    if (bits == 0) throw std::invalid_argument("IpGenPrefix needs an address of a known family");
    if (length > bits) throw std::invalid_argument("IpGenPrefix length exceeds address width");
    addr_ = addr.masked(length);
    length_ = static_cast<std::uint8_t>(length);
}

std::optional<IpGenPrefix> IpGenPrefix::parse(std::string_view text) {
    std::size_t slash = text.find('/');
    auto addr = IpGenAddr::parse(text.substr(0, slash));
    if (!addr) return std::nullopt;
    if (slash == std::string_view::npos) return hostPrefix(*addr);
    auto length = parseLength(text.substr(slash + 1));
    if (!length || *length > familyBits(addr->family())) return std::nullopt;
    return IpGenPrefix(*addr, *length);
}

IpGenPrefix IpGenPrefix::hostPrefix(const IpGenAddr& addr) {
    return IpGenPrefix(addr, familyBits(addr.family()));
}

IpGenAddr IpGenPrefix::last() const {
    unsigned bits = familyBits(family());
    if (bits == 0) return addr_;
    IpGenAddr::Bytes b = copyBytes(addr_);
    for (unsigned i = 0; i < bits / 8; ++i) {
        b[i] |= static_cast<std::uint8_t>(~networkMask(i, length_));
    }
    return fromBytes(family(), b);
}

bool IpGenPrefix::contains(const IpGenAddr& addr) const {
    if (addr.family() != family() || family() == AddressFamily::ipunknown) return false;
    auto mine = addr_.bytes();
    auto theirs = addr.bytes();
    for (unsigned i = 0; i < mine.size(); ++i) {
        std::uint8_t mask = networkMask(i, length_);
        if (mask == 0) break;
        if ((theirs[i] & mask) != mine[i]) return false;
    }
    return true;
}

bool IpGenPrefix::contains(const IpGenPrefix& other) const {
    return other.length_ >= length_ && contains(other.addr_);
}

std::string IpGenPrefix::str() const {
    return addr_.str() + '/' + std::to_string(length_);
}

std::size_t IpGenPrefix::hash() const {
    // The length goes in multiplied by an odd constant so that 10.0.0.0/8 and
    // 10.0.0.0/16 land far apart.
    return addr_.hash() ^ (std::size_t{length_} + 1) * 0x9e3779b97f4a7c15ULL;
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& prefix) {
    return os << prefix.str();
}

}  // namespace Wirl
