// Finds where an image goes on behind damage.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "capsule/blocks/data_record.h"
#include "capsule/host/file/file_window.h"

namespace capsule::host {

struct ResumePoint {
  uint64_t offset = 0;
  bool startsSection = false;
  uint64_t dataBytes = 0;  // of whole data block records that lie between
};

// What is looked for, and where.
struct ResyncRange {
  uint64_t limit = 0;  // where sections end at the latest
  RecordRules rules = {};
  std::span<const uint32_t> sections = {};  // where sections begin, whatever is there; ascending
  uint64_t* work = nullptr;  // bytes that may still be decoded to tell records; what goes beyond
                             // is taken for none
};

// The first place from `offset` on where a record group, a trailer or a section begins; in a
// section of NTFS records an entry or its end. `offset` may be such a place itself. None up to the
// limit.
//
// Whole data block records are stepped over, and a record with one damaged field too when what it
// leads to is a record: what files hold may look like records. Else every byte is tried.
std::optional<ResumePoint> FindResumePoint(FileWindow& window, uint64_t offset,
                                           const ResyncRange& range);

// The first bytes from `begin` to `end` that look like the header of a directory record or of a
// trailer; `end` when there are none.
uint64_t FindRecordMark(FileWindow& window, uint64_t begin, uint64_t end);

// Where the whole data records from `begin` on end, at `end` at the latest; of an entry of NTFS
// records, with the further FILE records between them.
uint64_t EndOfWholeRecords(FileWindow& window, uint64_t begin, uint64_t end,
                           const RecordRules& rules);

}  // namespace capsule::host
