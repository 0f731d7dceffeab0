#pragma once

#include <cstddef>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "Sentrel/platform/Export.h"

namespace Loom {

[[noreturn]] LOOM_API void nullDereference(char const *mangledTypeName);

// Base of every counted object. A new object starts with one reference,
// which `make` hands to its first Ptr, so nothing built can be released
// while its constructor still runs. The whole system runs on one thread,
// so the count is a plain integer.
class LOOM_API RefCounted {
 public:
   RefCounted(RefCounted const &) = delete;
   RefCounted &operator=(RefCounted const &) = delete;

   void ref() const noexcept { ++refCount_; }
   void unref() const noexcept {
      if (--refCount_ == 0) {
         const_cast<RefCounted *>(this)->lastUserGone();
      }
   }
   unsigned refCount() const noexcept { return refCount_; }

 protected:
   RefCounted() = default;
   virtual ~RefCounted();
   virtual void lastUserGone() noexcept { delete this; }

 private:
   mutable unsigned refCount_ = 1;
};

// Intrusive counted reference. It stores the RefCounted base, so a Ptr to a
// type that is only declared can still be held, copied and released (the
// host holds the agent that way). Identity of the object is what compares.
template <class T>
class Ptr {
 public:
   using element_type = T;

   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {}
   Ptr(T *p) noexcept : p_(p) {
      if (p_) p_->ref();
   }
   Ptr(Ptr const &o) noexcept : p_(o.p_) {
      if (p_) p_->ref();
   }
   Ptr(Ptr &&o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U>
      requires std::is_convertible_v<U *, T *>
   Ptr(Ptr<U> const &o) noexcept : p_(o.rawBase()) {
      if (p_) p_->ref();
   }
   template <class U>
      requires std::is_convertible_v<U *, T *>
   Ptr(Ptr<U> &&o) noexcept : p_(o.releaseBase()) {}
   ~Ptr() {
      if (p_) p_->unref();
   }

   Ptr &operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }

   T *ptr() const noexcept { return p_ ? static_cast<T *>(mutableBase()) : nullptr; }
   T *operator->() const {
      if (!p_) nullDereference(typeid(T).name());
      return ptr();
   }
   T &operator*() const { return *operator->(); }
   explicit operator bool() const noexcept { return p_ != nullptr; }

   template <class U>
   bool operator==(Ptr<U> const &o) const noexcept {
      return p_ == o.rawBase();
   }
   bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }

   // For the framework: the counted base, and taking over a new object's
   // first reference without counting it again.
   RefCounted const *rawBase() const noexcept { return p_; }
   RefCounted const *releaseBase() noexcept { return std::exchange(p_, nullptr); }
   static Ptr adopt(RefCounted const *p) noexcept {
      Ptr r;
      r.p_ = p;
      return r;
   }

 private:
   // T may be const; the count is mutable, the cast only restores T's own
   // constness.
   RefCounted *mutableBase() const noexcept { return const_cast<RefCounted *>(p_); }

   RefCounted const *p_ = nullptr;
};

template <class T, class... Args>
Ptr<T> make(Args &&...args) {
   return Ptr<T>::adopt(new T(std::forward<Args>(args)...));
}

// Checked conversion between counted types; works when U is only declared.
template <class T, class U>
Ptr<T> ptrCast(Ptr<U> const &p) noexcept {
   auto *base = const_cast<RefCounted *>(p.rawBase());
   return Ptr<T>(dynamic_cast<T *>(base));
}

}  // namespace Loom

using Loom::Ptr;
