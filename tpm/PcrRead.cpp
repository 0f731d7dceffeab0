#include "tpm/PcrRead.h"

#include <algorithm>
#include <iterator>

#include "tpm/TpmCommand.h"

namespace SentrelTpm {

using SentrelEvidence::algorithmName;
using SentrelEvidence::concat;
using SentrelEvidence::pcrList;
using SentrelEvidence::Problem;
using SentrelEvidence::TpmPcrs;

namespace {

// PC Client TPMs have 24 PCRs: three bytes of selection.
constexpr std::uint8_t kSelectSize = 3;

// The banks of the TPM's PCR allocation, or why it could not be read.
std::variant<std::vector<std::uint16_t>, TpmProblem> allocatedBanks(TpmConnection const &tpm) {
   TPMI_YES_NO more = TPM2_NO;
   TPMS_CAPABILITY_DATA *data = nullptr;
   TSS2_RC const rc = command(
      tpm,
      [&] {
         return Esys_GetCapability_Async(tpm.esys(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, TPM2_CAP_PCRS, 0, 1);
      },
      [&] { return Esys_GetCapability_Finish(tpm.esys(), &more, &data); });
   EsysBuffer<TPMS_CAPABILITY_DATA> const capability(data);
   if (rc != TSS2_RC_SUCCESS) return tpm.problem("cannot read the TPM's PCR allocation", rc);
   if (!capability || capability->capability != TPM2_CAP_PCRS) {
      return TpmProblem{TpmProblem::Kind::Tpm,
                        "cannot read the TPM's PCR allocation through " + tpm.tcti() + ": the TPM answered another capability"};
   }
   std::vector<std::uint16_t> banks;
   TPML_PCR_SELECTION const &assigned = capability->data.assignedPCR;
   for (std::uint32_t b = 0; b < std::min<std::uint32_t>(assigned.count, TPM2_NUM_PCR_BANKS); ++b) {
      TPMS_PCR_SELECTION const &s = assigned.pcrSelections[b];
      std::uint8_t const size = std::min<std::uint8_t>(s.sizeofSelect, TPM2_PCR_SELECT_MAX);
      if (std::any_of(s.pcrSelect, s.pcrSelect + size, [](BYTE bits) { return bits != 0; })) banks.push_back(s.hash);
   }
   return banks;
}

}  // namespace

TPML_PCR_SELECTION pcrSelection(TPMI_ALG_HASH bank, PcrSet pcrs) {
   TPML_PCR_SELECTION s{};
   s.count = 1;
   s.pcrSelections[0].hash = bank;
   s.pcrSelections[0].sizeofSelect = kSelectSize;
   for (std::uint32_t i = 0; i < pcrs.size(); ++i) {
      if (pcrs.test(i)) s.pcrSelections[0].pcrSelect[i / 8] |= BYTE(1u << (i % 8));
   }
   return s;
}

std::variant<std::map<std::uint32_t, String>, TpmProblem> readBankPcrs(TpmConnection const &tpm, TPMI_ALG_HASH bank,
                                                                       PcrSet pcrs) {
   auto const *algorithm = SentrelEvidence::tpmAlgorithm(bank);
   std::map<std::uint32_t, String> values;
   auto missing = pcrs;
   // A response holds at most eight values: the missing ones are asked again.
   while (missing.any()) {
      TPML_PCR_SELECTION const wanted = pcrSelection(bank, missing);
      UINT32 updates = 0;
      TPML_PCR_SELECTION *selected = nullptr;
      TPML_DIGEST *digests = nullptr;
      TSS2_RC const rc = command(
         tpm, [&] { return Esys_PCR_Read_Async(tpm.esys(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &wanted); },
         [&] { return Esys_PCR_Read_Finish(tpm.esys(), &updates, &selected, &digests); });
      EsysBuffer<TPML_PCR_SELECTION> const selectedOut(selected);
      EsysBuffer<TPML_DIGEST> const digestsOut(digests);
      if (rc != TSS2_RC_SUCCESS) return tpm.problem("cannot read the " + algorithmName(bank) + " PCRs", rc);

      bool took = false;
      std::uint32_t next = 0;
      std::uint32_t const count = std::min<std::uint32_t>(digestsOut->count, std::size(digestsOut->digests));
      for (std::uint32_t b = 0; b < std::min<std::uint32_t>(selectedOut->count, TPM2_NUM_PCR_BANKS); ++b) {
         TPMS_PCR_SELECTION const &s = selectedOut->pcrSelections[b];
         std::uint32_t const size = std::min<std::uint32_t>(s.sizeofSelect, TPM2_PCR_SELECT_MAX);
         for (std::uint32_t index = 0; index < size * 8 && next < count; ++index) {
            if ((s.pcrSelect[index / 8] & (1u << (index % 8))) == 0) continue;
            TPM2B_DIGEST const &d = digestsOut->digests[next++];
            if (s.hash != bank || index >= missing.size() || !missing.test(index)) continue;
            std::size_t const length = std::min<std::size_t>(d.size, sizeof d.buffer);
            if (algorithm && length != algorithm->digestSize) {
               return TpmProblem{TpmProblem::Kind::Tpm,
                                 concat("the TPM at ", tpm.tcti(), " returned ", length, " bytes for ",
                                        algorithmName(bank), " PCR ", index, ", not ", algorithm->digestSize),
                                 TSS2_RC_SUCCESS};
            }
            values[index] = String(reinterpret_cast<char const *>(d.buffer), length);
            missing.reset(index);
            took = true;
         }
      }
      if (took) continue;
      // The TPM leaves out the PCRs of a bank it has not allocated.
      if (values.empty()) {
         return TpmProblem{TpmProblem::Kind::BankNotEnabled,
                           "the TPM at " + tpm.tcti() + " has no " + algorithmName(bank) + " PCR bank enabled",
                           TSS2_RC_SUCCESS};
      }
      return TpmProblem{
         TpmProblem::Kind::Tpm,
         "the TPM at " + tpm.tcti() + " did not return " + algorithmName(bank) + " PCR " + pcrList(missing),
         TSS2_RC_SUCCESS};
   }
   return values;
}

TpmPcrs readPcrs(TpmConnection const &tpm, PcrSet pcrs, std::vector<std::uint16_t> const &otherwise) {
   TpmPcrs out;
   auto allocated = allocatedBanks(tpm);
   std::vector<std::uint16_t> banks = otherwise;
   String lost;  // why no further command can be sent, once the TPM's answer is lost
   if (auto const *problem = std::get_if<TpmProblem>(&allocated)) {
      out.enabledBanksUnknown = Problem{problem->why, {}};
      if (!TpmConnection::answered(problem->rc)) lost = problem->why;
   } else {
      banks = std::get<std::vector<std::uint16_t>>(allocated);
   }
   for (auto const algorithm : banks) {
      auto &bank = out.banks[algorithmName(algorithm)];
      if (!lost.empty()) {
         bank.problem = Problem{lost, {}};
         continue;
      }
      auto read = readBankPcrs(tpm, algorithm, pcrs);
      if (auto *values = std::get_if<std::map<std::uint32_t, String>>(&read)) {
         bank.values = std::move(*values);
         continue;
      }
      auto const &problem = std::get<TpmProblem>(read);
      bank.problem = Problem{problem.why, {}};
      if (problem.kind == TpmProblem::Kind::Tpm && !TpmConnection::answered(problem.rc)) lost = problem.why;
   }
   return out;
}

}  // namespace SentrelTpm
