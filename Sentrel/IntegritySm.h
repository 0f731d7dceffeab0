#pragma once

#include <tuple>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/IntegrityKeyringColl.h"

namespace Sentrel {

// Stand-ins for the state machines and request collections of the integrity
// sibling libraries: they accept the creator calls and the notification
// switch, and do nothing else.
class IntegrityKeyringRequestColl : public Loom::Entity {
 public:
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

 protected:
   ~IntegrityKeyringRequestColl() override;
};

class IntegrityKeyringRequestStatusColl : public Loom::Entity {
 public:
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

 protected:
   ~IntegrityKeyringRequestStatusColl() override;
};

class IntegrityKeyringSm : public Loom::StateMachine {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   static Ptr<IntegrityKeyringSm> IntegrityKeyringSmIs(Ptr<IntegrityKeyringColl> const &coll);
   explicit IntegrityKeyringSm(Ptr<IntegrityKeyringColl> const &coll) : coll_(coll) {}
   Ptr<IntegrityKeyringColl> const &integrityKeyringColl() const { return coll_; }
   auto constructorArgs() const { return std::tie(coll_); }

 protected:
   ~IntegrityKeyringSm() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   Ptr<IntegrityKeyringColl> coll_;
};

class IntegritySyslogSm : public Loom::StateMachine {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   static Ptr<IntegritySyslogSm> IntegritySyslogSmIs();
   auto constructorArgs() const { return std::tuple<>(); }

 protected:
   ~IntegritySyslogSm() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
};

}  // namespace Sentrel
