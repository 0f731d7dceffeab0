#include <algorithm>
#include <optional>

#include "evidence/Cel.h"
#include "evidence/EventNames.h"
#include "evidence/Json.h"

// A canonical event log read back: a SAX pass over the JSON that keeps byte
// offsets for its problems.
namespace SentrelEvidence {

namespace {

String lowerCase(std::string_view s) {
   String out(s);
   for (char &c : out) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
   return out;
}

// CEL's own number of the PC Client content type, for a file that gives numbers.
constexpr std::uint64_t kPcClientContentType = 5;

struct PendingDigest {
   std::size_t offset = 0;
   bool named = false;
   TpmAlgorithm const *algorithm = nullptr;  // null for one we do not know
   std::optional<std::optional<String>> bytes{};  // none: no "digest"; inside it, none: not hex
   std::size_t hexOffset = 0;
};

struct PendingRecord {
   std::size_t index = 0;
   std::size_t offset = 0;
   std::optional<std::uint64_t> recnum{};
   std::optional<std::uint32_t> pcr{};
   std::optional<std::vector<Digest>> digests{};
   std::optional<bool> pcClient{};  // from content_type
   std::optional<std::size_t> contentOffset{};
   bool contentIsObject = false;
   std::optional<std::uint32_t> type{};
   std::optional<String> data{};
   bool machineUnique = false;
};

// Reads the records in one pass over the text, keeping what a record says
// until its end, where it is checked whole: members come in any order.
class CelReader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, CelReader> {
 public:
   explicit CelReader(rapidjson::InsituStringStream &stream) : stream_(stream) {}

   // Where each value starts, from where the stream is when the reader
   // reports it: a string or a number it reads on a copy of the stream,
   // which is still at its start; a literal it has read whole; a bracket it
   // reports before it takes it.
   bool Default() { return value({.offset = here()}); }
   bool Null() { return value({.offset = here() - 4}); }
   bool Bool(bool b) { return value({.kind = Kind::Bool, .flag = b, .offset = here() - (b ? 4 : 5)}); }
   bool Uint(unsigned n) { return Uint64(n); }
   bool Uint64(std::uint64_t n) { return value({.kind = Kind::Number, .number = n, .offset = here()}); }
   bool String(char const *s, rapidjson::SizeType len, bool) {
      return value({.kind = Kind::Text, .text = {s, len}, .offset = here()});
   }
   bool Key(char const *s, rapidjson::SizeType len, bool) {
      key_.assign(s, len);
      return true;
   }
   bool StartObject() { return value({.kind = Kind::Object, .offset = here()}); }
   bool StartArray() { return value({.kind = Kind::Array, .offset = here()}); }
   bool EndObject(rapidjson::SizeType) { return close(); }
   bool EndArray(rapidjson::SizeType) { return close(); }

   std::vector<Event> events;
   std::optional<EventLogProblem> problem;

 private:
   enum class Kind { Other, Bool, Number, Text, Object, Array };
   struct Value {
      Kind kind = Kind::Other;
      std::uint64_t number = 0;
      bool flag = false;
      std::string_view text{};
      std::size_t offset = 0;
   };
   // What the reader is inside of.
   enum class Where { Records, Record, Digests, Digest, Content, Other };

   std::size_t here() { return stream_.Tell(); }

   bool value(Value v) {
      if (where_.empty()) {
         return v.kind == Kind::Array ? open(Where::Records, v)
                                      : fail(v.offset, "a canonical event log is an array of records");
      }
      switch (where_.back()) {
         case Where::Records: return record(v);
         case Where::Record: return recordMember(v);
         case Where::Digests: return digest(v);
         case Where::Digest: return digestMember(v);
         case Where::Content: return contentMember(v);
         case Where::Other: break;
      }
      return other(v);
   }

   bool open(Where w, Value const &v) {
      if (where_.size() >= kMaxJsonDepth) return fail(v.offset, concat("nested deeper than ", kMaxJsonDepth, " levels"));
      where_.push_back(w);
      return true;
   }
   // A value we do not read: an array or object is walked through all the same.
   bool other(Value const &v) { return v.kind == Kind::Object || v.kind == Kind::Array ? open(Where::Other, v) : true; }
   bool close() {
      Where const w = where_.back();
      where_.pop_back();
      if (w == Where::Digest) return endDigest();
      if (w == Where::Record) return endRecord();
      return true;
   }

