#pragma once

#include <optional>
#include <vector>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/Trace.h"

namespace SentrelHost {

using Loom::String;

// The two inputs that other agents write on a switch.
inline constexpr char kSbStatus[] = "tarn/sb/status";
inline constexpr char kDefaults[] = "hardware/sentrel/config/sentrel";

// Why a fact is false, empty or zero: something could not be read. An empty
// attribute stands for the whole entity, which is absent.
struct Diagnostic {
   String entity;
   String attribute;
   String reason;
   String hint;
};

// The reasons for the facts of a finished run, in the order of the state
// tree: those the live inputs found, then those derived from the run's
// level-2 records of the facility Sentrel and a few direct checks of the
// system (through the system root and PATH, as the agent saw them). A fact
// that the platform simply lacks gets none.
std::vector<Diagnostic> diagnose(Ledger::EntityManager const &em, std::vector<Loom::TraceRecord> const &traces,
                                 std::vector<Diagnostic> const &live);

// A reason and what to do about it (the hint may be empty).
struct Finding {
   String reason;
   String hint;
};

// Why a file of the system could not be opened or seen, naming it as `shown`.
Finding openFailure(String const &shown, int err);
// Why the UEFI variables cannot be read, when they cannot.
std::optional<Finding> efivarfsProblem();
// Whether a folder of the system root exists and holds something: a pseudo
// file system mounted there is never empty.
bool holdsEntries(char const *dir);

}  // namespace SentrelHost
