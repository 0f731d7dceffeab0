#include "host/evidence/Baseline.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <span>

#include "Sentrel/platform/Json.h"
#include "host/evidence/EventNames.h"

namespace SentrelEvidence {

namespace {

void appendHex(String &out, std::string_view bytes) {
   static char const digits[] = "0123456789abcdef";
   for (char c : bytes) {
      auto const b = static_cast<unsigned char>(c);
      out += digits[b >> 4];
      out += digits[b & 0xF];
   }
}

}  // namespace

String canonicalEventLogJson(EventLog const &log) {
   Loom::TextBuilder out;
   out << "[\n";
   for (std::size_t i = 0; i < log.events.size(); ++i) {
      Event const &e = log.events[i];
      out << "{\"recnum\": " << e.number << ", \"pcr\": " << e.pcr << ", \"digests\": [";
      for (std::size_t d = 0; d < e.digests.size(); ++d) {
         out << (d == 0 ? "" : ", ") << "{\"hashAlg\": ";
         if (TpmAlgorithm const *a = tpmAlgorithm(e.digests[d].algorithm)) {
            out << "\"" << a->name << "\"";
         } else {
            out << e.digests[d].algorithm;
         }
         out << ", \"digest\": \"";
         appendHex(out.text(), e.digests[d].bytes);
         out << "\"}";
      }
      out << "], \"content_type\": \"pcclient_std\", \"content\": {\"event_type\": ";
      String const name = eventTypeName(e.type);
      if (name.starts_with("EV_")) {
         out << "\"" << name << "\"";
      } else {
         out << e.type;
      }
      out << ", \"event_data\": \"";
      appendHex(out.text(), e.data);
      out << "\"}}" << (i + 1 < log.events.size() ? ",\n" : "\n");
   }
   out << "]\n";
   return std::move(out.text());
}

namespace {

// The events that extend each PCR, in order: EV_NO_ACTION ones do not.
template <class E>
std::map<std::uint32_t, std::vector<E const *>> extendingEvents(std::vector<E> const &events) {
   std::map<std::uint32_t, std::vector<E const *>> byPcr;
   for (E const &e : events) {
      if (e.type != EV_NO_ACTION) byPcr[e.pcr].push_back(&e);
   }
   return byPcr;
}

enum class Agreement { Same, Different, NothingInCommon };

// Digests agree when they have an algorithm in common and are the same in
// every one they have in common.
Agreement agreement(std::vector<Digest> const &ours, std::vector<Digest> const &theirs) {
   bool common = false;
   for (Digest const &a : ours) {
      for (Digest const &b : theirs) {
         if (a.algorithm != b.algorithm) continue;
         if (a.bytes != b.bytes) return Agreement::Different;
         common = true;
      }
   }
   return common ? Agreement::Same : Agreement::NothingInCommon;
}

BaselineDifference difference(Event const &e, std::string_view what) {
   Loom::TextBuilder text;
   text << e.pcr << ": event " << e.number << " " << eventTypeName(e.type);
   if (String const component = eventComponent(e); !component.empty()) text << " " << component;
   if (!what.empty()) text << " " << what;
   return {e.pcr, e.number, std::move(text.text())};
}

BaselineDifference difference(BaselineRecord const &r, std::string_view what) {
   return difference(Event{r.recnum, 0, r.pcr, r.type, {}, r.data}, what);
}

}  // namespace

std::vector<BaselineDifference> compareWithBaseline(EventLog const &log, Baseline const &baseline) {
   auto const ours = extendingEvents(log.events);
   auto const theirs = extendingEvents(baseline);
   std::set<std::uint32_t> pcrs;
   for (auto const &[pcr, events] : ours) pcrs.insert(pcr);
   for (auto const &[pcr, records] : theirs) pcrs.insert(pcr);

   std::vector<BaselineDifference> differences;
   for (std::uint32_t pcr : pcrs) {
      // A PCR on one side only is compared against nothing.
      auto const o = ours.find(pcr);
      auto const t = theirs.find(pcr);
      std::span<Event const *const> events;
      std::span<BaselineRecord const *const> records;
      if (o != ours.end()) events = o->second;
      if (t != theirs.end()) records = t->second;
      for (std::size_t i = 0; i < std::max(events.size(), records.size()); ++i) {
         if (i == records.size()) {
            differences.push_back(difference(*events[i], "(not in the baseline)"));
            break;
         }
         if (i == events.size()) {
            differences.push_back(difference(*records[i], "(missing from this log)"));
            break;
         }
         if (records[i]->machineUnique) continue;
         Agreement const a = agreement(events[i]->digests, records[i]->digests);
         if (events[i]->type != records[i]->type || a == Agreement::Different) {
            differences.push_back(difference(*events[i], ""));
            break;
         }
         if (a == Agreement::NothingInCommon) {
            differences.push_back(difference(*events[i], "(no digest algorithm in common)"));
            break;
         }
      }
   }
   return differences;
}

}  // namespace SentrelEvidence
