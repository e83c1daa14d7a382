#pragma once
// Routing::Pim::Tidal::MessageCounters: the PIM message counters of a VRF,
// per message type and direction, published in shared memory for the show
// commands. The packet side counts; the operator's "clear counters" command
// zeroes them all (`clearAll`), which `clearCount` records.

#include <compare>
#include <cstddef>
#include <cstdint>

#include "cask/collection.h"

namespace Routing::Pim::Tidal {

// RFC 7761 message types (section 4.9), by their type number.
enum class PimMessageType : std::uint8_t {
    hello = 0,
    register_ = 1,
    registerStop = 2,
    joinPrune = 3,
    bootstrap = 4,
    assert_ = 5,
    candidateRpAdvertisement = 8,
};

enum class MessageDirection : std::uint8_t { rx, tx, rxInvalid };

struct MessageCounterKey {
    PimMessageType type = PimMessageType::hello;
    MessageDirection direction = MessageDirection::rx;

    std::size_t hash() const { return std::size_t(type) * 4 + std::size_t(direction); }
    bool operator==(const MessageCounterKey&) const = default;
    std::strong_ordering operator<=>(const MessageCounterKey&) const = default;
};

class MessageCounters : public Cask::Record<MessageCounters> {
public:
    class Notifiee : public Cask::NotifieeOf<MessageCounters> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleCounter(const MessageCounterKey&) {}
        virtual void handleClearCount() {}
    };
    // Absent counters read 0.
    CASK_VALUE_MAP(counter, Counter, MessageCounterKey, std::uint64_t)
    void counterInc(const MessageCounterKey& k) { counterIs(k, counter(k) + 1); }
    // How many times the counters were cleared.
    CASK_COUNTER(std::uint32_t, clearCount, ClearCount)
    void clearAll() {
        counterDelAll();
        clearCountInc();
    }

private:
    Cask::ValueMap<MessageCounterKey, std::uint64_t> counter_;
    std::uint32_t clearCount_ = 0;
};

}  // namespace Routing::Pim::Tidal
