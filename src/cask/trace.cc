#include "cask/trace.h"

#include <ostream>

namespace Cask {

void TraceRing::add(int level, std::string text) {
    TraceLine line{next_++, timeSource_ ? timeSource_() : 0.0, level, std::move(text)};
    if (ring_.size() < capacity_) {
        ring_.push_back(std::move(line));
    } else {
        ring_[head_] = std::move(line);
        head_ = (head_ + 1) % capacity_;
    }
}

std::vector<TraceLine> TraceRing::lines() const {
    std::vector<TraceLine> out;
    out.reserve(ring_.size());
    for (std::size_t i = 0; i < ring_.size(); ++i) out.push_back(ring_[(head_ + i) % ring_.size()]);
    return out;
}

bool TraceRing::contains(std::string_view needle) const {
    return count(needle) > 0;
}

std::size_t TraceRing::count(std::string_view needle) const {
    std::size_t n = 0;
    for (const auto& l : ring_) n += l.text.find(needle) != std::string::npos;
    return n;
}

void TraceRing::clear() {
    ring_.clear();
    head_ = 0;
}

void TraceRing::print(std::ostream& os) const {
    for (const auto& l : lines()) {
        os << fmt::format("{:10.3f} {} {}\n", l.time, l.level, l.text);
    }
}

}  // namespace Cask
