#pragma once

#include <algorithm>
#include <string_view>
#include <vector>

#include "Sentrel/platform/String.h"
#include "Sentrel/platform/ReadFile.h"

// The TPM as the kernel shows it in sysfs, below the system root.
namespace SentrelHost {

using Loom::String;

inline constexpr char kTpmFolder[] = "/sys/class/tpm/tpm0";

// The kernel names the folder of sm3_256, and of that bank alone, otherwise
// than the TPM does.
inline constexpr std::string_view kSm3Folder = "sm3";
inline constexpr std::string_view kSm3Bank = "sm3_256";

// The banks of the pcr-<algorithm> folders the kernel lists for the TPM, by
// their TPM names, sorted; `err` is the errno of listing the folder, or 0.
inline std::vector<String> sysfsPcrBanks(int &err) {
   std::vector<String> banks;
   for (std::string_view const name : Loom::listSystemDir(kTpmFolder, err)) {
      if (name.starts_with("pcr-") && name.size() > 4) {
         banks.emplace_back(name.substr(4) == kSm3Folder ? kSm3Bank : name.substr(4));
      }
   }
   std::sort(banks.begin(), banks.end());
   return banks;
}

// The folder of a bank's PCR files, as the kernel names it.
inline String sysfsPcrFolder(std::string_view bank) {
   return String(kTpmFolder) + "/pcr-" + String(bank == kSm3Bank ? kSm3Folder : bank);
}

}  // namespace SentrelHost