   bool fail(std::size_t offset, SentrelEvidence::String what) {
      problem = EventLogProblem{offset, std::move(what)};
      return false;
   }
   SentrelEvidence::String recordName() const { return concat("record ", record_.index); }
   bool wrongType(Value const &v, char const *expected) {
      return fail(v.offset, concat(recordName(), ": \"", key_, "\" is not ", expected));
   }
   // A number, given as one or as text.
   static std::optional<std::uint64_t> numberOf(Value const &v) {
      if (v.kind == Kind::Number) return v.number;
      return v.kind == Kind::Text ? numberOfText(v.text) : std::nullopt;
   }

   bool record(Value const &v) {
      if (v.kind != Kind::Object) return fail(v.offset, concat("record ", recordsSeen_, " is not an object"));
      if (recordsSeen_ == kMaxEvents) return fail(v.offset, concat("more than ", kMaxEvents, " records"));
      record_ = PendingRecord{.index = recordsSeen_++, .offset = v.offset};
      return open(Where::Record, v);
   }

   bool recordMember(Value const &v) {
      if (key_ == "recnum") {
         if (v.kind != Kind::Number) return wrongType(v, "a number");
         record_.recnum = v.number;
      } else if (key_ == "pcr") {
         if (v.kind != Kind::Number || v.number > UINT32_MAX) return wrongType(v, "a PCR index");
         record_.pcr = static_cast<std::uint32_t>(v.number);
      } else if (key_ == "digests") {
         if (v.kind != Kind::Array) return wrongType(v, "an array");
         record_.digests.emplace();
         return open(Where::Digests, v);
      } else if (key_ == "content_type") {
         auto const n = numberOf(v);
         if (n) {
            record_.pcClient = *n == kPcClientContentType;
         } else if (v.kind == Kind::Text) {
            record_.pcClient = lowerCase(v.text) == "pcclient_std";
         } else {
            return wrongType(v, "a name or a number");
         }
      } else if (key_ == "content") {
         // Checked at the record's end: only PC Client content must be an object.
         record_.contentOffset = v.offset;
         record_.contentIsObject = v.kind == Kind::Object;
         if (record_.contentIsObject) return open(Where::Content, v);
      } else if (key_ == "machine_unique") {
         if (v.kind != Kind::Bool) return wrongType(v, "true or false");
         record_.machineUnique = v.flag;
      }
      return other(v);
   }

   bool digest(Value const &v) {
      if (v.kind != Kind::Object) return fail(v.offset, recordName() + ": a digest is not an object");
      digest_ = PendingDigest{.offset = v.offset};
      return open(Where::Digest, v);
   }

   bool digestMember(Value const &v) {
      if (key_ == "hashAlg") {
         if (auto const n = numberOf(v)) {
            digest_.algorithm = *n <= UINT16_MAX ? tpmAlgorithm(static_cast<std::uint16_t>(*n)) : nullptr;
         } else if (v.kind == Kind::Text) {
            digest_.algorithm = tpmAlgorithm(lowerCase(v.text));
         } else {
            return wrongType(v, "a name or a number");
         }
         digest_.named = true;
      } else if (key_ == "digest") {
         if (v.kind != Kind::Text) return wrongType(v, "a string");
         digest_.bytes = bytesOfHex(v.text);
         digest_.hexOffset = v.offset;
      }
      return other(v);
   }

   bool endDigest() {
      if (!digest_.named) return fail(digest_.offset, recordName() + ": a digest has no \"hashAlg\"");
      if (!digest_.bytes) return fail(digest_.offset, recordName() + ": a digest has no \"digest\"");
      TpmAlgorithm const *a = digest_.algorithm;
      if (!a) return true;  // an algorithm we do not know, kept out
      auto &bytes = *digest_.bytes;
      if (!bytes || bytes->size() != a->digestSize) {
         return fail(digest_.hexOffset,
                     concat(recordName(), ": the ", a->name, " digest is not ", 2 * a->digestSize, " hex digits"));
      }
      auto &digests = *record_.digests;
      if (std::ranges::any_of(digests, [&](Digest const &d) { return d.algorithm == a->id; })) {
         return fail(digest_.offset, concat(recordName(), ": a second ", a->name, " digest"));
      }
      digests.push_back({a->id, std::move(*bytes)});
      return true;
   }

