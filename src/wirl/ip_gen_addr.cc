#include "wirl/ip_gen_addr.h"

#include <cstring>
#include <ostream>

namespace Wirl {

namespace {

// Own parsers rather than inet_pton: a string_view need not be NUL-terminated (and may
// hold an embedded NUL that inet_pton would stop at), and the accepted syntax should not
// depend on the C library (leading zeros in an octet, for one, differ between them).

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Exactly four decimal octets 0-255. A leading zero ("01") is refused because
// inet_aton reads it as octal, so the same text would name two different addresses.
bool parseDottedQuad(std::string_view text, std::uint8_t* out) {
    int octets = 0;
    std::size_t i = 0;
    while (true) {
        std::size_t start = i;
        unsigned value = 0;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i - start < 3) {
            value = value * 10 + static_cast<unsigned>(text[i] - '0');
            ++i;
        }
        std::size_t digits = i - start;
        if (digits == 0 || value > 255 || (digits > 1 && text[start] == '0')) return false;
        out[octets++] = static_cast<std::uint8_t>(value);
        if (octets == 4) return i == text.size();
        if (i >= text.size() || text[i] != '.') return false;
        ++i;
    }
}

// Parses one side of "::" (or the whole address when there is none) into 16-bit groups.
// A dotted quad is allowed as the last piece only when `v4Tail` says this side ends the
// address; it counts as two groups.
bool parseGroups(std::string_view text, bool v4Tail, std::uint16_t* groups, int& count) {
    count = 0;
    if (text.empty()) return true;
    std::size_t i = 0;
    while (true) {
        std::size_t end = text.find(':', i);
        std::string_view piece = text.substr(i, end == std::string_view::npos ? end : end - i);
        bool last = end == std::string_view::npos;
        if (piece.find('.') != std::string_view::npos) {
            std::uint8_t quad[4];
            if (!last || !v4Tail || count > 6 || !parseDottedQuad(piece, quad)) return false;
            groups[count++] = static_cast<std::uint16_t>(quad[0] << 8 | quad[1]);
            groups[count++] = static_cast<std::uint16_t>(quad[2] << 8 | quad[3]);
            return true;
        }
        if (piece.empty() || piece.size() > 4 || count == 8) return false;
        unsigned value = 0;
        for (char c : piece) {
            int h = hexValue(c);
            if (h < 0) return false;
            value = value << 4 | static_cast<unsigned>(h);
        }
        groups[count++] = static_cast<std::uint16_t>(value);
        if (last) return true;
        i = end + 1;
    }
}

bool parseV6(std::string_view text, IpGenAddr::Bytes& out) {
    std::uint16_t head[8];
    std::uint16_t tail[8];
    int headCount = 0;
    int tailCount = 0;
    std::size_t gap = text.find("::");
    if (gap == std::string_view::npos) {
        if (!parseGroups(text, true, head, headCount) || headCount != 8) return false;
    } else {
        std::string_view after = text.substr(gap + 2);
        // "::" must stand for at least one zero group, so at most seven are written.
        if (after.find("::") != std::string_view::npos ||
            !parseGroups(text.substr(0, gap), false, head, headCount) ||
            !parseGroups(after, true, tail, tailCount) || headCount + tailCount > 7) {
            return false;
        }
    }
    out = {};
    for (int g = 0; g < headCount; ++g) {
        out[2 * g] = static_cast<std::uint8_t>(head[g] >> 8);
        out[2 * g + 1] = static_cast<std::uint8_t>(head[g]);
    }
    for (int g = 0; g < tailCount; ++g) {
        int at = 8 - tailCount + g;
        out[2 * at] = static_cast<std::uint8_t>(tail[g] >> 8);
        out[2 * at + 1] = static_cast<std::uint8_t>(tail[g]);
    }
    return true;
}

char* writeDecimalOctet(char* p, unsigned v) {
    if (v >= 100) *p++ = static_cast<char>('0' + v / 100);
    if (v >= 10) *p++ = static_cast<char>('0' + v / 10 % 10);
    *p++ = static_cast<char>('0' + v % 10);
    return p;
}

char* writeDottedQuad(char* p, const std::uint8_t* b) {
    for (int i = 0; i < 4; ++i) {
        if (i) *p++ = '.';
        p = writeDecimalOctet(p, b[i]);
    }
    return p;
}

char* writeHexGroup(char* p, unsigned v) {
    static constexpr char digits[] = "0123456789abcdef";
    bool started = false;
    for (int shift = 12; shift >= 0; shift -= 4) {
        unsigned nibble = v >> shift & 0xf;
        if (nibble || started || shift == 0) {
            *p++ = digits[nibble];
            started = true;
        }
    }
    return p;
}

// RFC 5952: lowercase, no leading zeros, the longest run of two or more zero groups
// (the first one on a tie) becomes "::".
std::string formatV6(const IpGenAddr::Bytes& b) {
    static constexpr std::uint8_t mappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    char buf[48];
    char* p = buf;
    if (std::memcmp(b.data(), mappedPrefix, sizeof mappedPrefix) == 0) {
        std::memcpy(p, "::ffff:", 7);
        p = writeDottedQuad(p + 7, b.data() + 12);
        return std::string(buf, p);
    }
    unsigned groups[8];
    for (int g = 0; g < 8; ++g) groups[g] = static_cast<unsigned>(b[2 * g] << 8 | b[2 * g + 1]);
    int bestStart = -1;
    int bestLen = 1;
    for (int g = 0; g < 8;) {
        if (groups[g] != 0) {
            ++g;
            continue;
        }
        int start = g;
        while (g < 8 && groups[g] == 0) ++g;
        if (g - start > bestLen) {
            bestStart = start;
            bestLen = g - start;
        }
    }
    for (int g = 0; g < 8; ++g) {
        if (g == bestStart) {
            *p++ = ':';
            *p++ = ':';
            g += bestLen - 1;
            continue;
        }
        if (g != 0 && g != bestStart + bestLen) *p++ = ':';
        p = writeHexGroup(p, groups[g]);
    }
    return std::string(buf, p);
}

}  // namespace

