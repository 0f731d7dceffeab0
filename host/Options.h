#pragma once

#include <optional>

#include "Sentrel/platform/String.h"

namespace SentrelHost {

using Loom::String;

enum class Format { Text, Json, OpenMetrics };
// The format --format names; a UsageError for any other.
Format formatNamed(String const &name);

// The command line of `sentrel`.
struct Options {
   String agentPath;
   std::optional<String> statePath;
   // Fill the inputs from this Linux system: --live, or no --state.
   bool live = false;
   std::optional<String> sysroot;
   std::optional<String> toggles;
   std::optional<String> trace;
   Format format = Format::Text;
   std::optional<String> outputPath;
   std::optional<String> scriptPath;
   std::optional<String> commandTimeout;
   // Measured boot evidence: a collected event log, the TPM's TCTI, the
   // fleet's baseline, and where to write this machine's log as one.
   std::optional<String> eventLog;
   std::optional<String> tcti;
   std::optional<String> baseline;
   std::optional<String> writeBaseline;
   bool syslog = true;
   bool failOnWarning = false;
   bool failOnUnknown = false;
   bool help = false;
   bool version = false;
};

// Parses the command line; throws UsageError.
Options parseOptions(int argc, char **argv);
// The short text of --help; the manual page has the rest.
extern char const *const kUsage;

}  // namespace SentrelHost
