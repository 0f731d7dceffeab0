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

// The algorithm's digest that an event carries.
String eventDigest(LogEvent const &e, std::uint16_t algorithm) {
   auto const given = e.digests.find(algorithm);
   if (given != e.digests.end()) return given->second;
   String const hash = hashOf(algorithm, e.data);
   return e.type == EV_NO_ACTION ? String(hash.size(), '\0') : hash;
}

}  // namespace

String hashOf(std::uint16_t algorithm, String const &bytes) {
   unsigned char out[EVP_MAX_MD_SIZE];
   unsigned size = 0;
   auto const *md = digestOf(algorithm);
   if (!md || !EVP_Digest(bytes.data(), bytes.size(), out, &size, md, nullptr)) return {};
   return String(reinterpret_cast<char const *>(out), size);
}

String writeEventLog(LogPlan const &log) {
   bool const agile = log.format == EventLogFormat::CryptoAgile;
   // Every algorithm of the header, in its order: the unknown ones first.
   auto algorithms = log.unknownAlgorithms;
   for (auto const id : log.banks) algorithms.emplace_back(id, static_cast<std::uint16_t>(hashOf(id, {}).size()));
   String out;
   // Both layouts: PCR index, event type, the digests, the data's size, the data.
   auto const put = [&](std::uint32_t pcr, std::uint32_t type, String const &digests, String const &data) {
      putLittleEndian(out, pcr);
      putLittleEndian(out, type);
      out += digests;
      putLittleEndian(out, static_cast<std::uint32_t>(data.size()));
      out += data;
   };
   if (agile) {
      // The header, in the SHA-1 layout: signature, platform class 0, version
      // 2.0 errata 0, 64-bit UINTN, the algorithms and their digest sizes, no
      // vendor information.
      String header = String(kCryptoAgileSignature) + String("\0\0\0\0\x00\x02\x00\x02", 8);
      putLittleEndian(header, static_cast<std::uint32_t>(algorithms.size()));
      for (auto const &[id, size] : algorithms) {
         putLittleEndian(header, id);
         putLittleEndian(header, size);
      }
      put(0, EV_NO_ACTION, String(20, '\0'), header + '\0');
   }
   auto events = log.events;
   if (log.startupLocality) {
      String const data = String("StartupLocality", 16) + static_cast<char>(*log.startupLocality);
      events.insert(events.begin(), {0, EV_NO_ACTION, data, {}});
   }
   for (auto const &e : events) {
      String digests;  // TPML_DIGEST_VALUES
      putLittleEndian(digests, static_cast<std::uint32_t>(algorithms.size()));
      for (auto const &[id, size] : algorithms) {
         putLittleEndian(digests, id);
         String const digest = eventDigest(e, id);
         digests += digest.empty() ? String(size, '\0') : digest;
      }
      put(e.pcr, e.type, agile ? digests : eventDigest(e, kAlgSha1), e.data);
   }
   return out;
}

std::map<std::pair<std::uint16_t, std::uint32_t>, String> replayedPcrs(LogPlan const &log) {
   auto const banks = log.format == EventLogFormat::CryptoAgile ? log.banks : std::vector<std::uint16_t>{kAlgSha1};
   std::map<std::pair<std::uint16_t, std::uint32_t>, String> pcrs;
   for (auto const &e : log.events) {
      if (e.type == EV_NO_ACTION) continue;
      for (auto const id : banks) {
         auto [at, fresh] = pcrs.try_emplace({id, e.pcr}, hashOf(id, {}).size(), '\0');
         if (fresh && e.pcr == 0 && log.startupLocality) at->second.back() = static_cast<char>(*log.startupLocality);
         at->second = hashOf(id, at->second + eventDigest(e, id));
      }
   }
   return pcrs;
}

