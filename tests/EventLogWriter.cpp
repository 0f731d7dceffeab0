#include "EventLogWriter.h"

#include <openssl/evp.h>
#include <random>

namespace SentrelTest {

using namespace SentrelEvidence;

namespace {

// OpenSSL's digest of a TPM algorithm, named here rather than taken from the
// code under test, so that a wrong entry there shows.
EVP_MD const *digestOf(std::uint16_t algorithm) {
   switch (algorithm) {
      case kAlgSha1: return EVP_sha1();
      case kAlgSha256: return EVP_sha256();
      case kAlgSha384: return EVP_sha384();
      case kAlgSha512: return EVP_sha512();
      case kAlgSm3_256: return EVP_get_digestbyname("SM3");
      default: return nullptr;
   }
}

String hashOf(std::uint16_t algorithm, String const &bytes) {
   unsigned char out[EVP_MAX_MD_SIZE];
   unsigned size = 0;
   auto const *md = digestOf(algorithm);
   if (!md || !EVP_Digest(bytes.data(), bytes.size(), out, &size, md, nullptr)) return {};
   return String(reinterpret_cast<char const *>(out), size);
}

std::size_t sizeOf(std::uint16_t algorithm) {
   auto const *md = digestOf(algorithm);
   return md ? static_cast<std::size_t>(EVP_MD_get_size(md)) : 0;
}

// The algorithm's digest that an event carries.
String eventDigest(LogEvent const &e, std::uint16_t algorithm) {
   auto const given = e.digests.find(algorithm);
   return given != e.digests.end() ? given->second : hashOf(algorithm, e.data);
}

std::vector<std::uint16_t> banksOf(LogPlan const &log) {
   return log.format == EventLogFormat::CryptoAgile ? log.banks : std::vector<std::uint16_t>{kAlgSha1};
}

// TCG_PCR_EVENT: every event of the SHA-1 layout and the crypto-agile header.
void putSha1Event(String &out, std::uint32_t pcr, std::uint32_t type, String const &digest, String const &data) {
   putLittleEndian(out, pcr);
   putLittleEndian(out, type);
   out += digest;
   putLittleEndian(out, static_cast<std::uint32_t>(data.size()));
   out += data;
}

// TCG_EfiSpecIDEvent: signature, platform class 0, version 2.0 errata 0,
// 64-bit UINTN, the algorithms and their digest sizes, no vendor information.
String agileHeaderData(std::vector<std::pair<std::uint16_t, std::uint16_t>> const &algorithms) {
   String out(SentrelEvidence::kCryptoAgileSignature);
   putLittleEndian(out, std::uint32_t{0});
   out += String("\x00\x02\x00\x02", 4);
   putLittleEndian(out, static_cast<std::uint32_t>(algorithms.size()));
   for (auto const &[id, size] : algorithms) {
      putLittleEndian(out, id);
      putLittleEndian(out, size);
   }
   out += '\0';
   return out;
}

}  // namespace

String writeEventLog(LogPlan const &log) {
   String out;
   bool const agile = log.format == EventLogFormat::CryptoAgile;
   // Every algorithm of the header, in its order: the unknown ones first.
   auto algorithms = log.unknownAlgorithms;
   for (auto const id : log.banks) algorithms.emplace_back(id, static_cast<std::uint16_t>(sizeOf(id)));
   if (agile) putSha1Event(out, 0, EV_NO_ACTION, String(20, '\0'), agileHeaderData(algorithms));
   auto const put = [&](LogEvent const &e) {
      if (!agile) return putSha1Event(out, e.pcr, e.type, eventDigest(e, kAlgSha1), e.data);
      putLittleEndian(out, e.pcr);
      putLittleEndian(out, e.type);
      putLittleEndian(out, static_cast<std::uint32_t>(algorithms.size()));
      for (auto const &[id, size] : algorithms) {
         putLittleEndian(out, id);
         bool const known = sizeOf(id) != 0;
         out += known ? eventDigest(e, id) : String(size, '\0');
      }
      putLittleEndian(out, static_cast<std::uint32_t>(e.data.size()));
      out += e.data;
   };
   if (log.startupLocality) {
      LogEvent locality{0, EV_NO_ACTION, String("StartupLocality", 16) + static_cast<char>(*log.startupLocality), {}};
      for (auto const id : banksOf(log)) locality.digests[id] = String(sizeOf(id), '\0');
      put(locality);
   }
   for (auto const &e : log.events) put(e);
   return out;
}

std::map<std::pair<std::uint16_t, std::uint32_t>, String> replayedPcrs(LogPlan const &log) {
   std::map<std::pair<std::uint16_t, std::uint32_t>, String> pcrs;
   for (auto const &e : log.events) {
      if (e.type == EV_NO_ACTION) continue;
      for (auto const id : banksOf(log)) {
         auto [at, fresh] = pcrs.try_emplace({id, e.pcr}, sizeOf(id), '\0');
         if (fresh && e.pcr == 0 && log.startupLocality) at->second.back() = static_cast<char>(*log.startupLocality);
         at->second = hashOf(id, at->second + eventDigest(e, id));
      }
   }
   return pcrs;
}

std::vector<LogEvent> firmwareEvents(std::size_t count, std::uint32_t seed) {
   std::mt19937 random(seed);
   auto const upTo = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
   auto const text = [&](std::size_t n) {
      String t;
      while (t.size() < n) t += static_cast<char>('a' + upTo(26));
      return t;
   };
   static constexpr char const *kVariables[] = {"SecureBoot", "PK", "KEK", "db", "dbx", "BootOrder", "Boot0001"};
   std::vector<LogEvent> events;
   for (std::size_t i = 0; i < count; ++i) {
      LogEvent e;
      switch (i < 2 ? i : 2 + upTo(8)) {
         case 0: e = {0, EV_S_CRTM_VERSION, utf16("1.0." + text(20)) + String(2, '\0'), {}}; break;
         case 1: e = {0, EV_POST_CODE, "POST CODE " + text(40 + upTo(60)), {}}; break;
         case 2:
            e = {upTo(2) ? 7u : 1u, EV_EFI_VARIABLE_DRIVER_CONFIG,
                 uefiVariableData(kVariables[upTo(std::size(kVariables))], text(10 + upTo(100))), {}};
            break;
         case 3: {
            // The digest of a boot application is its image's, not its data's.
            e = {4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\" + text(4 + upTo(40)) + ".EFI"), {}};
            for (auto const id : {kAlgSha1, kAlgSha256, kAlgSha384, kAlgSha512, kAlgSm3_256}) {
               e.digests[id] = text(sizeOf(id));
            }
            break;
         }
         case 4: e = {5, EV_EFI_ACTION, "Calling EFI Application from Boot Option " + text(upTo(40)), {}}; break;
         case 5: e = {static_cast<std::uint32_t>(upTo(8)), EV_SEPARATOR, String(4, '\0'), {}}; break;
         case 6: e = {8, EV_IPL, "grub_cmd: linux /boot/vmlinuz root=" + text(20 + upTo(120)), {}}; break;
         case 7: e = {static_cast<std::uint32_t>(2 + upTo(2)), EV_EFI_BOOT_SERVICES_DRIVER,
                      imageLoadData("\\drivers\\" + text(8 + upTo(30)) + ".efi"), {}};
            break;
         case 8: e = {9, EV_IPL, "/boot/initrd.img-" + text(30 + upTo(60)), {}}; break;
         default: e = {14, EV_IPL, "MokList" + text(40 + upTo(100)), {}}; break;
      }
      events.push_back(std::move(e));
   }
   return events;
}

String hex(String const &bytes) {
   static constexpr char kDigits[] = "0123456789abcdef";
   String out;
   for (unsigned char const c : bytes) {
      out += kDigits[c >> 4];
      out += kDigits[c & 15];
   }
   return out;
}

}  // namespace SentrelTest
