// ContentCheck compares a file's stored bytes with their check value as they pass by.
//
// It counts bytes as long as they come in order and without gaps from the first one on; else it can
// say nothing. It lives with one reader, on one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "capsule/host/file/checksum.h"
#include "capsule/host/records/record_source.h"

namespace capsule::host {

class ContentCheck {
 public:
  explicit ContentCheck(const FileCheck& check);

  void Restart() { m_next = m_check.offset; }

  // Takes bytes from `offset` of the image; what lies outside of the file's own counts for nothing.
  void Take(uint64_t offset, std::span<const unsigned char> bytes);

  // The next byte wanted; where the file's end when all were taken.
  uint64_t Next() const { return m_next; }
  uint64_t End() const { return uint64_t{m_check.offset} + m_check.length; }

  // What is wrong, or nothing; to be asked when all bytes were taken.
  std::string Judge() const;

 private:
  FileCheck m_check;
  uint64_t m_next = 0;
  std::unique_ptr<RunningChecksum> m_sum;
};

}  // namespace capsule::host