std::map<std::uint32_t, String> replayedBank(LogPlan const &plan, std::uint16_t bank) {
   auto const replayed = replayedPcrs(plan);
   std::map<std::uint32_t, String> values;
   for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) {
      auto const v = replayed.find({bank, pcr});
      values[pcr] = v != replayed.end() ? v->second : String(hashOf(bank, {}).size(), '\0');
   }
   return values;
}

LogPlan firmwareBoot(String const &bootApplication, String const &bootOrder) {
   LogPlan plan{.startupLocality = 3,
                .events = {{0, EV_S_CRTM_VERSION, utf16("1.07"), {}},
                           {1, EV_EFI_VARIABLE_BOOT, uefiVariableData("BootOrder", bootOrder), {}},
                           {4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData(bootApplication), {}},
                           {7, EV_EFI_VARIABLE_DRIVER_CONFIG, uefiVariableData("SecureBoot", "\x01"), {}}}};
   for (std::uint32_t pcr = 0; pcr < 8; ++pcr) plan.events.push_back({pcr, EV_SEPARATOR, String(4, '\0'), {}});
   return plan;
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
         case 3:
            // The digest of a boot application is its image's, not its data's.
            e = {4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\" + text(4 + upTo(40)) + ".EFI"), {}};
            for (auto const id : {kAlgSha1, kAlgSha256, kAlgSha384, kAlgSha512, kAlgSm3_256}) {
               e.digests[id] = text(hashOf(id, {}).size());
            }
            break;
         case 4: e = {5, EV_EFI_ACTION, "Calling EFI Application from Boot Option " + text(upTo(40)), {}}; break;
         case 5: e = {static_cast<std::uint32_t>(upTo(8)), EV_SEPARATOR, String(4, '\0'), {}}; break;
         case 6: e = {8, EV_IPL, "grub_cmd: linux /boot/vmlinuz root=" + text(20 + upTo(120)), {}}; break;
         case 7:
            e = {static_cast<std::uint32_t>(2 + upTo(2)), EV_EFI_BOOT_SERVICES_DRIVER,
                 imageLoadData("\\drivers\\" + text(8 + upTo(30)) + ".efi"), {}};
            break;
         case 8: e = {9, EV_IPL, "/boot/initrd.img-" + text(30 + upTo(60)), {}}; break;
         default: e = {14, EV_IPL, "MokList" + text(40 + upTo(100)), {}}; break;
      }
      events.push_back(std::move(e));
   }
   return events;
}

String utf16(std::string_view ascii) {
   String out;
   for (char c : ascii) out += {c, '\0'};
   return out;
}

String uefiVariableData(std::string_view name, String const &value) {
   // EFI_GLOBAL_VARIABLE, 8be4df61-93ca-11d2-aa0d-00e098032b8c, as it lies in memory.
   String out("\x61\xdf\xe4\x8b\xca\x93\xd2\x11\xaa\x0d\x00\xe0\x98\x03\x2b\x8c", 16);
   putLittleEndian(out, std::uint64_t{name.size()});
   putLittleEndian(out, std::uint64_t{value.size()});
   return out + utf16(name) + value;
}

String imageLoadData(std::string_view filePath) {
   // A hard drive node of 42 bytes for partition 1, its start, size and
   // signature zeros, GPT with a GUID signature; the file path node; the end.
   String path = String{4, 1, 42, 0, 1, 0, 0, 0} + String(32, '\0') + String{2, 2, 4, 4};
   String const name = utf16(filePath) + String(2, '\0');
   putLittleEndian(path, static_cast<std::uint16_t>(4 + name.size()));
   path += name + String("\x7f\xff\x04\x00", 4);
   // Where the image was loaded, its length, its link-time address, then the path.
   String out;
   for (std::uint64_t const v : {std::uint64_t{0x7d000000}, std::uint64_t{0x20000}, std::uint64_t{0}, path.size()}) {
      putLittleEndian(out, v);
   }
   return out + path;
}

}  // namespace SentrelTest
