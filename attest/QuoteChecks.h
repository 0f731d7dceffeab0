#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include <openssl/types.h>

#include "attest/attestz.pb.h"
#include "evidence/Verdict.h"

// The owner's verifier decides on one switch's AttestResponse from what the
// response proves, never from what the switch says: five checks in order,
// each with its own reason when it fails.
//   1. the attestation key is trusted (the inventory, --ak, or a
//      certificate that chains to the owner's CA and certifies it);
//   2. the quote's signature verifies with it over the TPMS_ATTEST bytes;
//   3. the TPMS_ATTEST is a TPM's quote of this nonce, over the PCRs asked
//      for, which are those of pcr_values;
//   4. its pcrDigest is the digest of pcr_values;
//   5. the event log replays to the quoted PCRs and matches the baseline.
namespace SentrelAttest {

using SentrelEvidence::String;
using openconfig::attestz::AttestResponse;

// PCRs as a TPM selects them: a bitmap of up to 32.
using PcrSet = std::bitset<32>;
using PcrValues = google::protobuf::Map<std::int32_t, String>;

// Shared: one key may be trusted for many switches. Made by publicKey().
using PublicKey = std::shared_ptr<EVP_PKEY>;
// Takes over one reference to `key`; null for null.
PublicKey publicKey(EVP_PKEY *key);

// What a switch's attestation key may be trusted by.
struct Trust {
   std::vector<PublicKey> keys;   // the inventory's key for it and --ak's
   X509_STORE *ownerCa = nullptr;  // --owner-ca, not owned; null without it
};

// What the verifier asked for, or expects of a saved response.
struct Expectation {
   String nonce;                // raw
   std::uint16_t bank;          // the PCR bank's TPM algorithm id
   std::optional<PcrSet> pcrs;  // the PCRs asked for; none: any holding PCRs 0-7
   Trust trust;
   SentrelEvidence::EventLog const *baseline = nullptr;
};

enum class Check { Key = 1, Signature, Quote, PcrDigest, EventLog };
// "attestation key", "signature", "quote", "PCR digest", "event log".
char const *checkName(Check check);

struct Failure {
   Check check;
   String why;
};

// Check 1: the keys the quote may be signed with. With a certificate in the
// response, its key alone, when it is one of the trusted keys or the chain
// reaches the owner's CA; without one, the trusted keys.
std::variant<std::vector<PublicKey>, Failure> trustedKeys(AttestResponse const &response, Trust const &trust);

// Check 2: the key among `keys` that the signature verifies with, and the
// hash of the signature's scheme (the quote's pcrDigest is made with it).
struct Signer {
   PublicKey key;
   std::uint16_t hash;
};
std::variant<Signer, Failure> checkSignature(String const &quoted, String const &signature,
                                             std::vector<PublicKey> const &keys);

// Check 3: what a well-formed quote of this request tells.
struct QuoteInfo {
   PcrSet pcrs;
   String pcrDigest;
};
std::variant<QuoteInfo, Failure> checkQuote(String const &quoted, Expectation const &expected,
                                            PcrValues const &pcrValues);

// Check 4.
std::optional<Failure> checkPcrDigest(QuoteInfo const &quote, PcrValues const &pcrValues, std::uint16_t bank,
                                      std::uint16_t hash);

// Check 5: the log (a canonical event log in JSON, or a binary TCG log)
// judged by the verification core against the quoted PCRs of `bank`. The
// findings when the log could be read; a failure when they do not hold.
struct EventLogCheck {
   std::optional<SentrelEvidence::Findings> findings;
   std::optional<Failure> failure;
};
EventLogCheck checkEventLog(String const &eventLog, std::uint16_t bank, PcrValues const &pcrValues,
                            SentrelEvidence::EventLog const *baseline);

enum class Verdict { Trusted, Untrusted, Unreachable };
// "trusted", "untrusted", "unreachable".
char const *verdictName(Verdict verdict);

struct Judgement {
   Verdict verdict = Verdict::Untrusted;
   std::optional<Check> failed;  // the first check that failed
   String reason;                // "check N (name): why"; empty when trusted
   std::optional<SentrelEvidence::Findings> evidence;  // once check 5 read the log
};

// The five checks in order, up to the first that fails.
Judgement judge(AttestResponse const &response, Expectation const &expected);

}  // namespace SentrelAttest
