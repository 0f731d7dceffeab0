#pragma once

#include "Sentrel/platform/EntityAttrs.h"
#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/IntegrityKeyringColl.h"

namespace Sentrel {

// Stand-ins for the state machines and request collections of the integrity
// sibling libraries: they accept the creator calls and the notification
// switch, and do nothing else.
#define SENTREL_INTEGRITY_REQUEST_ATTRS(X)

class IntegrityKeyringRequestColl : public Loom::Entity {
   LOOM_ENTITY(IntegrityKeyringRequestColl, SENTREL_INTEGRITY_REQUEST_ATTRS)
};

class IntegrityKeyringRequestStatusColl : public Loom::Entity {
   LOOM_ENTITY(IntegrityKeyringRequestStatusColl, SENTREL_INTEGRITY_REQUEST_ATTRS)
};

#define SENTREL_INTEGRITY_KEYRING_SM_ARGS(X) X(IntegrityKeyringColl, integrityKeyringColl)

class IntegrityKeyringSm : public Loom::StateMachine {
   LOOM_STATE_MACHINE(IntegrityKeyringSm, SENTREL_INTEGRITY_KEYRING_SM_ARGS)
};

#define SENTREL_INTEGRITY_SYSLOG_SM_ARGS(X)

class IntegritySyslogSm : public Loom::StateMachine {
   LOOM_STATE_MACHINE(IntegritySyslogSm, SENTREL_INTEGRITY_SYSLOG_SM_ARGS)
};

}  // namespace Sentrel
