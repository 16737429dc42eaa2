// The one owner of Win32 resources: a kind of handle adds traits (win32/handles.h), never a class.
//
// Traits: Type, Null() (the empty value), Valid(Type), Close(Type).
// Lifetime: movable, not copyable; closes what it owns when it goes or is reset.
// Errors: closing never changes the calling thread's last error.
#pragma once

#include <utility>

#include "win32/last_error.h"

namespace zel {

// Of values whose creators answer null on failure.
template <class T, auto CloseFunction>
struct NullTraits {
  using Type = T;
  static Type Null() noexcept { return nullptr; }
  static bool Valid(Type value) noexcept { return value != nullptr; }
  static void Close(Type value) noexcept { CloseFunction(value); }
};

template <class Traits>
class [[nodiscard]] UniqueResource {
 public:
  using Type = typename Traits::Type;

  UniqueResource() noexcept = default;
  explicit UniqueResource(Type value) noexcept : value_(value) {}
  UniqueResource(UniqueResource&& other) noexcept : value_(other.release()) {}
  UniqueResource& operator=(UniqueResource&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueResource() { reset(); }

  [[nodiscard]] Type get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return Traits::Valid(value_); }

  // Gives the value up without closing it.
  [[nodiscard]] Type release() noexcept { return std::exchange(value_, Traits::Null()); }

  // Closes the owned value, if any, and takes `value` over.
  void reset(Type value = Traits::Null()) noexcept {
    const Type old = std::exchange(value_, value);
    if (!Traits::Valid(old)) return;
    const LastErrorKeeper keeper;
    Traits::Close(old);
  }

  // For functions that hand a new value out through a pointer; closes the owned value first.
  [[nodiscard]] Type* put() noexcept {
    reset();
    return &value_;
  }

 private:
  Type value_ = Traits::Null();
};

}  // namespace zel
