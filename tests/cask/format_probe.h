#pragma once
// Costly: a trace argument that counts how often it is formatted, so a test
// can show that a trace line whose level is off formats nothing.

#include <fmt/format.h>

struct Costly {
    int* formatted;
};

template <>
struct fmt::formatter<Costly> : fmt::formatter<int> {
    auto format(const Costly& c, format_context& ctx) const {
        ++*c.formatted;
        return fmt::formatter<int>::format(0, ctx);
    }
};