   bool contentMember(Value const &v) {
      if (key_ == "event_type") {
         auto type = numberOf(v);
         if (!type && v.kind == Kind::Text) type = eventType(v.text);
         if (!type || *type > UINT32_MAX) return wrongType(v, "an event type");
         record_.type = static_cast<std::uint32_t>(*type);
      } else if (key_ == "event_data") {
         auto bytes = v.kind == Kind::Text ? bytesOfHex(v.text) : std::nullopt;
         if (!bytes) return wrongType(v, "hex");
         record_.data = std::move(bytes);
      }
      return other(v);
   }

   bool endRecord() {
      PendingRecord &r = record_;
      auto const missing = [&](std::size_t offset, char const *member) {
         return fail(offset, concat(recordName(), ": no \"", member, "\""));
      };
      if (!r.pcClient) return missing(r.offset, "content_type");
      if (!*r.pcClient) return true;  // a record of another kind of content
      if (!r.recnum) return missing(r.offset, "recnum");
      if (!r.pcr) return missing(r.offset, "pcr");
      if (!r.digests) return missing(r.offset, "digests");
      if (!r.contentOffset) return missing(r.offset, "content");
      if (!r.contentIsObject) return fail(*r.contentOffset, recordName() + ": \"content\" is not an object");
      if (!r.type) return missing(*r.contentOffset, "event_type");
      if (!r.data) return missing(*r.contentOffset, "event_data");
      events.push_back({static_cast<std::size_t>(*r.recnum), r.offset, *r.pcr, *r.type, std::move(*r.digests),
                        std::move(*r.data), r.machineUnique});
      return true;
   }

   rapidjson::InsituStringStream &stream_;
   std::vector<Where> where_;
   SentrelEvidence::String key_;
   std::size_t recordsSeen_ = 0;
   PendingRecord record_;
   PendingDigest digest_;
};

// What the binary log's header would say: the crypto-agile header record's
// algorithms, or without one the algorithms the events carry, in the order
// of their ids (a SHA-1 layout when that is sha1 alone).
std::optional<EventLogProblem> describe(EventLog &log) {
   Event const *header = log.events.empty() ? nullptr : &log.events.front();
   if (header && header->type == EV_NO_ACTION && header->data.starts_with(kCryptoAgileSignature)) {
      auto algorithms = headerAlgorithms(header->data, 0);
      if (auto const *why = std::get_if<String>(&algorithms)) {
         return EventLogProblem{header->offset, concat("event ", header->number, " at byte ", header->offset,
                                                       ": in its event_data, ", *why)};
      }
      log.format = EventLogFormat::CryptoAgile;
      log.algorithms = std::move(std::get<0>(algorithms));
      return std::nullopt;
   }
   for (Event const &e : log.events) {
      for (Digest const &d : e.digests) {
         if (e.type != EV_NO_ACTION) log.algorithms.push_back(d.algorithm);
      }
   }
   std::sort(log.algorithms.begin(), log.algorithms.end());
   log.algorithms.erase(std::unique(log.algorithms.begin(), log.algorithms.end()), log.algorithms.end());
   bool const sha1Only = log.algorithms.size() == 1 && log.algorithms.front() == kAlgSha1;
   log.format = log.algorithms.empty() || sha1Only ? EventLogFormat::Sha1 : EventLogFormat::CryptoAgile;
   return std::nullopt;
}

}  // namespace

std::variant<EventLog, EventLogProblem> parseCanonicalEventLog(std::string_view json) {
   if (auto const nul = json.find('\0'); nul != std::string_view::npos) {
      return EventLogProblem{nul, "a NUL byte is not JSON"};
   }
   // Read in place in a copy: strings are not copied out one by one. The
   // reader's strings are only ever compared, or read as names, numbers and
   // hex, so their encoding is not validated.
   String text(json);
   rapidjson::InsituStringStream stream(text.data());
   CelReader reader(stream);
   rapidjson::Reader parser;
   auto const result = parser.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag>(stream, reader);
   if (reader.problem) return std::move(*reader.problem);
   if (result.IsError()) return EventLogProblem{result.Offset(), rapidjson::GetParseError_En(result.Code())};
   EventLog log;
   log.events = std::move(reader.events);
   if (auto problem = describe(log)) return std::move(*problem);
   for (Event const &e : log.events) {
      if (auto problem = checkEvent(e, log)) return std::move(*problem);
   }
   return log;
}

}  // namespace SentrelEvidence
