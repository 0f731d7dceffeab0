#include "host/evidence/PcrValues.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include "Sentrel/platform/ReadFile.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/platform/Sysroot.h"
#include "host/TpmSysfs.h"
#include "tpm/PcrRead.h"

namespace SentrelHost {

using SentrelEvidence::Problem;
using SentrelEvidence::TpmBank;
using SentrelEvidence::TpmPcrs;

namespace {

constexpr char kDefaultDevice[] = "/dev/tpmrm0";
// sha512's 128 hex digits and a newline, with room: more is not a PCR file.
constexpr std::size_t kMaxPcrFileBytes = 256;

// ---- sysfs ----

// The raw digest that a PCR file holds as hex and a newline; none, with
// `why` set, when it holds anything else.
std::optional<String> digestOfPcrFile(String const &file, std::string_view text, std::size_t digestSize,
                                      String &why) {
   if (text.ends_with('\n')) text.remove_suffix(1);
   String const expected = ", not " + std::to_string(2 * digestSize) + " hex digits";
   if (text.size() != 2 * digestSize) {
      why = file + " holds " + std::to_string(text.size()) + " characters" + expected;
      return std::nullopt;
   }
   auto digest = SentrelEvidence::bytesOfHex(text);
   if (!digest) why = file + " holds characters other than hex digits" + expected;
   return digest;
}

TpmBank readSysfsBank(String const &name, std::bitset<SentrelEvidence::kPcrCount> pcrs) {
   TpmBank bank;
   auto const problem = [&](String why, String hint = {}) {
      if (!bank.problem) bank.problem = Problem{std::move(why), std::move(hint)};
   };
   String const folder = sysfsPcrFolder(name);
   auto const *a = SentrelEvidence::tpmAlgorithm(name);
   if (!a) {
      problem("the kernel lists " + folder + ", of an algorithm this host does not know");
      return bank;
   }
   for (std::uint32_t index = 0; index < pcrs.size(); ++index) {
      if (!pcrs.test(index)) continue;
      String const file = folder + "/" + std::to_string(index);
      Loom::FileText const read = Loom::readSystemFile(file.c_str(), kMaxPcrFileBytes);
      if (!read.ok()) {
         problem(Loom::readFailure(file, read), Loom::openFailureHint(read.error));
         continue;
      }
      String why;
      if (auto digest = digestOfPcrFile(file, read.text, a->digestSize, why)) {
         bank.values[index] = std::move(*digest);
      } else {
         problem(why);
      }
   }
   return bank;
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
Problem unreachable(Tcti const &tcti, SentrelTpm::TpmConnection const &tpm) {
   Problem p{"cannot reach the TPM through " + tcti.named + ": ", {}};
   if (!tcti.device.empty()) {
      int const fd = open(tcti.devicePath.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
      int const err = errno;
      if (fd >= 0) {
         close(fd);
      } else if (err == ENOENT) {
         p.why += tcti.device + " does not exist";
         p.hint = "load the TPM driver (tpm_tis or tpm_crb)";
         return p;
      } else {
         p.why += Loom::openFailure(tcti.device, err);
         p.hint = Loom::openFailureHint(err);
         return p;
      }
   }
   p.why += tpm.responseText(tpm.failure());
   return p;
}

TpmPcrs fromTpm(std::bitset<SentrelEvidence::kPcrCount> pcrs, std::vector<std::uint16_t> const &logBanks,
                std::optional<String> const &named, std::chrono::milliseconds deadline) {
   Tcti const tcti = tctiOf(named);
   SentrelTpm::TpmConnection const tpm(tcti.conf, deadline, tcti.named);
   if (tpm.esys()) return SentrelTpm::readPcrs(tpm, pcrs, logBanks);
   TpmPcrs out;
   out.enabledBanksUnknown = unreachable(tcti, tpm);
   for (auto const algorithm : logBanks) {
      out.banks[SentrelEvidence::algorithmName(algorithm)].problem = out.enabledBanksUnknown;
   }
   return out;
}

}  // namespace

TpmPcrs readPcrValues(std::bitset<SentrelEvidence::kPcrCount> pcrs, std::vector<std::uint16_t> const &logBanks,
                      std::optional<String> const &tcti, std::chrono::milliseconds deadline) {
   int err = 0;
   std::vector<String> const banks = sysfsPcrBanks(err);
   if (banks.empty()) return fromTpm(pcrs, logBanks, tcti, deadline);
   TpmPcrs out;
   for (auto const &name : banks) out.banks[name] = readSysfsBank(name, pcrs);
   return out;
}

}  // namespace SentrelHost
