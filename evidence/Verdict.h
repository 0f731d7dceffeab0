#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "evidence/Baseline.h"
#include "evidence/EventLog.h"

// The verdict on a switch's measured boot: its event log replayed against
// what its TPM holds (read on the switch, or signed in a quote), and
// compared with the fleet's baseline. One function of its inputs, for the
// host and the remote verifier alike; it reads no file and asks no TPM.
namespace SentrelEvidence {

// Why a finding is unknown, and what to do about it when there is something.
struct Problem {
   String why;
   String hint;
};

// What the TPM holds in one bank.
struct TpmBank {
   std::map<std::uint32_t, String> values;  // raw, by PCR index: those that were read
   std::optional<Problem> problem;           // why a PCR asked for was not read
};

struct TpmPcrs {
   // The banks the TPM has enabled, by their TPM names ("sha256"), with what
   // was read of each; when those cannot be told, the banks asked for.
   std::map<String, TpmBank> banks;
   std::optional<Problem> enabledBanksUnknown;
};

// The PCRs compared in each bank: 0-7 always; 8, 9, 12, 13 and 14 where the
// log extends them (the boot loader's, the boot stub's and shim's, measured
// before the firmware's log ends). Never 10, 11 or 15-23: the operating
// system extends them after the log ends. What the TPM must be asked for.
std::bitset<kPcrCount> comparedPcrs(EventLog const &log);

// Each set as the attribute of the same name publishes it.
struct Findings {
   String eventLogFormat;
   std::size_t eventCount = 0;
   std::vector<String> logBank;         // the log's algorithms
   std::vector<String> replayedBank;    // banks whose compared PCRs were all read and compared
   std::vector<String> mismatchedPcr;   // "<bank>:<index>" of each compared PCR the TPM holds otherwise
   std::vector<String> unextendedBank;  // enabled, PCRs 0-7 at their reset values: nothing measured
   std::vector<String> unverifiedBank;  // enabled and extended, but the log does not carry it
   std::vector<BaselineDifference> baselineDifference;
   // Why replayedBank and mismatchedPcr are unknown: a bank that the log
   // and the TPM both have was not compared whole. A bank each.
   std::vector<Problem> comparison;
   // Why unextendedBank and unverifiedBank are unknown.
   std::vector<Problem> extension;
};

// The findings, bank by bank (banks by their TPM names):
// - a bank the log carries and the TPM has: each compared PCR replayed from
//   its reset value and compared; a PCR the log never extends is expected
//   at its reset value, so a log cut short never reads clean;
// - a bank the TPM has with PCRs 0-7 at their reset values is unextended,
//   whether the log carries it or not;
// - a bank the TPM has, extended, that the log does not carry is unverified;
// - a bank the log carries and the TPM lacks is not compared, and known;
// - a problem with one bank leaves the others' findings known.
// With a baseline, the first event that differs in each PCR.
Findings verdict(EventLog const &log, TpmPcrs const &tpm, EventLog const *baseline = nullptr);

}  // namespace SentrelEvidence
