#include "host/Reasons.h"

#include <algorithm>

namespace SentrelHost {

std::optional<Loom::Value> Reasons::valueNow(Sentrel::StateTreeEntry const &entry, unsigned attr) const {
   auto e = em_.lookup(entry.path);
   if (!e) return std::nullopt;
   // The whole of an entity that exists: a value that never changes.
   if (attr == kWholeEntity) return Loom::Value{};
   return e->typeData().attrs[attr].get(*e);
}

void Reasons::received(Loom::ReasonRecord const &r) {
   auto const *entry = r.type ? Sentrel::stateTreeEntryOf(*r.type) : nullptr;
   if (!entry) return;
   if (r.note) {
      notes_[entry] = r.reason;
      return;
   }
   // An entity of the type that is not the one in the tree (a test's own,
   // one replaced since): nowhere to show its reason.
   if (r.entity && em_.lookup(entry->path).ptr() != r.entity) return;
   auto add = [&](unsigned attr) {
      std::erase_if(findings_, [&](Finding const &f) {
         return f.entry == entry && f.attr == attr && f.bits == r.bits;
      });
      findings_.push_back({entry, attr, r.bits, {r.reason, r.hint}, valueNow(*entry, attr)});
   };
   if (r.attributes.empty()) add(kWholeEntity);
   for (unsigned a : r.attributes) add(a);
}

void Reasons::stated(Sentrel::StateTreeEntry const &entry, unsigned attr) {
   std::erase_if(findings_, [&](Finding const &f) {
      return f.entry == &entry && (attr == kWholeEntity || f.attr == attr);
   });
}

std::optional<Unknown> Reasons::joined(Sentrel::StateTreeEntry const &entry, unsigned attr,
                                       std::optional<std::uint64_t> bits) const {
   std::optional<Unknown> out;
   for (auto const &f : findings_) {
      if (f.entry != &entry || f.attr != attr || (bits && !(f.bits & *bits)) || !holds(f)) continue;
      if (!out) {
         out = f.why;
         continue;
      }
      out->reason += "; " + f.why.reason;
      if (!f.why.hint.empty()) out->hint += (out->hint.empty() ? "" : "; ") + f.why.hint;
   }
   if (auto note = notes_.find(&entry); out && note != notes_.end()) out->reason = note->second + "; " + out->reason;
   return out;
}

std::optional<Unknown> Reasons::of(Sentrel::StateTreeEntry const &entry, unsigned attr) const {
   return joined(entry, attr, std::nullopt);
}

std::optional<Unknown> Reasons::ofBits(Sentrel::StateTreeEntry const &entry, unsigned attr, std::uint64_t bits) const {
   return joined(entry, attr, bits);
}

bool Reasons::anyUnknown() const {
   return std::any_of(findings_.begin(), findings_.end(), [&](Finding const &f) { return holds(f); });
}

}  // namespace SentrelHost
