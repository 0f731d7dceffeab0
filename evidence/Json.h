#pragma once

// The evidence core's only way into RapidJSON, as the framework has its
// own: the core links nothing of the framework. Assertions stay on in every
// build type, so that NDEBUG never turns a broken precondition into a read
// through a null pointer.
#include <cstdio>
#include <cstdlib>

namespace SentrelEvidence {
[[noreturn]] inline void jsonAssertionFailed(char const *expr, char const *file, int line) {
   std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, expr);
   std::abort();
}
// The deepest nesting of arrays and objects the core's readers accept: a
// canonical event log nests four levels; deeper is hostile.
inline constexpr unsigned kMaxJsonDepth = 256;
}  // namespace SentrelEvidence

#ifdef RAPIDJSON_ASSERT
#error "RapidJSON must be included through one gate only"
#endif
#define RAPIDJSON_ASSERT(x) \
   ((x) ? static_cast<void>(0) : ::SentrelEvidence::jsonAssertionFailed(#x, __FILE__, __LINE__))
#define RAPIDJSON_NOEXCEPT_ASSERT(x) RAPIDJSON_ASSERT(x)
// Strings scanned sixteen bytes at a time where the machine can: both gates
// say the same, so that RapidJSON is one and the same code everywhere.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
