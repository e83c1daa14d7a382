#pragma once
// In-memory trace rings.
//
// `trace()` is the trace ring: lines by level (4 notable events, 6 handler
// entry, 7 and 8 detail). A line is kept when its level is at or below the
// ring's level; CASK_TRACE formats nothing when the level is off, so a trace
// statement on a hot path costs one comparison.
//
// `eventLog()` is the second ring, of short state-transition records
// ("GmpSm: Create route ..."), written with CASK_EVENT.
//
// Both are process-wide (the agent is single threaded) and bounded: the
// oldest lines are dropped first. Tests read them with `lines()` and
// `contains()`; the programs print them.
//
// Machine traces start with the VRF, "<Vrf:NAME>", then "Machine::handler(".

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace Cask {

struct TraceLine {
    std::uint64_t seq;  // position in the whole run, counting dropped lines
    double time;        // from the ring's time source; 0 without one
    int level;
    std::string text;
};

class TraceRing {
public:
    explicit TraceRing(std::size_t capacity = 1 << 16) : capacity_(capacity) {}

    int level() const { return level_; }
    void levelIs(int level) { level_ = level; }
    bool on(int level) const { return level <= level_; }

    // Where line times come from (the event loop's clock in the programs).
    void timeSourceIs(std::function<double()> source) { timeSource_ = std::move(source); }

    void add(int level, std::string text);

    // Oldest first.
    std::vector<TraceLine> lines() const;
    std::size_t size() const { return ring_.size(); }
    std::uint64_t total() const { return next_; }
    std::uint64_t dropped() const { return next_ - ring_.size(); }
    bool contains(std::string_view needle) const;
    std::size_t count(std::string_view needle) const;
    void clear();

    void print(std::ostream& os) const;

private:
    std::size_t capacity_;
    int level_ = 4;
    std::vector<TraceLine> ring_;
    std::size_t head_ = 0;  // index of the oldest line once the ring is full
    std::uint64_t next_ = 0;
    std::function<double()> timeSource_;
};

// Inline, since every handler asks whether its level is on: one ring for the
// whole program all the same (an inline function's static is shared).
// Always inline: every trace statement asks for its ring, and out of line the
// call cost more than the level test it guards.
[[gnu::always_inline]] inline TraceRing& trace() {
    static TraceRing ring;
    return ring;
}
[[gnu::always_inline]] inline TraceRing& eventLog() {
    static TraceRing ring;
    return ring;
}

}  // namespace Cask

#define CASK_TRACE(lvl, ...)                                                               \
    do {                                                                                   \
        if (::Cask::trace().on(lvl)) ::Cask::trace().add(lvl, ::fmt::format(__VA_ARGS__)); \
    } while (0)

// A machine's trace line: "<Vrf:NAME>" then the machine's own text. `f` is a
// string literal; `vrf` anything fmt formats (an L3::VrfName).
#define CASK_VRF_TRACE(lvl, vrf, f, ...)                                                           \
    do {                                                                                           \
        if (::Cask::trace().on(lvl))                                                               \
            ::Cask::trace().add(lvl, ::fmt::format("<Vrf:{}>" f, vrf __VA_OPT__(, ) __VA_ARGS__)); \
    } while (0)

#define CASK_EVENT(...)                                                                      \
    do {                                                                                     \
        if (::Cask::eventLog().on(4)) ::Cask::eventLog().add(4, ::fmt::format(__VA_ARGS__)); \
    } while (0)
