#include "evidence/EventLog.h"

#include <algorithm>
#include <utility>

namespace SentrelEvidence {

namespace {

// The first 16 bytes of the data of a StartupLocality event, NUL included.
constexpr std::string_view kStartupLocalitySignature{"StartupLocality", 16};
constexpr std::size_t kSha1Size = 20;

// An algorithm the header declares: unknown ones only give the size to skip.
struct Declared {
   std::uint16_t id;
   std::uint16_t size;
   bool known;
};

// Reads a whole log front to back. Every problem names the byte where its
// event starts (the offset of EventLogProblem) and, in the text, the byte of
// the field at fault.
class Parser {
 public:
   explicit Parser(std::string_view bytes) : bytes_(bytes) {}

   std::variant<EventLog, EventLogProblem> parse() {
      if (bytes_.empty()) return EventLogProblem{0, "the log is empty"};
      if (bytes_.size() > kMaxEventLogBytes) {
         return EventLogProblem{0, concat("the log is ", bytes_.size(), " bytes, more than the ", kMaxEventLogBytes,
                                          " a firmware log may hold")};
      }
      if (!sha1Event() || !header()) return std::move(*problem_);
      while (at_ < bytes_.size()) {
         if (log_.events.size() == kMaxEvents) {
            startEvent();
            fail(concat(": the log holds more than ", kMaxEvents, " events, more than any firmware writes"));
            return std::move(*problem_);
         }
         if (!(log_.format == EventLogFormat::CryptoAgile ? agileEvent() : sha1Event())) return std::move(*problem_);
      }
      return std::move(log_);
   }

 private:
   void startEvent() {
      start_ = at_;
      number_ = log_.events.size();
   }

   // A problem of the current event: `what` follows its number and offset.
   bool fail(std::string_view what) {
      problem_.emplace(EventLogProblem{start_, concat("event ", number_, " at byte ", start_, what)});
      return false;
   }
   bool truncated(std::string_view field) {
      return fail(concat(" ends past the end of the log (", bytes_.size(), " bytes) in its ", field, " at byte ", at_));
   }

   // Takes the next `n` bytes of the current event, `field` naming them.
   bool take(std::size_t n, std::string_view &out, std::string_view field) {
      if (n > bytes_.size() - at_) return truncated(field);
      out = bytes_.substr(at_, n);
      at_ += n;
      return true;
   }
   bool u32(std::uint32_t &v, std::string_view field) {
      std::string_view b;
      if (!take(4, b, field)) return false;
      v = static_cast<std::uint32_t>(littleEndian(b));
      return true;
   }

   // The event's data, and what every event must hold.
   bool data(Event &e) {
      std::uint32_t size;
      std::string_view d;
      if (!u32(size, "data size") || !take(size, d, "data")) return false;
      e.data = String(d);
      if (auto problem = checkEvent(e, log_)) {
         problem_ = std::move(problem);
         return false;
      }
      return true;
   }

   // TCG_PCR_EVENT: every event of the SHA-1 layout, and the header of the
   // crypto-agile one.
   bool sha1Event() {
      startEvent();
      Event e{number_, start_, 0, 0, {}, {}};
      std::string_view digest;
      if (!u32(e.pcr, "PCR index") || !u32(e.type, "event type") || !take(kSha1Size, digest, "SHA-1 digest")) {
         return false;
      }
      e.digests.push_back(Digest{kAlgSha1, String(digest)});
      if (!data(e)) return false;
      log_.events.push_back(std::move(e));
      return true;
   }

   // TCG_PCR_EVENT2: pcrIndex, eventType, TPML_DIGEST_VALUES, eventSize,
   // event.
   bool agileEvent() {
      startEvent();
      Event e{number_, start_, 0, 0, {}, {}};
      std::uint32_t count;
      if (!u32(e.pcr, "PCR index") || !u32(e.type, "event type") || !u32(count, "digest count")) return false;
      if (count != declared_.size()) {
         return fail(concat(": its digest count ", count, " at byte ", at_ - 4, " differs from the header's ",
                            declared_.size()));
      }
      e.digests.reserve(log_.algorithms.size());
      for (std::uint32_t i = 0; i < count; ++i) {
         std::size_t const field = at_;
         std::string_view b;
         if (!take(2, b, "algorithm id")) return false;
         auto const id = static_cast<std::uint16_t>(littleEndian(b));
         auto const found = std::lower_bound(byId_.begin(), byId_.end(), std::pair{id, std::size_t{0}});
         if (found == byId_.end() || found->first != id) {
            return fail(concat(": its algorithm ", algorithmName(id), " at byte ", field,
                               " is not one the header declares"));
         }
         if (seenIn_[found->second] == number_) {
            return fail(concat(": its algorithm ", algorithmName(id), " at byte ", field, " appears twice"));
         }
         seenIn_[found->second] = number_;
         Declared const &d = declared_[found->second];
         if (d.size > bytes_.size() - at_) return truncated(algorithmName(id) + " digest");
         if (d.known) e.digests.push_back(Digest{id, String(bytes_.substr(at_, d.size))});
         at_ += d.size;
      }
      if (!data(e)) return false;
      log_.events.push_back(std::move(e));
      return true;
   }

