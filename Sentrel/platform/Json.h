#pragma once

// The only way into RapidJSON for this project. Its assertions must stay on
// in every build type: a document of the wrong shape ends the process by
// design, and NDEBUG would turn that into a null pointer read instead.
#include "Sentrel/platform/Export.h"

namespace Loom {
// The deepest nesting of arrays and objects the project's JSON readers
// accept. Real documents nest three or four levels; a deeper one is hostile,
// and refusing it keeps every walk over a tree well within the stack.
inline constexpr unsigned kMaxJsonDepth = 256;
// Reports a broken precondition like assert(3) does and aborts, in every build type.
[[noreturn]] LOOM_API void assertionFailed(char const *expr, char const *file, int line);
}

#ifdef RAPIDJSON_ASSERT
#error "RapidJSON must be included through one gate only: this one, or evidence/Json.h in the evidence core"
#endif
#define RAPIDJSON_ASSERT(x) \
   ((x) ? static_cast<void>(0) : ::Loom::assertionFailed(#x, __FILE__, __LINE__))
#define RAPIDJSON_NOEXCEPT_ASSERT(x) RAPIDJSON_ASSERT(x)
// Strings scanned sixteen bytes at a time where the machine can: both gates
// say the same, so that RapidJSON is one and the same code everywhere.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/filereadstream.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
