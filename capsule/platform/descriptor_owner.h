// DescriptorOwner closes a descriptor at the end of a scope.
#pragma once

#include "capsule/platform/file.h"
#include "capsule/platform/host_view.h"

namespace capsule::platform {

class DescriptorOwner {
 public:
  // `descriptor`: open, or -1.
  explicit DescriptorOwner(int descriptor) : m_nDescriptor(descriptor) {}
  ~DescriptorOwner() {
    if (m_nDescriptor > 0) Close(m_nDescriptor);
  }
  DescriptorOwner(const DescriptorOwner&) = delete;
  DescriptorOwner& operator=(const DescriptorOwner&) = delete;

  explicit operator bool() const { return m_nDescriptor > 0; }
  int Get() const { return m_nDescriptor; }

 private:
  int m_nDescriptor;
};

// Opens the file that `path` names in `view` for reading; -1 for a null path and on failure.
inline int OpenHostFile(const HostView& view, const char* path) {
  const auto resolved = path != nullptr ? view.Resolve(path) : std::nullopt;
  return resolved ? OpenForReading(resolved->c_str()) : -1;
}

}  // namespace capsule::platform
