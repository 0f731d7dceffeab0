#include "attest/CardIdentity.h"

#include "attest/FileText.h"

namespace SentrelAttestd {

namespace {

// A DMI string is at most 255 bytes.
constexpr std::size_t kMaxDmiBytes = 4096;

String dmi(String const &sysroot, char const *name, std::vector<String> &problems) {
   String const path = String("/sys/class/dmi/id/") + name;
   auto text = readFileText(sysroot + path, path, kMaxDmiBytes);
   if (!text.problem.empty()) {
      problems.push_back(text.problem);
      return {};
   }
   String &s = text.text;
   while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
   return std::move(s);
}

}  // namespace

CardIdentity readCardIdentity(String const &sysroot) {
   CardIdentity c;
   c.manufacturer = dmi(sysroot, "sys_vendor", c.problems);
   c.partNumber = dmi(sysroot, "product_name", c.problems);
   c.serial = dmi(sysroot, "product_serial", c.problems);
   return c;
}

}  // namespace SentrelAttestd
