#include "Sentrel/types/StateTree.h"

#include <array>
#include <iterator>

namespace Sentrel {

namespace {

// In the order the agent declares its mounts.
constexpr StateTreeEntry kMounts[] = {
   {"sentrel/measuredBootVersion", "Sentrel::MeasuredBootVersion", true, "w", false},
   {"sentrel/firstInstructionSecurity", "Sentrel::FirstInstructionSecurity", true, "w", false},
   {"tarn/features/status", "Tarn::Features::Status", true, "w", false},
   {"tarn/sb/status", "Tarn::Secureboot::Status", false, "r", false},
   {"tarn/pcrConfig/status", "Tarn::PcrConfig::Status", true, "w", false},
   {"hardware/sentrel/config/sentrel", "Hardware::Sentrel::Config", false, "r", true},
   {"sentrel/integrity/key/keyringColl", "Sentrel::IntegrityKeyringColl", false, "w", false},
};

// The status entities first, each group in mount order.
constexpr auto kTree = [] {
   std::array<StateTreeEntry, std::size(kMounts)> t{};
   std::size_t n = 0;
   for (bool status : {true, false}) {
      for (auto const &e : kMounts) {
         if (e.status == status) t[n++] = e;
      }
   }
   return t;
}();

}  // namespace

std::span<StateTreeEntry const> stateTreeMounts() { return kMounts; }

std::span<StateTreeEntry const> stateTree() { return kTree; }

StateTreeEntry const *stateTreeEntry(std::string_view path) {
   for (auto const &e : stateTree()) {
      if (path == e.path) return &e;
   }
   return nullptr;
}

StateTreeEntry const *stateTreeEntryOfType(std::string_view typeName) {
   for (auto const &e : stateTree()) {
      if (typeName == e.typeName) return &e;
   }
   return nullptr;
}

Ledger::Mount stateTreeMount(StateTreeEntry const &e) {
   Loom::String path = e.path;
   if (e.inDir) path.erase(path.rfind('/'));
   Ledger::Mount m;
   m.path = Ledger::Cell::path(path, 0);
   m.typeName = e.inDir ? "Loom::Dir" : e.typeName;
   m.flags.clear();
   m.flags.parse(e.mode);
   return m;
}

void stateTreeSeed(Ledger::EntityManager &em) {
   for (auto const &e : stateTree()) {
      em.entityIs(e.path, Loom::ptrCast<Loom::Entity>(Loom::findType(e.typeName)->create()));
   }
}

}  // namespace Sentrel
