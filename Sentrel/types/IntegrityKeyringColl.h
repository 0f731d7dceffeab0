#pragma once

#include "Sentrel/platform/EntityAttrs.h"

namespace Sentrel {

#define SENTREL_INTEGRITY_KEYRING_COLL_ATTRS(X)

// Stand-in for the integrity keyring collection of the sibling library:
// mounted and passed through, never read here.
class LOOM_API IntegrityKeyringColl : public Loom::Entity {
   LOOM_ENTITY(IntegrityKeyringColl, SENTREL_INTEGRITY_KEYRING_COLL_ATTRS)
};

}  // namespace Sentrel
