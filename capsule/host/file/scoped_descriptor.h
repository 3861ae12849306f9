// ScopedDescriptor closes a descriptor at the end of its life.
#pragma once

#include <utility>

#include "capsule/platform/file.h"

namespace capsule::host {

class ScopedDescriptor {
 public:
  ScopedDescriptor() = default;
  explicit ScopedDescriptor(int descriptor) : m_nDescriptor(descriptor) {}
  ScopedDescriptor(ScopedDescriptor&& other) noexcept
      : m_nDescriptor(std::exchange(other.m_nDescriptor, -1)) {}
  ScopedDescriptor& operator=(ScopedDescriptor&& other) noexcept {
    std::swap(m_nDescriptor, other.m_nDescriptor);
    return *this;
  }
  ScopedDescriptor(const ScopedDescriptor&) = delete;
  ScopedDescriptor& operator=(const ScopedDescriptor&) = delete;
  ~ScopedDescriptor() { Close(); }

  explicit operator bool() const { return m_nDescriptor > 0; }
  int Get() const { return m_nDescriptor; }

  // Whether what was written is known to have arrived.
  bool Close() {
    const int descriptor = std::exchange(m_nDescriptor, -1);
    return descriptor <= 0 || platform::Close(descriptor) == 0;
  }

 private:
  int m_nDescriptor = -1;
};

}  // namespace capsule::host
