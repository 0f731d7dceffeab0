#include "evidence/Baseline.h"

#include <algorithm>
#include <map>
#include <set>
#include <span>

#include "evidence/EventNames.h"

namespace SentrelEvidence {

namespace {

// The events that extend each PCR, in order: EV_NO_ACTION ones do not.
std::map<std::uint32_t, std::vector<Event const *>> extendingEvents(std::vector<Event> const &events) {
   std::map<std::uint32_t, std::vector<Event const *>> byPcr;
   for (Event const &e : events) {
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
   String text = concat(e.pcr, ": event ", e.number, " ", eventTypeName(e.type));
   if (String const component = eventComponent(e); !component.empty()) text += " " + component;
   if (!what.empty()) text += concat(" ", what);
   return {e.pcr, e.number, std::move(text)};
}

}  // namespace

std::vector<BaselineDifference> compareWithBaseline(EventLog const &log, EventLog const &baseline) {
   auto const ours = extendingEvents(log.events);
   auto const theirs = extendingEvents(baseline.events);
   std::set<std::uint32_t> pcrs;
   for (auto const &[pcr, events] : ours) pcrs.insert(pcr);
   for (auto const &[pcr, records] : theirs) pcrs.insert(pcr);

   std::vector<BaselineDifference> differences;
   for (std::uint32_t pcr : pcrs) {
      // A PCR on one side only is compared against nothing.
      auto const o = ours.find(pcr);
      auto const t = theirs.find(pcr);
      std::span<Event const *const> events;
      std::span<Event const *const> records;
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
