#pragma once
// The one assertion for broken internal preconditions.
//
// A broken precondition inside the agent is a programming error with no
// recovery path: CASK_ASSERT(cond, "text") prints "assertion failed: text"
// with the place it failed and aborts. Bad input from outside never reaches
// an assertion: it is traced, counted and ignored where it enters.

namespace Cask {
[[noreturn]] void assertionFailed(const char* text, const char* file, int line);
}

#define CASK_ASSERT(cond, text)                                \
    do {                                                       \
        if (!(cond)) [[unlikely]]                              \
            ::Cask::assertionFailed(text, __FILE__, __LINE__); \
    } while (0)
