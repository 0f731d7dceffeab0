#include "Sentrel/platform/StateMachine.h"

namespace Loom {

StateMachine::~StateMachine() = default;

void StateMachine::lastUserGone() noexcept {
   hasNotificationActiveIs(false);
   loomDoZombieReactors(true);
   delete this;
}

}  // namespace Loom
