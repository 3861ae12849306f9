// ScopedDescriptor closes a descriptor at the end of its life, unless it is borrowed.
#pragma once

#include <utility>

#include "capsule/platform/file.h"

namespace capsule::platform {

class ScopedDescriptor {
 public:
  ScopedDescriptor() = default;

  // `descriptor`: open, or -1.
  explicit ScopedDescriptor(int descriptor) : m_descriptor(descriptor) {}

  // Stays open at the end, whoever it belongs to.
  static ScopedDescriptor Borrow(int descriptor) {
    ScopedDescriptor borrowed(descriptor);
    borrowed.m_isBorrowed = true;
    return borrowed;
  }

  ScopedDescriptor(ScopedDescriptor&& other) noexcept { Swap(other); }
  ScopedDescriptor& operator=(ScopedDescriptor&& other) noexcept {
    Swap(other);
    return *this;
  }
  ScopedDescriptor(const ScopedDescriptor&) = delete;
  ScopedDescriptor& operator=(const ScopedDescriptor&) = delete;
  ~ScopedDescriptor() { Close(); }

  explicit operator bool() const { return m_descriptor >= 0; }
  int Get() const { return m_descriptor; }

  // Whether what was written is known to have arrived.
  bool Close() {
    const int descriptor = std::exchange(m_descriptor, -1);
    return descriptor < 0 || m_isBorrowed || platform::Close(descriptor) == 0;
  }

 private:
  void Swap(ScopedDescriptor& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    std::swap(m_isBorrowed, other.m_isBorrowed);
  }

  int m_descriptor = -1;
  bool m_isBorrowed = false;
};

}  // namespace capsule::platform
