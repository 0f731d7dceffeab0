#include "Sentrel/types/StateTree.h"

#include <algorithm>

namespace Sentrel {

std::vector<StateTreeEntry> const &stateTreeMounts() {
   static std::vector<StateTreeEntry> const table{
      {"sentrel/measuredBootVersion", "Sentrel::MeasuredBootVersion", true, "w", false},
      {"sentrel/firstInstructionSecurity", "Sentrel::FirstInstructionSecurity", true, "w", false},
      {"tarn/features/status", "Tarn::Features::Status", true, "w", false},
      {"tarn/sb/status", "Tarn::Secureboot::Status", false, "r", false},
      {"tarn/pcrConfig/status", "Tarn::PcrConfig::Status", true, "w", false},
      {"hardware/sentrel/config/sentrel", "Hardware::Sentrel::Config", false, "r", true},
      {"sentrel/integrity/key/keyringColl", "Sentrel::IntegrityKeyringColl", false, "w", false},
   };
   return table;
}

std::vector<StateTreeEntry> const &stateTree() {
   static std::vector<StateTreeEntry> const tree = [] {
      auto t = stateTreeMounts();
      std::stable_partition(t.begin(), t.end(), [](StateTreeEntry const &e) { return e.status; });
      return t;
   }();
   return tree;
}

StateTreeEntry const *stateTreeEntry(Loom::String const &path) {
   for (auto const &e : stateTree()) {
      if (path == e.path) return &e;
   }
   return nullptr;
}

StateTreeEntry const *stateTreeEntryOfType(Loom::String const &typeName) {
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
