#pragma once

#include "Sentrel/platform/Entity.h"

namespace Loom {

// Base of the agent's state machines. A machine's constructor runs its
// start-up step; `stateMachineNew` then switches its notifications on, the
// one place where that happens. When the last reference goes, notifications
// are switched off and the reactors made zombies before any part of the
// machine is destroyed, so nothing reacts while it is torn down.
class LOOM_API StateMachine : public Node {
 public:
   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }

 protected:
   StateMachine() = default;
   ~StateMachine() override;
   void lastUserGone() noexcept override;

   // Set by the machine's start-up step once it has run.
   bool initialized_ = false;
};

// Creates a state machine (its constructor runs its start-up step) and
// switches its notifications on.
template <class Sm, class... Args>
Ptr<Sm> stateMachineNew(Args const &...args) {
   auto sm = make<Sm>(args...);
   sm->hasNotificationActiveIs(true);
   return sm;
}

}  // namespace Loom
