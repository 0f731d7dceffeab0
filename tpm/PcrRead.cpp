#include "tpm/PcrRead.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>

namespace SentrelTpm {

using SentrelEvidence::algorithmName;
using SentrelEvidence::concat;
using SentrelEvidence::Problem;
using SentrelEvidence::TpmBank;
using SentrelEvidence::TpmPcrs;

namespace {

// PC Client TPMs have 24 PCRs: the selection size when the TPM's own is not known.
constexpr std::uint8_t kPcClientSelectSize = 3;

String pcrList(std::set<std::uint32_t> const &pcrs) {
   String list;
   for (auto const i : pcrs) list += concat(list.empty() ? "" : ", ", i);
   return list;
}

// The problem of `bank`, unless it already has one: the first one says the most.
void problemIs(TpmBank &bank, String why) {
   if (!bank.problem) bank.problem = Problem{std::move(why), {}};
}

// The TPM's PCR allocation: the selection size of each enabled bank, or why
// it could not be read.
TSS2_RC readAllocation(TpmConnection const &tpm, std::map<std::uint16_t, std::uint8_t> &banks, String &problem) {
   TPMI_YES_NO more = TPM2_NO;
   TPMS_CAPABILITY_DATA *data = nullptr;
   TSS2_RC rc = Esys_GetCapability_Async(tpm.esys(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, TPM2_CAP_PCRS, 0, 1);
   if (rc == TSS2_RC_SUCCESS) rc = tpm.await([&] { return Esys_GetCapability_Finish(tpm.esys(), &more, &data); });
   EsysBuffer<TPMS_CAPABILITY_DATA> const capability(data);
   if (rc != TSS2_RC_SUCCESS || !capability || capability->capability != TPM2_CAP_PCRS) {
      problem = "cannot read the TPM's PCR allocation through " + tpm.tcti() + ": " +
                (rc != TSS2_RC_SUCCESS ? tpm.responseText(rc) : String("the TPM answered another capability"));
      return rc;
   }
   TPML_PCR_SELECTION const &assigned = capability->data.assignedPCR;
   for (std::uint32_t b = 0; b < std::min<std::uint32_t>(assigned.count, TPM2_NUM_PCR_BANKS); ++b) {
      TPMS_PCR_SELECTION const &s = assigned.pcrSelections[b];
      std::uint8_t const size = std::min<std::uint8_t>(s.sizeofSelect, TPM2_PCR_SELECT_MAX);
      if (std::any_of(s.pcrSelect, s.pcrSelect + size, [](BYTE bits) { return bits != 0; })) banks[s.hash] = size;
   }
   return rc;
}

// Takes the values of a TPM2_PCR_Read response that are still `missing`;
// false when there was none.
bool takeValues(TPML_PCR_SELECTION const &selected, TPML_DIGEST const &digests, std::uint16_t algorithm,
                std::set<std::uint32_t> &missing, TpmBank &bank) {
   auto const *a = SentrelEvidence::tpmAlgorithm(algorithm);
   bool took = false;
   std::uint32_t next = 0;
   std::uint32_t const count = std::min<std::uint32_t>(digests.count, std::size(digests.digests));
   for (std::uint32_t b = 0; b < std::min<std::uint32_t>(selected.count, TPM2_NUM_PCR_BANKS); ++b) {
      TPMS_PCR_SELECTION const &s = selected.pcrSelections[b];
      std::uint32_t const size = std::min<std::uint32_t>(s.sizeofSelect, TPM2_PCR_SELECT_MAX);
      for (std::uint32_t index = 0; index < size * 8 && next < count; ++index) {
         if ((s.pcrSelect[index / 8] & (1u << (index % 8))) == 0) continue;
         TPM2B_DIGEST const &d = digests.digests[next++];
         if (s.hash != algorithm || missing.erase(index) == 0) continue;
         took = true;
         std::size_t const length = std::min<std::size_t>(d.size, sizeof d.buffer);
         if (a && length != a->digestSize) {
            problemIs(bank, concat("the TPM returned ", length, " bytes for ", a->name, " PCR ", index, ", not ",
                                   a->digestSize));
            continue;
         }
         bank.values[index] = String(reinterpret_cast<char const *>(d.buffer), length);
      }
   }
   return took;
}

// All `pcrs` of a bank in as few TPM2_PCR_Read commands as the TPM allows:
// each response holds at most 8 values, so the PCRs still missing are asked
// again until the TPM returns none of them. The response code of a failed
// command, else success.
TSS2_RC readBank(TpmConnection const &tpm, std::uint16_t algorithm, std::uint8_t selectSize,
                 std::set<std::uint32_t> const &pcrs, TpmBank &bank) {
   std::set<std::uint32_t> missing, beyond;
   for (auto const index : pcrs) (index < selectSize * 8u ? missing : beyond).insert(index);
   while (!missing.empty()) {
      TPML_PCR_SELECTION wanted{};
      wanted.count = 1;
      wanted.pcrSelections[0].hash = algorithm;
      wanted.pcrSelections[0].sizeofSelect = selectSize;
      for (auto const index : missing) wanted.pcrSelections[0].pcrSelect[index / 8] |= BYTE(1u << (index % 8));
      UINT32 updates = 0;
      TPML_PCR_SELECTION *selected = nullptr;
      TPML_DIGEST *digests = nullptr;
      TSS2_RC rc = Esys_PCR_Read_Async(tpm.esys(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &wanted);
      if (rc == TSS2_RC_SUCCESS) {
         rc = tpm.await([&] { return Esys_PCR_Read_Finish(tpm.esys(), &updates, &selected, &digests); });
      }
      EsysBuffer<TPML_PCR_SELECTION> const selectedOut(selected);
      EsysBuffer<TPML_DIGEST> const values(digests);
      if (rc != TSS2_RC_SUCCESS) {
         bank.problem = Problem{"cannot read the " + algorithmName(algorithm) + " PCRs through " + tpm.tcti() + ": " +
                                   tpm.responseText(rc),
                                {}};
         return rc;
      }
      if (!selectedOut || !values || !takeValues(*selectedOut, *values, algorithm, missing, bank)) break;
   }
   missing.merge(beyond);
   if (!missing.empty()) {
      problemIs(bank, "the TPM did not return " + algorithmName(algorithm) + " PCR " + pcrList(missing) + " through " +
                         tpm.tcti());
   }
   return TSS2_RC_SUCCESS;
}

}  // namespace

TpmPcrs readPcrs(TpmConnection const &tpm, std::bitset<SentrelEvidence::kPcrCount> pcrs,
                 std::vector<std::uint16_t> const &otherwise) {
   TpmPcrs out;
   std::set<std::uint32_t> wanted;
   for (std::uint32_t i = 0; i < pcrs.size(); ++i) {
      if (pcrs.test(i)) wanted.insert(i);
   }
   std::map<std::uint16_t, std::uint8_t> enabled;
   String allocationProblem;
   TSS2_RC const rc = readAllocation(tpm, enabled, allocationProblem);
   if (!allocationProblem.empty()) {
      out.enabledBanksUnknown = Problem{allocationProblem, {}};
      for (auto const algorithm : otherwise) enabled[algorithm] = kPcClientSelectSize;
   }
   // Why no further command can be sent, once the TPM's answer is lost.
   String lost = TpmConnection::answered(rc) ? String() : allocationProblem;
   for (auto const &[algorithm, selectSize] : enabled) {
      TpmBank &bank = out.banks[algorithmName(algorithm)];
      if (!lost.empty()) {
         bank.problem = Problem{lost, {}};
         continue;
      }
      if (!TpmConnection::answered(readBank(tpm, algorithm, selectSize, wanted, bank))) lost = bank.problem->why;
   }
   return out;
}

}  // namespace SentrelTpm
