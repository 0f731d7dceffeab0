#include "Sentrel/IntegritySm.h"

namespace Sentrel {

Loom::TypeInfo const &IntegrityKeyringRequestColl::typeInfo() {
   static Loom::TypeInfo const t{"Sentrel::IntegrityKeyringRequestColl", {}, {}, nullptr};
   return t;
}
IntegrityKeyringRequestColl::~IntegrityKeyringRequestColl() = default;

Loom::TypeInfo const &IntegrityKeyringRequestStatusColl::typeInfo() {
   static Loom::TypeInfo const t{"Sentrel::IntegrityKeyringRequestStatusColl", {}, {}, nullptr};
   return t;
}
IntegrityKeyringRequestStatusColl::~IntegrityKeyringRequestStatusColl() = default;

Loom::AllocationTracker IntegrityKeyringSm::memAllocationTracker_{"Sentrel::IntegrityKeyringSm"};

Loom::TypeInfo const &IntegrityKeyringSm::typeInfo() {
   static Loom::TypeInfo const t{"Sentrel::IntegrityKeyringSm", {}, {}, nullptr};
   return t;
}

Ptr<IntegrityKeyringSm> IntegrityKeyringSm::IntegrityKeyringSmIs(Ptr<IntegrityKeyringColl> const &coll) {
   return Loom::stateMachineNew<IntegrityKeyringSm>(coll);
}

IntegrityKeyringSm::~IntegrityKeyringSm() = default;

Loom::AllocationTracker IntegritySyslogSm::memAllocationTracker_{"Sentrel::IntegritySyslogSm"};

Loom::TypeInfo const &IntegritySyslogSm::typeInfo() {
   static Loom::TypeInfo const t{"Sentrel::IntegritySyslogSm", {}, {}, nullptr};
   return t;
}

Ptr<IntegritySyslogSm> IntegritySyslogSm::IntegritySyslogSmIs() {
   return Loom::stateMachineNew<IntegritySyslogSm>();
}

IntegritySyslogSm::~IntegritySyslogSm() = default;

}  // namespace Sentrel
