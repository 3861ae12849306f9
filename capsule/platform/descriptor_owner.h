// DescriptorOwner closes a descriptor at the end of a scope, unless it is borrowed.
#pragma once

#include "capsule/platform/file.h"
#include "capsule/platform/host_view.h"

namespace capsule::platform {

class DescriptorOwner {
 public:
  // `descriptor`: open, or -1.
  explicit DescriptorOwner(int descriptor, bool isBorrowed = false)
      : m_nDescriptor(descriptor), m_bBorrowed(isBorrowed) {}
  ~DescriptorOwner() {
    if (m_nDescriptor > 0 && !m_bBorrowed) Close(m_nDescriptor);
  }
  DescriptorOwner(const DescriptorOwner&) = delete;
  DescriptorOwner& operator=(const DescriptorOwner&) = delete;

  explicit operator bool() const { return m_nDescriptor > 0; }
  int Get() const { return m_nDescriptor; }

 private:
  int m_nDescriptor;
  bool m_bBorrowed;
};

// The file that `path` names in `view`, for reading: the opened item, if there is one. Nothing for
// a null path and on failure.
inline DescriptorOwner OpenHostFile(const HostView& view, const char* path) {
  if (path == nullptr) return DescriptorOwner(-1);
  if (view.HasOpenedItem()) return DescriptorOwner(view.OpenedFile(path), true);
  const auto resolved = view.Resolve(path);
  return DescriptorOwner(resolved ? OpenForReading(resolved->c_str()) : -1);
}

}  // namespace capsule::platform
