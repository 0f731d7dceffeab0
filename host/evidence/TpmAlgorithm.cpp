#include "host/evidence/EventLog.h"

#include <iterator>

namespace SentrelEvidence {

namespace {
constexpr TpmAlgorithm kAlgorithms[] = {
   {kAlgSha1, "sha1", 20, "SHA1"},
   {kAlgSha256, "sha256", 32, "SHA256"},
   {kAlgSha384, "sha384", 48, "SHA384"},
   {kAlgSha512, "sha512", 64, "SHA512"},
   {kAlgSm3_256, "sm3_256", 32, "SM3"},
};
}  // namespace

TpmAlgorithm const *tpmAlgorithm(std::uint16_t id) {
   for (auto const &a : kAlgorithms) {
      if (a.id == id) return &a;
   }
   return nullptr;
}

TpmAlgorithm const *tpmAlgorithm(std::string_view name) {
   for (auto const &a : kAlgorithms) {
      if (a.name == name) return &a;
   }
   return nullptr;
}

}  // namespace SentrelEvidence
