#include "Sentrel/IntegritySm.h"

LOOM_ENTITY_DEFINE(Sentrel, IntegrityKeyringRequestColl, SENTREL_INTEGRITY_REQUEST_ATTRS)
LOOM_ENTITY_DEFINE(Sentrel, IntegrityKeyringRequestStatusColl, SENTREL_INTEGRITY_REQUEST_ATTRS)

namespace Sentrel {

// The stand-ins describe nothing of themselves.
Loom::AllocationTracker IntegrityKeyringSm::memAllocationTracker_{"Sentrel::IntegrityKeyringSm"};

Loom::TypeInfo const &IntegrityKeyringSm::typeInfo() {
   static constexpr Loom::TypeInfo t{"Sentrel::IntegrityKeyringSm", {}, {}, nullptr, nullptr, "integrityKeyring"};
   return t;
}

IntegrityKeyringSm::IntegrityKeyringSm(Ptr<IntegrityKeyringColl> const &integrityKeyringColl)
    : integrityKeyringColl_(integrityKeyringColl) {}

IntegrityKeyringSm::~IntegrityKeyringSm() = default;

Loom::AllocationTracker IntegritySyslogSm::memAllocationTracker_{"Sentrel::IntegritySyslogSm"};

Loom::TypeInfo const &IntegritySyslogSm::typeInfo() {
   static constexpr Loom::TypeInfo t{"Sentrel::IntegritySyslogSm", {}, {}, nullptr, nullptr, "integritySyslog"};
   return t;
}

IntegritySyslogSm::IntegritySyslogSm() = default;

IntegritySyslogSm::~IntegritySyslogSm() = default;

}  // namespace Sentrel
