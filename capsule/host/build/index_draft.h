// IndexDraft collects the index of an image while its sections are written, in a file of its own
// without a name, so that the image need not be read again. Its bytes are those that IndexWriter
// makes of the finished image.
//
// Calling order: BeginSection; then for each item the bytes by Take and what they were by Add;
// EndSection; in the end Finish. One thread uses a draft.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "capsule/host/file/checksum.h"
#include "capsule/host/indexing/index_record_queue.h"
#include "capsule/host/indexing/index_stream.h"
#include "capsule/platform/scoped_descriptor.h"

namespace capsule::host {

class IndexDraft {
 public:
  // `target`: the image's path, absolute. `name`: what errors call it. Throws Error.
  IndexDraft(const std::string& target, std::string name);

  // The section whose header is at `offset` begins. `label`: as JudgeLabel wants it.
  void BeginSection(uint64_t offset, const std::string& label);

  // Counts in the next bytes of the section for its check value.
  void Take(std::span<const unsigned char> bytes) { m_section.Update(bytes); }

  // What has been counted in so far, and going back to it.
  RunningChecksum Mark() const { return m_section; }
  void GoBack(const RunningChecksum& mark) { m_section = mark; }

  // `count` zero entries at `offset`.
  void AddZeroEntries(uint64_t offset, int count);

  // The record groups of a folder. `relative`: its path in the partition.
  void AddFolder(const std::string& relative, uint64_t offset,
                 std::span<const uint32_t> groupLengths);

  // A file whose records take `length` bytes; `size`: of its content.
  void AddFile(const std::string& relative, uint64_t offset, uint64_t length, uint64_t size,
               uint64_t check, std::vector<IndexRecord> restarts);

  // The section's trailer is at `offset`.
  void EndSection(uint64_t offset);

  // Whether the index fits behind an image of `imageBytes`, with all restart points that its files
  // might have.
  bool Fits(uint64_t imageBytes) const;

  // Appends the index to the image. `header`: of the image, as finally stored. Where it ends.
  uint64_t Finish(int image, uint64_t imageBytes, std::span<const unsigned char> header);

 private:
  SectionItem Item(SectionItem::Kind kind, uint64_t offset, uint64_t length) const;
  void Add(const SectionItem& item, ItemNotes notes = {});

  std::string m_name;
  platform::ScopedDescriptor m_file;
  IndexStream m_stream;
  IndexRecordQueue m_records;
  IndexRecordCounter m_counter;
  RunningChecksum m_section;
};

}  // namespace capsule::host
