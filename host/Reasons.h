#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/types/StateTree.h"

namespace SentrelHost {

using Loom::String;

// Why a fact is unknown, and what to do about it.
struct Unknown {
   String reason;
   String hint;
};

// Attribute number of a fact that stands for its whole entity.
inline constexpr unsigned kWholeEntity = ~0u;

// The reasons a run received, by fact: a state-tree entry and an attribute
// of its type. A reason holds while its fact keeps the value it had when the
// reason came: a state file, a script or a later reading that sets the fact
// makes it known.
class Reasons {
 public:
   explicit Reasons(Ledger::EntityManager const &em) : em_(em) {}

   // From the reason sink.
   void received(Loom::ReasonRecord const &r);
   // A state file set the fact (kWholeEntity: every fact of the entry).
   void stated(Sentrel::StateTreeEntry const &entry, unsigned attr);

   // Why the fact is unknown now; nullopt when it is known. Reasons about
   // different bits of it are joined, in the order they came.
   std::optional<Unknown> of(Sentrel::StateTreeEntry const &entry, unsigned attr) const;
   // The same, for some bits of the fact only.
   std::optional<Unknown> ofBits(Sentrel::StateTreeEntry const &entry, unsigned attr, std::uint64_t bits) const;
   bool anyUnknown() const;

 private:
   struct Finding {
      Sentrel::StateTreeEntry const *entry;
      unsigned attr;
      std::uint64_t bits;
      Unknown why;
      std::optional<Loom::Value> value;  // the fact's value then (nullopt: the entity was absent)
   };
   std::optional<Loom::Value> valueNow(Sentrel::StateTreeEntry const &entry, unsigned attr) const;
   bool holds(Finding const &f) const { return valueNow(*f.entry, f.attr) == f.value; }
   std::optional<Unknown> joined(Sentrel::StateTreeEntry const &entry, unsigned attr,
                                 std::optional<std::uint64_t> bits) const;

   Ledger::EntityManager const &em_;
   std::vector<Finding> findings_;
   // Said in front of every reason of an entry.
   std::map<Sentrel::StateTreeEntry const *, String> notes_;
};

}  // namespace SentrelHost
