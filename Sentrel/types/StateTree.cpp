#include "Sentrel/types/StateTree.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "Sentrel/types/FirstInstructionSecurity.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/IntegrityKeyringColl.h"
#include "Sentrel/types/MeasuredBootEvidence.h"
#include "Sentrel/types/MeasuredBootVersion.h"
#include "Sentrel/types/TarnFeaturesStatus.h"
#include "Sentrel/types/TarnPcrConfigStatus.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

namespace Sentrel {

namespace {

// The agent's mounts in the order it declares them, then the host's own.
constexpr StateTreeEntry kEntries[] = {
   {"sentrel/measuredBootVersion", &MeasuredBootVersion::typeInfo, true, "w", false, true},
   {"sentrel/firstInstructionSecurity", &FirstInstructionSecurity::typeInfo, true, "w", false, true},
   {"tarn/features/status", &Tarn::Features::Status::typeInfo, true, "w", false, true},
   {"tarn/sb/status", &Tarn::Secureboot::Status::typeInfo, false, "r", false, true},
   {"tarn/pcrConfig/status", &Tarn::PcrConfig::Status::typeInfo, true, "w", false, true},
   {"hardware/sentrel/config/sentrel", &Hardware::Sentrel::Config::typeInfo, false, "r", true, true},
   {"sentrel/integrity/key/keyringColl", &IntegrityKeyringColl::typeInfo, false, "w", false, true},
   // Made by the host when it replays an event log: absent otherwise.
   {"sentrel/measuredBootEvidence", &MeasuredBootEvidence::typeInfo, true, nullptr, false, false},
};
constexpr std::size_t kMounted =
   static_cast<std::size_t>(std::count_if(std::begin(kEntries), std::end(kEntries), [](auto const &e) { return e.mode; }));

// The status entities first, each group in declared order.
constexpr auto kTree = [] {
   std::array<StateTreeEntry, std::size(kEntries)> t{};
   std::size_t n = 0;
   for (bool status : {true, false}) {
      for (auto const &e : kEntries) {
         if (e.status == status) t[n++] = e;
      }
   }
   return t;
}();

}  // namespace

std::span<StateTreeEntry const> stateTreeMounts() { return {kEntries, kMounted}; }

std::span<StateTreeEntry const> stateTree() { return kTree; }

StateTreeEntry const *stateTreeEntry(std::string_view path) {
   for (auto const &e : stateTree()) {
      if (path == e.path) return &e;
   }
   return nullptr;
}

StateTreeEntry const *stateTreeEntryOf(Loom::TypeInfo const &type) {
   for (auto const &e : stateTree()) {
      if (&e.type() == &type) return &e;
   }
   return nullptr;
}

std::size_t stateTreeIndex(StateTreeEntry const &e) { return static_cast<std::size_t>(&e - kTree.data()); }

Ledger::Mount stateTreeMount(StateTreeEntry const &e) {
   Loom::String path = e.path;
   if (e.inDir) path.erase(path.rfind('/'));
   Ledger::Mount m;
   m.path = Ledger::Cell::path(path, 0);
   m.typeName = e.inDir ? Loom::Dir::typeInfo().name : e.type().name;
   m.flags.clear();
   m.flags.parse(e.mode);
   return m;
}

Ptr<Loom::Entity> stateTreeNew(StateTreeEntry const &e) { return Loom::ptrCast<Loom::Entity>(e.type().create()); }

void stateTreeSeed(Ledger::EntityManager &em) {
   for (auto const &e : stateTree()) {
      if (e.seeded) em.entityIs(e.path, stateTreeNew(e));
   }
}

}  // namespace Sentrel