IpGenAddr IpGenAddr::v4(std::uint32_t hostOrder) {
    IpGenAddr a;
    a.family_ = AddressFamily::ipv4;
    a.bytes_[0] = static_cast<std::uint8_t>(hostOrder >> 24);
    a.bytes_[1] = static_cast<std::uint8_t>(hostOrder >> 16);
    a.bytes_[2] = static_cast<std::uint8_t>(hostOrder >> 8);
    a.bytes_[3] = static_cast<std::uint8_t>(hostOrder);
    return a;
}

IpGenAddr IpGenAddr::v6(const Bytes& bytes) {
    IpGenAddr a;
    a.family_ = AddressFamily::ipv6;
    a.bytes_ = bytes;
    return a;
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
    IpGenAddr a;
    if (text.find(':') != std::string_view::npos) {
        if (!parseV6(text, a.bytes_)) return std::nullopt;
        a.family_ = AddressFamily::ipv6;
        return a;
    }
    if (!parseDottedQuad(text, a.bytes_.data())) return std::nullopt;
    a.family_ = AddressFamily::ipv4;
    return a;
}

IpGenAddr IpGenAddr::zero(AddressFamily family) {
    IpGenAddr a;
    a.family_ = family;
    return a;
}

std::string IpGenAddr::str() const {
    switch (family_) {
        case AddressFamily::ipv4: {
            char buf[16];
            return std::string(buf, writeDottedQuad(buf, bytes_.data()));
        }
        case AddressFamily::ipv6:
            return formatV6(bytes_);
        case AddressFamily::ipunknown:
            break;
    }
    return "<unknown>";
}

bool IpGenAddr::isMulticast() const {
    switch (family_) {
        case AddressFamily::ipv4:
            return (bytes_[0] & 0xf0) == 0xe0;
        case AddressFamily::ipv6:
            return bytes_[0] == 0xff;
        case AddressFamily::ipunknown:
            break;
    }
    return false;
}

// Unicast means usable as a source or RP: not multicast, not unspecified, and for IPv4
// neither the limited broadcast address nor anything in 0.0.0.0/8 ("this network").
bool IpGenAddr::isUnicast() const {
    if (family_ == AddressFamily::ipunknown || isMulticast() || isUnspecified()) return false;
    if (family_ == AddressFamily::ipv4) {
        return bytes_[0] != 0 && v4HostOrder() != 0xffffffffU;
    }
    return true;
}

// Groups that never leave the link (RFC 5771 224.0.0.0/24; RFC 4291 IPv6 scopes 1,
// interface-local, and 2, link-local, whatever the flags) are never routed, so the router
// neither builds trees for them nor forwards them.
bool IpGenAddr::isLinkLocalMulticast() const {
    switch (family_) {
        case AddressFamily::ipv4:
            return bytes_[0] == 224 && bytes_[1] == 0 && bytes_[2] == 0;
        case AddressFamily::ipv6:
            return bytes_[0] == 0xff && ((bytes_[1] & 0x0f) == 1 || (bytes_[1] & 0x0f) == 2);
        case AddressFamily::ipunknown:
            break;
    }
    return false;
}

bool IpGenAddr::isLoopback() const {
    switch (family_) {
        case AddressFamily::ipv4:
            return bytes_[0] == 127;
        case AddressFamily::ipv6: {
            Bytes one{};
            one[15] = 1;
            return bytes_ == one;
        }
        case AddressFamily::ipunknown:
            break;
    }
    return false;
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& addr) {
    return os << addr.str();
}

}  // namespace Wirl
