// IndexRecordQueue appends the index records of an image's items in their order (index_writer.h has
// it): what covers them, and their check values and restart points as they are given to it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "capsule/container/index_format.h"
#include "capsule/host/indexing/index_stream.h"
#include "capsule/host/sections/section_scanner.h"

namespace capsule::host {

// Hands out the records of a file's restart points.
using Restarts = std::function<void(const std::function<void(const IndexRecord&)>& take)>;

// What the records of an item have to tell beside the item.
struct ItemNotes {
  std::string damage{};             // what is wrong with it, or nothing
  std::string label{};              // of a section, or nothing
  std::optional<uint64_t> check{};  // of a sound file
  Restarts restarts{};              // of the same, when wanted
};

class IndexRecordQueue {
 public:
  // `stream` must outlive the queue, and be empty. `limit`: where the index begins in the image, or
  // that it will not begin behind.
  IndexRecordQueue(IndexStream& stream, uint64_t limit);

  // Appends a note on the image as a whole; to be called before the first item.
  void Add(const DamageNote& note);

  // Takes the next item.
  void Add(const SectionItem& item, ItemNotes notes);

  // What the check value of the open section is, and where the bytes end that it is of. Called
  // behind the item that ends the section, or, for want of one, before Finish.
  void EndSection(uint64_t value, uint64_t end);

  // Makes the last record reach the index, which begins at `indexOffset` of the image. `header`:
  // the check value of the image's header as finally stored. How long the index is.
  uint64_t Finish(uint64_t indexOffset, uint64_t header);

  // Where the last item begins.
  uint64_t LastOffset() const { return m_last.offset; }
  uint64_t RestartBytes() const { return m_restartBytes; }

 private:
  void AppendLast();
  void AppendDamage();

  IndexStream& m_stream;
  uint64_t m_limit;
  uint64_t m_headerRecord;
  uint64_t m_sectionRecord = 0;
  uint64_t m_sectionStart = 0;
  // The last item waits for the next one: readers see nothing behind the record that ends the
  // index.
  bool m_hasLast = false;
  IndexRecord m_last;
  ItemNotes m_notes;  // on the last item
  uint64_t m_restartBytes = 0;
};

// The bytes that the records of items will take.
class IndexRecordCounter {
 public:
  IndexRecordCounter();

  // Counts the records that a queue appends for the same item.
  void Add(const SectionItem& item, const std::string& damage, const std::string& label);
  void Add(const DamageNote& note);

  // Without restart points, and how many bytes those take at most.
  uint64_t Bytes() const { return m_bytes; }
  uint64_t MostRestartBytes() const { return m_restartBytes; }

 private:
  uint64_t m_bytes;
  uint64_t m_fileNoteSize = 0;  // of the last item; it only comes when another follows
  uint64_t m_restartBytes = 0;
};

// Whether the item ends its section.
bool EndsSection(const SectionItem& item);

// Whether it is a file that gets a check value.
bool IsSoundFile(const SectionItem& item, const std::string& damage);

}  // namespace capsule::host
