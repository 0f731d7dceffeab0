#include "evidence/Replay.h"

#include <algorithm>
#include <memory>
#include <openssl/evp.h>

namespace SentrelEvidence {

namespace {

struct MdFree {
   void operator()(EVP_MD *md) const { EVP_MD_free(md); }
};
struct CtxFree {
   void operator()(EVP_MD_CTX *ctx) const { EVP_MD_CTX_free(ctx); }
};

// One bank being replayed: its digest fetched once and one context reused
// for every extend, as fetching or allocating per event would cost more than
// the hash itself.
struct BankReplay {
   std::uint16_t algorithm;
   std::unique_ptr<EVP_MD, MdFree> md;
   std::unique_ptr<EVP_MD_CTX, CtxFree> ctx;
   ReplayedBank *bank;
   bool failed = false;

   void extend(std::uint32_t pcr, String const &digest) {
      String &value = bank->values[pcr];
      bank->extended.set(pcr);
      auto *const out = reinterpret_cast<unsigned char *>(value.data());
      failed = failed || !EVP_DigestInit_ex(ctx.get(), md.get(), nullptr) ||
               !EVP_DigestUpdate(ctx.get(), value.data(), value.size()) ||
               !EVP_DigestUpdate(ctx.get(), digest.data(), digest.size()) ||
               !EVP_DigestFinal_ex(ctx.get(), out, nullptr);
   }
};

}  // namespace

String resetValue(std::uint32_t pcr, std::size_t digestSize, std::optional<std::uint8_t> startupLocality) {
   String value(digestSize, '\0');
   if (pcr == 0 && startupLocality && digestSize > 0) value.back() = static_cast<char>(*startupLocality);
   return value;
}

Replay replayEventLog(EventLog const &log) { return replayEventLog(log, log.algorithms); }

Replay replayEventLog(EventLog const &log, std::span<std::uint16_t const> algorithms) {
   Replay replay;
   std::vector<BankReplay> banks;
   for (auto const id : log.algorithms) {
      if (std::find(algorithms.begin(), algorithms.end(), id) == algorithms.end()) continue;
      auto const *a = tpmAlgorithm(id);
      std::unique_ptr<EVP_MD, MdFree> md(a ? EVP_MD_fetch(nullptr, a->evpName, nullptr) : nullptr);
      std::unique_ptr<EVP_MD_CTX, CtxFree> ctx(EVP_MD_CTX_new());
      if (!md || !ctx || static_cast<std::size_t>(EVP_MD_get_size(md.get())) != a->digestSize) {
         replay.uncomputable.push_back(id);
         continue;
      }
      ReplayedBank &bank = replay.banks[id];
      for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) {
         bank.values[pcr] = resetValue(pcr, a->digestSize, log.startupLocality);
      }
      banks.push_back(BankReplay{id, std::move(md), std::move(ctx), &bank});
   }
   for (auto const &e : log.events) {
      // checkEvents holds every index below kPcrCount; one past it is not extended.
      if (e.type == EV_NO_ACTION || e.pcr >= kPcrCount) continue;
      for (auto const &d : e.digests) {
         auto const bank = std::find_if(banks.begin(), banks.end(),
                                        [&](BankReplay const &b) { return b.algorithm == d.algorithm; });
         if (bank != banks.end()) bank->extend(e.pcr, d.bytes);
      }
   }
   for (auto const &b : banks) {
      if (!b.failed) continue;
      replay.banks.erase(b.algorithm);
      replay.uncomputable.push_back(b.algorithm);
   }
   return replay;
}

}  // namespace SentrelEvidence
