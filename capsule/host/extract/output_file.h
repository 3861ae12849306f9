// OutputFile is one file of the target while it is written.
//
//   OutputFile out(*folder, entry);
//   out.Write(0, bytes);
//   out.Publish(bytes.size(), force);
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string>

#include "capsule/host/entry.h"
#include "capsule/host/extract/target_folder.h"

namespace capsule::host {

class OutputFile {
 public:
  // A file that goes away again unless it is published. The folder must outlive it. What fails,
  // here and below, throws Error.
  OutputFile(const TargetFolder& folder, const Entry& entry);

  // Writes `bytes` at `offset`, whole blocks of zeros left out. Many threads may write parts of
  // their own.
  void Write(uint64_t offset, std::span<const unsigned char> bytes);

  // Gives the file its length, its time and its name.
  void Publish(uint64_t size, bool force);

 private:
  void WriteRun(uint64_t offset, std::span<const unsigned char> bytes);
  [[noreturn]] void Fail(const std::string& what) const;

  Entry m_entry;
  platform::UnfinishedFile m_file;
  std::atomic<uint64_t> m_end = 0;  // of what was written
};

// Throws Error when the entry cannot get its name because of what stands there.
void RefuseExisting(const Entry& file, const TargetFolder& folder, bool force);

}  // namespace capsule::host
