#include "wirl/intf_id.h"

#include <deque>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <unordered_map>

namespace Wirl {

namespace {

// Ids fixed at start-up so that register0() and null0() need no lookup; id 0 is the
// empty name.
constexpr std::uint32_t register0Id = 1;
constexpr std::uint32_t null0Id = 2;

// A deque never moves its elements when it grows, so the string_view keys of the index
// and the references handed out by name() stay valid as names are added.
class InternTable {
public:
    InternTable() {
        intern("");
        intern("Register0");
        intern("Null0");
    }

    std::uint32_t intern(std::string_view name) {
        auto it = index_.find(name);
        if (it != index_.end()) return it->second;
        if (names_.size() > std::numeric_limits<std::uint32_t>::max()) {
            throw std::length_error("IntfId table full");
        }
        auto id = static_cast<std::uint32_t>(names_.size());
        const std::string& stored = names_.emplace_back(name);
        index_.emplace(stored, id);
        return id;
    }

    const std::string& name(std::uint32_t id) const { return names_[id]; }

private:
    std::deque<std::string> names_;
    std::unordered_map<std::string_view, std::uint32_t> index_;
};

// Deliberately never destroyed: names must outlive every static object that may still
// hold an IntfId or a reference to its name during shutdown.
InternTable& table() {
    static InternTable* t = new InternTable;
    return *t;
}

}  // namespace

IntfId::IntfId(std::string_view name) : id_(table().intern(name)) {}

IntfId IntfId::register0() {
    IntfId intf;
    intf.id_ = register0Id;
    return intf;
}

IntfId IntfId::null0() {
    IntfId intf;
    intf.id_ = null0Id;
    return intf;
}

const std::string& IntfId::name() const {
    return table().name(id_);
}

bool IntfId::hasPrefix(std::string_view prefix) const {
    return name().starts_with(prefix);
}

std::strong_ordering IntfId::compareNames(const IntfId& other) const {
    return name().compare(other.name()) <=> 0;
}

std::size_t IntfId::hash() const {
    // Fibonacci hashing spreads consecutive ids across the high bits as well as the low.
    return static_cast<std::size_t>(id_ * 0x9e3779b97f4a7c15ULL);
}

std::ostream& operator<<(std::ostream& os, const IntfId& intf) {
    return os << intf.name();
}

}  // namespace Wirl
