#pragma once

#include <chrono>
#include <vector>

#include "Sentrel/platform/Entity.h"

namespace Ledger {

using Loom::String;

// Cell paths: "a/b/c" with no empty components, of one cell of the database.
struct LOOM_API Cell {
   static String path(String const &p, int cell);
};

enum MountStatus { mountSuccess_, mountFailure_ };

struct LOOM_API MountFlags {
   bool read = false;
   bool write = false;
   void clear() { read = write = false; }
   // "r" mounts readable, "w" readable and writable; false on any other letter.
   bool parse(String const &mode);
};

struct Mount {
   String path;
   String typeName;
   MountFlags flags;
};

class LOOM_API MountGroup : public Loom::Object {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   // The mounter is not counted: it owns the group.
   explicit MountGroup(Loom::Object const *mounter) : mounter_(mounter) {}
   void doMount(Mount m) { mounts_.push_back(std::move(m)); }
   void doClose(bool wait, String const &reason, std::chrono::nanoseconds timeout);

   Loom::Object const *mounter() const { return mounter_; }
   std::vector<Mount> const &mounts() const { return mounts_; }
   bool closed() const { return closed_; }

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   Loom::Object const *mounter_;
   std::vector<Mount> mounts_;
   bool closed_ = false;
};

// The agent's view of the database: entities by path.
class LOOM_API EntityManager : public Loom::Object {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   EntityManager();

   Ptr<Loom::Entity> lookup(std::string_view path) const;
   // Places an entity at a path, creating the directories above it.
   void entityIs(String const &path, Ptr<Loom::Entity> const &e);
   void entityDel(String const &path);

   Ptr<MountGroup> getMountGroup(Loom::Object const *mounter);
   // Completes a closed mount group: every mounted path that exists must
   // hold an entity of the declared type.
   MountStatus completeMounts(MountGroup const &group) const;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   Ptr<Loom::Dir> root_;
};

}  // namespace Ledger

namespace Loom {

// The agent base class: a mountable entity that the framework constructs
// through the agent's factory and drives through doInit and doMountsComplete.
class LOOM_API CAgent : public Entity {
 public:
   String const &name() const { return name_; }
   Ptr<Ledger::EntityManager> const &entityManager() const { return entityManager_; }
   void entityManagerIs(Ptr<Ledger::EntityManager> const &em) { entityManager_ = em; }

   bool notificationActive() const { return notificationActive_; }
   void hasNotificationActiveIs(bool on) { notificationActive_ = on; }

   virtual void doInit() {}
   virtual void doMountsComplete(Ledger::MountStatus, Ptr<Ledger::EntityManager> const &) {}

   Ptr<Ledger::MountGroup> const &mountGroup() const { return mountGroup_; }

 protected:
   explicit CAgent(String name) : name_(std::move(name)) {}
   ~CAgent() override;
   Ptr<Ledger::MountGroup> getMountGroup();

 private:
   String name_;
   Ptr<Ledger::EntityManager> entityManager_;
   Ptr<Ledger::MountGroup> mountGroup_;
   bool notificationActive_ = true;
};

// What the framework does with a new agent: connect it to the database,
// doInit, complete its mounts, doMountsComplete.
LOOM_API void startAgent(CAgent &agent, Ptr<Ledger::EntityManager> const &em);

}  // namespace Loom
