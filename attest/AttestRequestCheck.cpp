#include "attest/AttestRequestCheck.h"

#include "evidence/Bytes.h"
#include "evidence/TpmAlgorithm.h"

namespace SentrelAttestd {

using namespace openconfig::attestz;
using SentrelEvidence::concat;

namespace {

grpc::Status invalid(String why) { return {grpc::StatusCode::INVALID_ARGUMENT, std::move(why)}; }
grpc::Status notFound(String why) { return {grpc::StatusCode::NOT_FOUND, std::move(why)}; }

// Printable text of a string from the wire, cut short: it goes into one log line.
String shown(String const &s) {
   constexpr std::size_t kMax = 64;
   String out;
   for (std::size_t i = 0; i < s.size() && i < kMax; ++i) {
      unsigned char const c = static_cast<unsigned char>(s[i]);
      out += c >= 0x20 && c < 0x7f && c != '"' && c != '\\' ? String(1, char(c)) : concat("\\x", SentrelEvidence::hexOf(String(1, char(c))));
   }
   if (s.size() > kMax) out += "...";
   return '"' + out + '"';
}

String roleName(int role) {
   if (ControlCardRole_IsValid(role)) return ControlCardRole_Name(static_cast<ControlCardRole>(role));
   return concat("role ", role);
}

// PCR indices as ranges, "0-7,9", the way a PCR list is written.
String pcrRanges(google::protobuf::RepeatedField<std::int32_t> const &indices) {
   std::vector<std::int64_t> sorted(indices.begin(), indices.end());
   std::sort(sorted.begin(), sorted.end());
   sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
   String out;
   std::size_t shownRanges = 0;
   for (std::size_t i = 0; i < sorted.size(); ++i) {
      std::size_t j = i;
      while (j + 1 < sorted.size() && sorted[j + 1] == sorted[j] + 1) ++j;
      if (++shownRanges > 24) {
         out += ",...";
         break;
      }
      if (!out.empty()) out += ',';
      out += j == i ? concat(sorted[i]) : concat(sorted[i], "-", sorted[j]);
      i = j;
   }
   return out.empty() ? "none" : out;
}

}  // namespace

TPMI_ALG_HASH bankOf(int hashAlgo) {
   switch (hashAlgo) {
      case TPM_2_0_HASH_ALGO_UNSPECIFIED:
      case TPM_2_0_HASH_ALGO_SHA256: return TPM2_ALG_SHA256;
      case TPM_2_0_HASH_ALGO_SHA1: return TPM2_ALG_SHA1;
      case TPM_2_0_HASH_ALGO_SHA384: return TPM2_ALG_SHA384;
      case TPM_2_0_HASH_ALGO_SHA512: return TPM2_ALG_SHA512;
      default: return TPM2_ALG_NULL;
   }
}

std::variant<QuoteWanted, grpc::Status> checkAttestRequest(AttestRequest const &request, CardIdentity const &card) {
   auto const &selection = request.control_card_selection();
   switch (selection.control_card_id_case()) {
      case ControlCardSelection::kRole:
         if (selection.role() == CONTROL_CARD_ROLE_ACTIVE) break;
         if (selection.role() == CONTROL_CARD_ROLE_STANDBY) {
            return notFound("this switch has no standby control card: ask for the active one");
         }
         return invalid("control_card_selection names " + roleName(selection.role()) +
                        ": select the card by role ACTIVE or by its serial");
      case ControlCardSelection::kSerial:
         if (card.serial.empty()) {
            return notFound("the control card's serial is not known here (DMI product_serial): select it by role ACTIVE");
         }
         if (selection.serial() != card.serial) {
            return notFound("no control card has the serial " + shown(selection.serial()) + "; this one's is " +
                            shown(card.serial));
         }
         break;
      case ControlCardSelection::kSlot:
         return notFound("the control card has no slot: select it by role ACTIVE or by its serial");
      case ControlCardSelection::CONTROL_CARD_ID_NOT_SET:
         return invalid("control_card_selection is empty: select the card by role ACTIVE or by its serial");
   }
   if (request.nonce().empty()) return invalid("the nonce is empty: without one, a quote recorded once could be replayed");
   if (request.nonce().size() > SentrelTpm::kMaxNonceBytes) {
      return invalid(concat("the nonce has ", request.nonce().size(), " bytes, more than the ",
                            SentrelTpm::kMaxNonceBytes, " a quote holds"));
   }
   TPMI_ALG_HASH const bank = bankOf(request.hash_algo());
   if (bank == TPM2_ALG_NULL) {
      return invalid(concat("hash_algo ", static_cast<int>(request.hash_algo()), " names no PCR bank: SHA1, SHA256, SHA384 or SHA512"));
   }
   if (request.pcr_indices().empty()) return invalid("pcr_indices is empty: name the PCRs to quote");
   QuoteWanted wanted{bank, {}, request.nonce()};
   for (std::int32_t const index : request.pcr_indices()) {
      if (index < 0 || static_cast<std::uint32_t>(index) >= SentrelEvidence::kPcrCount) {
         return invalid(concat("PCR ", index, " is not one a TPM has: PCRs are 0 to ", SentrelEvidence::kPcrCount - 1));
      }
      wanted.pcrs.set(static_cast<std::size_t>(index));
   }
   return wanted;
}

String describeRequest(AttestRequest const &request) {
   auto const &selection = request.control_card_selection();
   String card;
   switch (selection.control_card_id_case()) {
      case ControlCardSelection::kRole: card = "role " + roleName(selection.role()); break;
      case ControlCardSelection::kSerial: card = "serial " + shown(selection.serial()); break;
      case ControlCardSelection::kSlot: card = "slot " + shown(selection.slot()); break;
      case ControlCardSelection::CONTROL_CARD_ID_NOT_SET: card = "no card"; break;
   }
   TPMI_ALG_HASH const bank = bankOf(request.hash_algo());
   String const bankName = bank == TPM2_ALG_NULL ? concat("hash_algo ", static_cast<int>(request.hash_algo()))
                                                 : SentrelEvidence::algorithmName(bank);
   return concat(card, ", nonce ", request.nonce().size(), " bytes, ", bankName, " PCRs ",
                 pcrRanges(request.pcr_indices()));
}

char const *statusCodeName(grpc::StatusCode code) {
   switch (code) {
      case grpc::StatusCode::OK: return "OK";
      case grpc::StatusCode::CANCELLED: return "CANCELLED";
      case grpc::StatusCode::UNKNOWN: return "UNKNOWN";
      case grpc::StatusCode::INVALID_ARGUMENT: return "INVALID_ARGUMENT";
      case grpc::StatusCode::DEADLINE_EXCEEDED: return "DEADLINE_EXCEEDED";
      case grpc::StatusCode::NOT_FOUND: return "NOT_FOUND";
      case grpc::StatusCode::ALREADY_EXISTS: return "ALREADY_EXISTS";
      case grpc::StatusCode::PERMISSION_DENIED: return "PERMISSION_DENIED";
      case grpc::StatusCode::RESOURCE_EXHAUSTED: return "RESOURCE_EXHAUSTED";
      case grpc::StatusCode::FAILED_PRECONDITION: return "FAILED_PRECONDITION";
      case grpc::StatusCode::ABORTED: return "ABORTED";
      case grpc::StatusCode::OUT_OF_RANGE: return "OUT_OF_RANGE";
      case grpc::StatusCode::UNIMPLEMENTED: return "UNIMPLEMENTED";
      case grpc::StatusCode::INTERNAL: return "INTERNAL";
      case grpc::StatusCode::UNAVAILABLE: return "UNAVAILABLE";
      case grpc::StatusCode::DATA_LOSS: return "DATA_LOSS";
      case grpc::StatusCode::UNAUTHENTICATED: return "UNAUTHENTICATED";
      default: return "UNKNOWN";
   }
}

}  // namespace SentrelAttestd
