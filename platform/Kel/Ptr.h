#pragma once

#include <fmt/format.h>

#include <atomic>
#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "Kel/Types.h"

namespace Kel {

// Base of every reference-counted object. The count is intrusive so that a raw
// pointer handed to a notifiee can always be turned back into an owning Ptr.
// Thread-safe (atomic) counts are a build-time choice: the library runs on one
// scheduler thread, and a plain increment is several times cheaper.
class PtrInterface {
 public:
   PtrInterface() = default;
   PtrInterface(const PtrInterface&) = delete;
   PtrInterface& operator=(const PtrInterface&) = delete;
   virtual ~PtrInterface() = default;

   void newRef() const noexcept { ++references_; }
   void deleteRef() const noexcept {
      if (--references_ == 0) {
         delete this;
      }
   }
   U32 references() const noexcept { return references_; }

 private:
#ifdef KEL_THREAD_SAFE_PTR
   mutable std::atomic<U32> references_{0};
#else
   mutable U32 references_ = 0;
#endif
};

// Intrusive counted pointer. Ptr<T const> gives read-only access and is
// implicitly made from Ptr<T>.
template <class T>
class Ptr {
 public:
   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {}
   Ptr(T* p) noexcept : p_(p) { acquire(); }
   Ptr(const Ptr& o) noexcept : p_(o.p_) { acquire(); }
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(const Ptr<U>& o) noexcept : p_(o.ptr()) {
      acquire();
   }
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
   ~Ptr() { releaseRef(); }

   Ptr& operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }

   T* ptr() const noexcept { return p_; }
   T* operator->() const noexcept { return p_; }
   T& operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }

   // Gives up ownership without dropping the reference.
   T* release() noexcept { return std::exchange(p_, nullptr); }

   template <class U>
   bool operator==(const Ptr<U>& o) const noexcept {
      return p_ == o.ptr();
   }
   bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
   template <class U>
   auto operator<=>(const Ptr<U>& o) const noexcept {
      return std::compare_three_way{}(static_cast<const void*>(p_),
                                      static_cast<const void*>(o.ptr()));
   }

 private:
   void acquire() const noexcept {
      if (p_) {
         p_->newRef();
      }
   }
   void releaseRef() noexcept {
      if (p_) {
         std::exchange(p_, nullptr)->deleteRef();
      }
   }
   T* p_ = nullptr;
};

template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
   return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Kel

template <class T>
struct std::hash<Kel::Ptr<T>> {
   std::size_t operator()(const Kel::Ptr<T>& p) const noexcept {
      return std::hash<const void*>{}(p.ptr());
   }
};

// A pointer's text form is its address in hex ("0x0" for null); it shows in the
// name-in-use message when a creator is called with a different object.
template <class T>
struct fmt::formatter<Kel::Ptr<T>> {
   constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
   auto format(const Kel::Ptr<T>& p, fmt::format_context& ctx) const {
      return fmt::format_to(ctx.out(), "{:#x}", reinterpret_cast<std::uintptr_t>(p.ptr()));
   }
};
