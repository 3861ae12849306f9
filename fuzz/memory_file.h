// MemoryFile is a file that lies in memory, for what reads by descriptor or path.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <span>
#include <string>

#include "fuzz/check.h"

namespace capsule::fuzz {

class MemoryFile {
 public:
  explicit MemoryFile(std::span<const uint8_t> bytes) : m_descriptor(memfd_create("fuzz", 0)) {
    Require(m_descriptor > 0, "a file in memory can be made");
    const ssize_t put = write(m_descriptor, bytes.data(), bytes.size());
    Require(put == static_cast<ssize_t>(bytes.size()), "a file in memory can be written");
  }
  ~MemoryFile() { close(m_descriptor); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int Descriptor() const { return m_descriptor; }
  std::string Path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

 private:
  int m_descriptor;
};

}  // namespace capsule::fuzz