   // Event 0, read already: the crypto-agile header when it is one.
   bool header() {
      Event const &e = log_.events.front();
      if (e.type != EV_NO_ACTION || !e.data.starts_with(kCryptoAgileSignature)) {
         log_.algorithms = {kAlgSha1};
         return true;
      }
      log_.format = EventLogFormat::CryptoAgile;
      std::vector<std::pair<std::uint16_t, std::uint16_t>> sizes;
      auto algorithms = headerAlgorithms(e.data, at_ - e.data.size(), &sizes);
      if (auto const *why = std::get_if<String>(&algorithms)) return fail(": " + *why);
      log_.algorithms = std::move(std::get<0>(algorithms));
      for (std::size_t i = 0; i < sizes.size(); ++i) {
         declared_.push_back(Declared{sizes[i].first, sizes[i].second, tpmAlgorithm(sizes[i].first) != nullptr});
         byId_.emplace_back(sizes[i].first, i);
      }
      std::sort(byId_.begin(), byId_.end());
      seenIn_.assign(sizes.size(), 0);  // event 0 is this header: no digest list of its own
      return true;
   }

   std::string_view bytes_;
   std::size_t at_ = 0;
   std::size_t start_ = 0;   // where the current event starts
   std::size_t number_ = 0;  // and its number
   EventLog log_;
   std::vector<Declared> declared_;                           // in the header's order
   std::vector<std::pair<std::uint16_t, std::size_t>> byId_;  // id, index in declared_: sorted
   std::vector<std::size_t> seenIn_;  // per declared algorithm, the last event that carried it
   std::optional<EventLogProblem> problem_;
};

}  // namespace

std::variant<EventLog, EventLogProblem> parseEventLog(std::string_view bytes) { return Parser(bytes).parse(); }

std::string_view eventLogFormatName(EventLogFormat format) {
   return format == EventLogFormat::CryptoAgile ? "crypto-agile" : "sha1";
}

std::variant<std::vector<std::uint16_t>, String> headerAlgorithms(
   std::string_view d, std::size_t at, std::vector<std::pair<std::uint16_t, std::uint16_t>> *sizes) {
   // Data offset 16: platformClass u32, version and errata 3 bytes,
   // uintnSize u8, numberOfAlgorithms u32, then the list.
   constexpr std::size_t kListAt = 28;
   if (d.size() < kListAt) {
      return concat("its header data of ", d.size(), " bytes ends before the algorithm count at byte ", at + 24);
   }
   auto const count = littleEndian(d.substr(24, 4));
   if (count == 0 || count > (d.size() - kListAt) / 4) {
      return concat("its algorithm count ", count, " at byte ", at + 24,
                    count == 0 ? " declares no algorithm" : " lists more than its data holds");
   }
   // Past this, some id comes twice: said before tables of that size are built.
   if (count > std::size_t{1} << 16) {
      return concat("its algorithm count ", count, " at byte ", at + 24, " is more than there are algorithm ids");
   }
   std::vector<std::uint16_t> known;
   std::vector<std::pair<std::uint16_t, std::uint16_t>> all;
   for (std::size_t i = 0; i < count; ++i) {
      std::size_t const entry = kListAt + 4 * i;
      auto const id = static_cast<std::uint16_t>(littleEndian(d.substr(entry, 2)));
      auto const size = static_cast<std::uint16_t>(littleEndian(d.substr(entry + 2, 2)));
      if (auto const *a = tpmAlgorithm(id)) {
         if (a->digestSize != size) {
            return concat("its header declares ", a->name, " at byte ", at + entry, " with ", size,
                          "-byte digests, not ", a->digestSize);
         }
         known.push_back(id);
      }
      all.emplace_back(id, size);
   }
   std::vector<std::pair<std::uint16_t, std::uint16_t>> sorted = all;
   std::sort(sorted.begin(), sorted.end());
   auto const twice = std::adjacent_find(sorted.begin(), sorted.end(),
                                         [](auto const &a, auto const &b) { return a.first == b.first; });
   if (twice != sorted.end()) return concat("its header declares ", algorithmName(twice->first), " twice");
   std::size_t const vendorAt = kListAt + 4 * count;
   if (d.size() == vendorAt || static_cast<unsigned char>(d[vendorAt]) > d.size() - vendorAt - 1) {
      return concat("its header data of ", d.size(), " bytes ends inside its vendor information at byte ",
                    at + vendorAt);
   }
   if (sizes) *sizes = std::move(all);
   return known;
}

std::optional<EventLogProblem> checkEvent(Event const &e, EventLog &log) {
   auto const at = [&](std::string_view what) {
      return EventLogProblem{e.offset, concat("event ", e.number, " at byte ", e.offset, ": ", what)};
   };
   if (e.pcr >= kPcrCount) {
      return at(concat("its PCR index ", e.pcr, " is past ", kPcrCount - 1, ", the last PCR of a PC Client TPM"));
   }
   if (e.type != EV_NO_ACTION || !e.data.starts_with(kStartupLocalitySignature)) return std::nullopt;
   if (e.data.size() == kStartupLocalitySignature.size()) {
      return at("its StartupLocality data ends before the locality byte");
   }
   log.startupLocality = static_cast<std::uint8_t>(e.data[kStartupLocalitySignature.size()]);
   return std::nullopt;
}

}  // namespace SentrelEvidence
