#include "Sentrel/platform/Entity.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>

namespace Loom {

void nullDereference(char const *mangledTypeName) {
   int status = 0;
   char *name = abi::__cxa_demangle(mangledTypeName, nullptr, nullptr, &status);
   std::fprintf(stderr, "null Ptr<%s> dereferenced\n", status == 0 ? name : mangledTypeName);
   std::abort();
}

Entity::~Entity() {
   for (auto *r : subscribers_) {
      if (r) r->entityGone();
   }
}

std::size_t Entity::subscriberCount() const {
   return static_cast<std::size_t>(
      std::count_if(subscribers_.begin(), subscribers_.end(), [](Reactor *r) { return r != nullptr; }));
}

void Entity::notify(unsigned attr) const {
   // Subscribers added during this delivery wait for the next change.
   std::size_t const n = subscribers_.size();
   ++delivering_;
   for (std::size_t i = 0; i < n; ++i) {
      if (Reactor *r = subscribers_[i]) r->deliver(attr);
   }
   if (--delivering_ == 0) {
      subscribers_.erase(std::remove(subscribers_.begin(), subscribers_.end(), nullptr),
                         subscribers_.end());
   }
}

void Entity::subscriberAdd(Reactor *r) const { subscribers_.push_back(r); }

void Entity::subscriberDel(Reactor *r) const {
   auto it = std::find(subscribers_.begin(), subscribers_.end(), r);
   if (it == subscribers_.end()) return;
   if (delivering_) {
      *it = nullptr;
   } else {
      subscribers_.erase(it);
   }
}

Reactor::Reactor(Node &owner, Entity const *entity, Handler handler)
    : owner_(owner), entity_(entity), handler_(std::move(handler)) {
   owner_.reactors_.push_back(this);
}

Reactor::Reactor(Node &owner, Entity const *entity, std::vector<unsigned> const &attrs, Handler handler)
    : Reactor(owner, entity, std::move(handler)) {
   attrs_ = 0;
   for (unsigned a : attrs) {
      // Attribute numbers are declaration positions: a type has far fewer.
      if (a >= 64) std::abort();
      attrs_ |= std::uint64_t{1} << a;
   }
}

Reactor::~Reactor() {
   unsubscribe();
   auto &rs = owner_.reactors_;
   rs.erase(std::remove(rs.begin(), rs.end(), this), rs.end());
}

void Reactor::subscribe() {
   if (subscribed_ || !entity_) return;
   entity_->subscriberAdd(this);
   subscribed_ = true;
}

void Reactor::unsubscribe() {
   if (!subscribed_) return;
   entity_->subscriberDel(this);
   subscribed_ = false;
}

void Reactor::deliver(unsigned attr) noexcept {
   // An exception escaping a reactor ends the process (noexcept).
   bool const wanted = attrs_ == kEveryAttr || (attr < 64 && ((attrs_ >> attr) & 1));
   if (!wanted || owner_.zombie()) return;
   Ptr<Node> keepAlive(&owner_);
   handler_(attr);
}

Node::~Node() = default;

void Node::hasNotificationActiveIs(bool on) {
   if (on == notificationActive_) return;
   notificationActive_ = on;
   bool const wasZombie = zombie_;
   zombie_ = true;
   for (auto *r : reactors_) {
      if (on) {
         r->subscribe();
      } else {
         r->unsubscribe();
      }
   }
   zombie_ = wasZombie;
}

void Node::loomDoZombieReactors(bool zombie) {
   if (zombie_ == zombie) return;
   zombie_ = zombie;
}

AllocationTracker Dir::memAllocationTracker_{"Loom::Dir"};

TypeInfo const &Dir::typeInfo() {
   static constexpr TypeInfo t{"Loom::Dir", {}, {}, &create<Dir>};
   return t;
}

Ptr<Entity> Dir::entity(std::string_view name) const { return Ptr<Entity>(entityPtr(name)); }

Entity *Dir::entityPtr(std::string_view name) const {
   auto it = entities_.find(name);
   return it == entities_.end() ? nullptr : it->second.ptr();
}

void Dir::entityIs(String const &name, Ptr<Entity> const &e) { entities_[name] = e; }

void Dir::entityDel(String const &name) { entities_.erase(name); }

NewEntityArgumentsError::~NewEntityArgumentsError() = default;

Ptr<Entity> Dir::entityNew(String const &name, TypeInfo const &type, std::vector<Value> const &args) {
   if (!args.empty()) {
      throw NewEntityArgumentsError(String(type.name) + " \"" + name + "\" takes no constructor arguments, given " +
                                    std::to_string(args.size()));
   }
   auto e = ptrCast<Entity>(type.createNamed ? type.createNamed(name) : type.create ? type.create() : nullptr);
   if (e) entityIs(name, e);
   return e;
}

}  // namespace Loom
