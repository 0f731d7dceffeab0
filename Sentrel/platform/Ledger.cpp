#include "Sentrel/platform/Ledger.h"

#include <algorithm>

namespace Ledger {

String Cell::path(String const &p, int) {
   String out;
   std::size_t i = 0;
   while (i < p.size()) {
      std::size_t j = p.find('/', i);
      if (j == String::npos) j = p.size();
      if (j > i) {
         if (!out.empty()) out += '/';
         out.append(p, i, j - i);
      }
      i = j + 1;
   }
   return out;
}

bool MountFlags::parse(String const &mode) {
   for (char c : mode) {
      if (c == 'r') {
         read = true;
      } else if (c == 'w') {
         read = write = true;
      } else {
         return false;
      }
   }
   return true;
}

Loom::AllocationTracker MountGroup::memAllocationTracker_{"Ledger::MountGroup"};

Loom::TypeInfo const &MountGroup::typeInfo() {
   static constexpr Loom::TypeInfo t{"Ledger::MountGroup", {}, {}, nullptr};
   return t;
}

void MountGroup::doClose(bool, String const &, std::chrono::nanoseconds) { closed_ = true; }

Loom::AllocationTracker EntityManager::memAllocationTracker_{"Ledger::EntityManager"};

Loom::TypeInfo const &EntityManager::typeInfo() {
   static constexpr Loom::TypeInfo t{"Ledger::EntityManager", {}, {}, nullptr};
   return t;
}

EntityManager::EntityManager() : root_(Loom::make<Loom::Dir>()) {}

namespace {
// Splits "a/b/c" into its directory part "a/b" and leaf "c".
std::pair<String, String> splitLeaf(String const &path) {
   auto slash = path.rfind('/');
   if (slash == String::npos) return {String(), path};
   return {path.substr(0, slash), path.substr(slash + 1)};
}
}  // namespace

Ptr<Loom::Entity> EntityManager::lookup(std::string_view path) const {
   // Walked in place: empty components ("a//b", a leading or trailing "/")
   // name nothing, as in Cell::path.
   // A folder is told by its type description, which is one object: no
   // dynamic_cast, which compares type names as text.
   Loom::Entity const *cur = root_.ptr();
   std::size_t i = 0;
   while (cur && i < path.size()) {
      std::size_t const j = std::min(path.find('/', i), path.size());
      if (j > i) {
         if (&cur->typeData() != &Loom::Dir::typeInfo()) return nullptr;
         cur = static_cast<Loom::Dir const *>(cur)->entityPtr(path.substr(i, j - i));
      }
      i = j + 1;
   }
   return Ptr<Loom::Entity>(const_cast<Loom::Entity *>(cur));
}

void EntityManager::entityIs(String const &path, Ptr<Loom::Entity> const &e) {
   auto [dirPath, leaf] = splitLeaf(Cell::path(path, 0));
   Ptr<Loom::Dir> dir = root_;
   std::size_t i = 0;
   while (i < dirPath.size()) {
      std::size_t j = dirPath.find('/', i);
      if (j == String::npos) j = dirPath.size();
      String const name = dirPath.substr(i, j - i);
      auto next = Loom::ptrCast<Loom::Dir>(dir->entity(name));
      if (!next) {
         next = Loom::make<Loom::Dir>();
         dir->entityIs(name, next);
      }
      dir = next;
      i = j + 1;
   }
   dir->entityIs(leaf, e);
}

void EntityManager::entityDel(String const &path) {
   auto [dirPath, leaf] = splitLeaf(Cell::path(path, 0));
   auto dir = Loom::ptrCast<Loom::Dir>(dirPath.empty() ? Ptr<Loom::Entity>(root_) : lookup(dirPath));
   if (dir) dir->entityDel(leaf);
}

Ptr<MountGroup> EntityManager::getMountGroup(Loom::Object const *mounter) {
   return Loom::make<MountGroup>(mounter);
}

MountStatus EntityManager::completeMounts(MountGroup const &group) const {
   if (!group.closed()) return mountFailure_;
   for (auto const &m : group.mounts()) {
      auto e = lookup(m.path);
      if (e && e->typeData().name != m.typeName) return mountFailure_;
   }
   return mountSuccess_;
}

}  // namespace Ledger

namespace Loom {

CAgent::~CAgent() = default;

Ptr<Ledger::MountGroup> CAgent::getMountGroup() {
   if (!mountGroup_) mountGroup_ = entityManager_->getMountGroup(this);
   return mountGroup_;
}

void startAgent(CAgent &agent, Ptr<Ledger::EntityManager> const &em) {
   agent.entityManagerIs(em);
   agent.doInit();
   auto const status = agent.mountGroup() ? em->completeMounts(*agent.mountGroup())
                                          : Ledger::mountFailure_;
   agent.doMountsComplete(status, em);
}

}  // namespace Loom
