#pragma once

#include <chrono>
#include <optional>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/String.h"

// Measured boot evidence: the firmware's event log replayed against the
// TPM's PCRs, bank by bank, and compared with the fleet's baseline,
// published as the entity sentrel/measuredBootEvidence.
namespace SentrelHost {

using Loom::String;

inline constexpr char kEventLogPath[] = "/sys/kernel/security/tpm0/binary_bios_measurements";
inline constexpr char kDefaultBaselinePath[] = "/etc/sentrel/baseline.json";

struct EvidenceOptions {
   std::optional<String> eventLog;  // a collected log (a path as given, not below the system root)
   std::optional<String> tcti;      // how to reach the TPM when sysfs has no PCR values
   std::optional<String> baseline;  // the fleet's baseline; else the default one, where it exists
   bool writeBaseline = false;      // make this machine's log a baseline
   std::chrono::milliseconds tpmDeadline{10000};  // for each command to the TPM
};

struct EvidenceResult {
   // The log as a baseline (with writeBaseline), or why there is none.
   std::optional<String> baseline;
   String baselineProblem;
};

// Publishes the evidence in `em` (the caller has made sure there is a TPM
// 2.0 or a collected log to replay): each fact known, or unknown with its reason
// through the reason sink; a warning to the system log for every mismatched
// PCR, unextended bank and difference from the baseline.
EvidenceResult measuredBootEvidence(Ledger::EntityManager &em, EvidenceOptions const &options);

}  // namespace SentrelHost

// What the host finds in the module by name: measuredBootEvidence.
extern "C" __attribute__((visibility("default"))) void sentrelMeasuredBootEvidence(
   Ledger::EntityManager *em, SentrelHost::EvidenceOptions const *options, SentrelHost::EvidenceResult *out);
