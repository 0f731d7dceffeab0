#include "host/evidence/PcrValues.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <unistd.h>

#include "Sentrel/platform/ReadFile.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/platform/Sysroot.h"
#include "host/evidence/EventLog.h"
#include "host/evidence/TpmConnection.h"

namespace SentrelEvidence {

namespace {

constexpr char kTpm[] = "/sys/class/tpm/tpm0";
constexpr char kDefaultDevice[] = "/dev/tpmrm0";
// sha512's 128 hex digits and a newline, with room: more is not a PCR file.
constexpr std::size_t kMaxPcrFileBytes = 256;
// PC Client TPMs have 24 PCRs: the selection size when the TPM's own is not known.
constexpr std::uint8_t kPcClientSelectSize = 3;

String algorithmName(std::uint16_t id) {
   if (auto const *a = tpmAlgorithm(id)) return String(a->name);
   char text[8];
   std::snprintf(text, sizeof text, "0x%04x", static_cast<unsigned>(id));
   return text;
}

String pcrList(std::set<std::uint32_t> const &pcrs) {
   String list;
   for (auto const i : pcrs) list += (list.empty() ? "" : ", ") + std::to_string(i);
   return list;
}

// The problem of `bank`, unless it already has one: the first one says the most.
void problemIs(BankValues &bank, String problem, String hint = {}) {
   if (!bank.problem.empty()) return;
   bank.problem = std::move(problem);
   bank.hint = std::move(hint);
}

// ---- sysfs ----

// The algorithms of the pcr-<alg> folders the kernel lists for the TPM, sorted.
std::vector<String> sysfsBanks() {
   std::vector<String> banks;
   DIR *d = opendir(Loom::sysrootPath(kTpm).c_str());
   if (!d) return banks;
   while (dirent const *e = readdir(d)) {
      std::string_view const name = e->d_name;
      if (name.starts_with("pcr-") && name.size() > 4) banks.emplace_back(name.substr(4));
   }
   closedir(d);
   std::sort(banks.begin(), banks.end());
   return banks;
}

// The raw digest that a PCR file holds as hex and a newline; empty, with
// `why` set, when it holds anything else.
String digestOfPcrFile(String const &file, std::string_view text, std::size_t digestSize, String &why) {
   if (text.ends_with('\n')) text.remove_suffix(1);
   String const expected = ", not " + std::to_string(2 * digestSize) + " hex digits";
   if (text.size() != 2 * digestSize) {
      why = file + " holds " + std::to_string(text.size()) + " characters" + expected;
      return {};
   }
   auto digest = bytesOfHex(text);
   if (!digest) {
      why = file + " holds characters other than hex digits" + expected;
      return {};
   }
   return std::move(*digest);
}

void readSysfsBank(std::uint16_t algorithm, std::set<std::uint32_t> const &pcrs,
                   std::vector<String> const &enabled, BankValues &bank) {
   TpmAlgorithm const *a = tpmAlgorithm(algorithm);
   if (!a) {
      bank.problem = "the kernel has no PCR files of algorithm " + algorithmName(algorithm);
      return;
   }
   String const folder = String(kTpm) + "/pcr-" + String(a->name);
   if (!std::binary_search(enabled.begin(), enabled.end(), a->name)) {
      bank.problem = "the TPM has no " + String(a->name) + " bank (no " + folder + ")";
      return;
   }
   for (auto const index : pcrs) {
      String const file = folder + "/" + std::to_string(index);
      Loom::FileText const read = Loom::readSystemFile(file.c_str(), kMaxPcrFileBytes);
      if (!read.ok()) {
         problemIs(bank, Loom::readFailure(file, read), Loom::openFailureHint(read.error));
         continue;
      }
      String why;
      String digest = digestOfPcrFile(file, read.text, a->digestSize, why);
      if (why.empty()) {
         bank.values[index] = std::move(digest);
      } else {
         problemIs(bank, why);
      }
   }
}

// ---- the TPM ----

// Where the TPM is reached: the configuration as named and as given to the
// TCTI loader, and for a device TCTI its device file.
struct Tcti {
   String named;
   String conf;
   String device;      // as named; empty for other TCTIs
   String devicePath;  // as opened
};

Tcti tctiOf(std::optional<String> const &tcti) {
   if (!tcti) {
      // The default device is a fixed system file: below the system root.
      return {kDefaultTcti, "device:" + Loom::sysrootPath(kDefaultDevice), kDefaultDevice,
              Loom::sysrootPath(kDefaultDevice)};
   }
   Tcti t{*tcti, *tcti, {}, {}};
   if (tcti->starts_with("device:")) t.device = t.devicePath = tcti->substr(7);
   return t;
}

// Why the TPM could not be reached: for a device TCTI, what is wrong with the
// device file when something is; else the TCTI's or ESYS's response code.
void unreachable(Tcti const &tcti, TSS2_RC rc, String &problem, String &hint) {
   problem = "cannot reach the TPM through " + tcti.named + ": ";
   if (!tcti.device.empty()) {
      int const fd = open(tcti.devicePath.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
      int const err = errno;
      if (fd >= 0) {
         close(fd);
      } else if (err == ENOENT) {
         problem += tcti.device + " does not exist";
         hint = "load the TPM driver (tpm_tis or tpm_crb)";
         return;
      } else {
         problem += Loom::openFailure(tcti.device, err);
         hint = Loom::openFailureHint(err);
         return;
      }
   }
   problem += responseText(rc);
}

// The TPM's PCR allocation: the selection size of each enabled bank.
TSS2_RC readAllocation(TpmConnection const &tpm, Tcti const &tcti, PcrValues &out,
                       std::map<std::uint16_t, std::uint8_t> &banks) {
   TPMI_YES_NO more = TPM2_NO;
   TPMS_CAPABILITY_DATA *data = nullptr;
   TSS2_RC rc = Esys_GetCapability_Async(tpm.esys(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, TPM2_CAP_PCRS, 0, 1);
   if (rc == TSS2_RC_SUCCESS) rc = tpm.await([&] { return Esys_GetCapability_Finish(tpm.esys(), &more, &data); });
   EsysBuffer<TPMS_CAPABILITY_DATA> const capability(data);
   if (rc != TSS2_RC_SUCCESS || !capability || capability->capability != TPM2_CAP_PCRS) {
      out.enabledBanksProblem = "cannot read the TPM's PCR allocation through " + tcti.named + ": " +
                                (rc != TSS2_RC_SUCCESS ? responseText(rc) : String("the TPM answered another capability"));
      return rc;
   }
   TPML_PCR_SELECTION const &assigned = capability->data.assignedPCR;
   for (std::uint32_t b = 0; b < std::min<std::uint32_t>(assigned.count, TPM2_NUM_PCR_BANKS); ++b) {
      TPMS_PCR_SELECTION const &s = assigned.pcrSelections[b];
      std::uint8_t const size = std::min<std::uint8_t>(s.sizeofSelect, TPM2_PCR_SELECT_MAX);
      if (std::any_of(s.pcrSelect, s.pcrSelect + size, [](BYTE bits) { return bits != 0; })) {
         banks[s.hash] = size;
         out.enabledBanks.push_back(algorithmName(s.hash));
      }
   }
   std::sort(out.enabledBanks.begin(), out.enabledBanks.end());
   return rc;
}

// Takes the values of a TPM2_PCR_Read response that are still `missing`;
// false when there was none.
bool takeValues(TPML_PCR_SELECTION const &selected, TPML_DIGEST const &digests, std::uint16_t algorithm,
                std::set<std::uint32_t> &missing, BankValues &bank) {
   TpmAlgorithm const *a = tpmAlgorithm(algorithm);
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
            problemIs(bank, "the TPM returned " + std::to_string(length) + " bytes for " + String(a->name) + " PCR " +
                               std::to_string(index) + ", not " + std::to_string(a->digestSize));
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
TSS2_RC readTpmBank(TpmConnection const &tpm, Tcti const &tcti, std::uint16_t algorithm, std::uint8_t selectSize,
                    std::set<std::uint32_t> const &pcrs, BankValues &bank) {
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
         bank.problem = "cannot read the " + algorithmName(algorithm) + " PCRs through " + tcti.named + ": " +
                        responseText(rc);
         bank.hint.clear();
         return rc;
      }
      if (!selectedOut || !values || !takeValues(*selectedOut, *values, algorithm, missing, bank)) break;
   }
   missing.merge(beyond);
   if (!missing.empty()) {
      problemIs(bank, "the TPM did not return " + algorithmName(algorithm) + " PCR " + pcrList(missing) + " through " +
                         tcti.named);
   }
   return TSS2_RC_SUCCESS;
}

PcrValues fromTpm(std::map<std::uint16_t, std::set<std::uint32_t>> const &wanted, std::optional<String> const &named) {
   PcrValues out;
   Tcti const tcti = tctiOf(named);
   out.source = tcti.named;
   TpmConnection const tpm(tcti.conf);
   if (!tpm.esys()) {
      unreachable(tcti, tpm.failure(), out.enabledBanksProblem, out.enabledBanksHint);
      for (auto const &[algorithm, pcrs] : wanted) {
         out.banks[algorithm] = {{}, out.enabledBanksProblem, out.enabledBanksHint};
      }
      return out;
   }
   std::map<std::uint16_t, std::uint8_t> enabled;
   TSS2_RC const rc = readAllocation(tpm, tcti, out, enabled);
   bool const allocationKnown = out.enabledBanksProblem.empty();
   // Why no further command can be sent, once the TPM's answer is lost.
   String lost = TpmConnection::answered(rc) ? String() : out.enabledBanksProblem;
   for (auto const &[algorithm, pcrs] : wanted) {
      BankValues &bank = out.banks[algorithm];
      if (!lost.empty()) {
         bank.problem = lost;
         continue;
      }
      auto const it = enabled.find(algorithm);
      if (allocationKnown && it == enabled.end()) {
         bank.problem = "the TPM has no " + algorithmName(algorithm) + " bank (none in its PCR allocation, read through " +
                        tcti.named + ")";
         continue;
      }
      if (!TpmConnection::answered(readTpmBank(tpm, tcti, algorithm, allocationKnown ? it->second : kPcClientSelectSize,
                                               pcrs, bank))) {
         lost = bank.problem;
      }
   }
   return out;
}

}  // namespace

PcrValues readPcrValues(std::map<std::uint16_t, std::set<std::uint32_t>> const &wanted,
                        std::optional<String> const &tcti) {
   std::vector<String> banks = sysfsBanks();
   if (banks.empty()) return fromTpm(wanted, tcti);
   PcrValues out;
   out.source = "sysfs";
   for (auto const &[algorithm, pcrs] : wanted) readSysfsBank(algorithm, pcrs, banks, out.banks[algorithm]);
   out.enabledBanks = std::move(banks);
   return out;
}

}  // namespace SentrelEvidence
