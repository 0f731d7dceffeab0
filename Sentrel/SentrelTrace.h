#pragma once

#include "Sentrel/platform/Trace.h"

namespace Sentrel {

// The facility "Sentrel", created on first use and never destroyed.
Loom::TraceHandle const &traceHandle();

}  // namespace Sentrel

// Traces `expr` (insertions: strings and integers) at `level`; the text is
// built only when the level is enabled.
#define SENTREL_TRACE(level, expr)                                                            \
   do {                                                                                       \
      auto const &sentrelTh_ = ::Sentrel::traceHandle();                                      \
      if (sentrelTh_.enabled(level)) {                                                        \
         ::Loom::TextBuilder sentrelText_;                                                    \
         sentrelText_ << expr;                                                                \
         sentrelTh_.emit(level, "Sentrel/SentrelAgent", __LINE__, __func__, std::move(sentrelText_.text())); \
      }                                                                                       \
   } while (0)

#define TRACE2(expr) SENTREL_TRACE(2, expr)
#define TRACE7(expr) SENTREL_TRACE(7, expr)
