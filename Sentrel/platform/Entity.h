#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <vector>

#include "Sentrel/platform/AllocationTracker.h"
#include "Sentrel/platform/TypeInfo.h"

namespace Loom {

class Node;
class Reactor;

// An object of the state database: typed attributes, set through setters
// that notify subscribers when the stored value changes.
class LOOM_API Entity : public Object {
 public:
   // Number of reactors currently subscribed (for tests and the host).
   std::size_t subscriberCount() const;

 protected:
   Entity() = default;
   ~Entity() override;

   // Delivers a change of attribute `attr` to the subscribers, synchronously,
   // in subscription order.
   void notify(unsigned attr) const;

   template <class T, class V>
   void assign(T &field, V &&v, unsigned attr) {
      if (field == v) return;
      field = std::forward<V>(v);
      notify(attr);
   }
   void insertInto(StringSet &s, String const &v, unsigned attr) {
      if (s.insert(v).second) notify(attr);
   }
   void insertInto(StringU32Map &m, String const &k, std::uint32_t v, unsigned attr) {
      auto [it, added] = m.try_emplace(k, v);
      if (!added) {
         if (it->second == v) return;
         it->second = v;
      }
      notify(attr);
   }

 private:
   friend class Reactor;
   void subscriberAdd(Reactor *r) const;
   void subscriberDel(Reactor *r) const;

   // Removed subscribers leave a null slot while a delivery is running.
   mutable std::vector<Reactor *> subscribers_;
   mutable unsigned delivering_ = 0;
};

// One subscription of a node to one entity: a notification entry bound at
// construction, subscribed and unsubscribed as the node's notifications are
// switched. It unsubscribes when destroyed. Given the attributes it reacts
// to, it is called for changes of those only; otherwise for every change.
class LOOM_API Reactor {
 public:
   using Handler = std::function<void(unsigned attr)>;
   Reactor(Node &owner, Entity const *entity, Handler handler);
   Reactor(Node &owner, Entity const *entity, std::vector<unsigned> const &attrs, Handler handler);
   Reactor(Reactor const &) = delete;
   Reactor &operator=(Reactor const &) = delete;
   ~Reactor();

   void subscribe();
   void unsubscribe();
   bool subscribed() const { return subscribed_; }

 private:
   friend class Entity;
   void deliver(unsigned attr) noexcept;
   void entityGone() { entity_ = nullptr, subscribed_ = false; }

   Node &owner_;
   Entity const *entity_;
   static constexpr std::uint64_t kEveryAttr = ~std::uint64_t{0};
   std::uint64_t attrs_ = kEveryAttr;  // bit n: attribute n
   Handler handler_;
   bool subscribed_ = false;
};

// Base of state machines: counted, with a notification-active flag that
// switches all of its reactors, and a zombie flag under which its reactors
// are not called.
class LOOM_API Node : public Object {
 public:
   bool notificationActive() const { return notificationActive_; }
   bool zombie() const { return zombie_; }
   // Subscribes every reactor when turned on, unsubscribes when turned off;
   // the zombie flag is held set while it works.
   virtual void hasNotificationActiveIs(bool on);
   virtual void loomDoZombieReactors(bool zombie);

 protected:
   Node() = default;
   ~Node() override;

 private:
   friend class Reactor;
   std::vector<Reactor *> reactors_;
   bool notificationActive_ = false;
   bool zombie_ = false;
};

// What the generic construction path throws when it is handed constructor
// arguments beyond the new entity's name.
class LOOM_API NewEntityArgumentsError : public std::invalid_argument {
 public:
   using std::invalid_argument::invalid_argument;
   ~NewEntityArgumentsError() override;
};

// An entity holding named entities.
class LOOM_API Dir : public Entity {
 public:
   static AllocationTracker memAllocationTracker_;
   static TypeInfo const &typeInfo();
   TypeInfo const &typeData() const override { return typeInfo(); }

   Ptr<Entity> entity(std::string_view name) const;
   // The same, without taking a reference: valid while this folder holds it.
   Entity *entityPtr(std::string_view name) const;
   void entityIs(String const &name, Ptr<Entity> const &e);
   void entityDel(String const &name);
   // The framework's generic construction path: a new entity of `type`,
   // named `name`, placed here. Types take nothing beyond the name: any
   // argument is refused (NewEntityArgumentsError) before anything is
   // built. Null when the type builds no entity.
   Ptr<Entity> entityNew(String const &name, TypeInfo const &type, std::vector<Value> const &args = {});
   std::map<String, Ptr<Entity>, std::less<>> const &entities() const { return entities_; }

 private:
   TrackedBy tracked_{memAllocationTracker_};
   std::map<String, Ptr<Entity>, std::less<>> entities_;
};

}  // namespace Loom
