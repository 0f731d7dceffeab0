#pragma once

#include <tuple>

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

// A machine lists what it is built on once, in order, as X(type, name): each
// a counted reference. In the class, LOOM_STATE_MACHINE(Class, ARGS) declares
// the creator `ClassIs(args)` (through stateMachineNew), the constructor
// `Class(args)` (written by the machine), a getter and a field `name_` for
// each, and `constructorArgs()`, what the agent compares by identity before
// building the machine again. In one source file,
// LOOM_STATE_MACHINE_DEFINE(Namespace, Class, name, ARGS, OPS) defines its
// allocation tracker, destructor and type description: the name operators
// know it by, the references, then `initialized`, and the operations listed
// by OPS as X(name).
#define LOOM_DROP_FIRST_(first, ...) __VA_ARGS__
#define LOOM_DROP_FIRST(...) LOOM_DROP_FIRST_(__VA_ARGS__)
#define LOOM_SM_PARAM_(T, name) , Ptr<T> const &name
#define LOOM_SM_ARG_(T, name) , name
#define LOOM_SM_MEMBER_(T, name) , name##_
#define LOOM_SM_GETTER_(T, name) \
   Ptr<T> const &name() const { return name##_; }
#define LOOM_SM_FIELD_(T, name) Ptr<T> name##_;
#define LOOM_SM_REF_INFO_(T, name) ::Loom::attr<&Self::name>(#name),
#define LOOM_SM_OP_INFO_(name) ::Loom::op<&Self::name>(#name),

#define LOOM_STATE_MACHINE(S, ARGS)                                                 \
 public:                                                                            \
   static ::Loom::AllocationTracker memAllocationTracker_;                          \
   static ::Loom::TypeInfo const &typeInfo();                                       \
   ::Loom::TypeInfo const &typeData() const override { return typeInfo(); }         \
   static Ptr<S> S##Is(LOOM_DROP_FIRST(ARGS(LOOM_SM_PARAM_))) {                     \
      return ::Loom::stateMachineNew<S>(LOOM_DROP_FIRST(ARGS(LOOM_SM_ARG_)));       \
   }                                                                                \
   explicit S(LOOM_DROP_FIRST(ARGS(LOOM_SM_PARAM_)));                               \
   ARGS(LOOM_SM_GETTER_)                                                            \
   auto constructorArgs() const { return std::tie(LOOM_DROP_FIRST(ARGS(LOOM_SM_MEMBER_))); } \
                                                                                    \
 protected:                                                                         \
   ~S() override;                                                                   \
                                                                                    \
 private:                                                                           \
   ::Loom::TrackedBy tracked_{memAllocationTracker_};                               \
   ARGS(LOOM_SM_FIELD_)

#define LOOM_STATE_MACHINE_DEFINE(NS, S, NAME, ARGS, OPS)                           \
   namespace NS {                                                                   \
   ::Loom::AllocationTracker S::memAllocationTracker_{#NS "::" #S};                 \
   S::~S() = default;                                                               \
   ::Loom::TypeInfo const &S::typeInfo() {                                          \
      using Self = S;                                                               \
      static constexpr ::Loom::AttrInfo attrs[] = {                                 \
         ARGS(LOOM_SM_REF_INFO_)::Loom::attr<&Self::initialized, &Self::initializedIs>("initialized")}; \
      static constexpr ::Loom::OpInfo ops[] = {OPS(LOOM_SM_OP_INFO_)};              \
      static constexpr ::Loom::TypeInfo t{#NS "::" #S, attrs, ops, nullptr, nullptr, #NAME}; \
      return t;                                                                     \
   }                                                                                \
   }
