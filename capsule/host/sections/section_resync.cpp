// Every step goes forward by a byte at least. What is looked ahead at is bounded by a record, and
// what is decoded by ResyncRange::work.
#include "capsule/host/sections/section_resync.h"

#include <algorithm>
#include <span>
#include <vector>

#include "capsule/host/records/ntfs_entry.h"
#include "capsule/host/records/record_judge.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule::host {
namespace {

using View = std::span<const unsigned char>;

constexpr uint64_t kDecodedAtMost = 65536;
constexpr size_t kLookAhead = kPartitionHeaderSize;  // the longest thing recognised by its bytes

bool AllZero(View bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](unsigned char b) { return b == 0; });
}

bool IsPartitionArea(View at) {
  if (at.size() < kPartitionTrailerSize) return false;
  const _MiniHeader header = DecodeMiniHeader(at.first<kMiniHeaderSize>());
  return header.Type == kRecordPartition && header.Length == kPartitionPayload &&
         AllZero(at.subspan(kMiniHeaderSize, kPartitionPayload));
}

// A record as writers make it, whose short entry or long-name piece is one, or nothing.
bool IsDirectoryRecord(View at) {
  if (at.size() < kDirRecordSize ||
      !std::equal(kEntryHeader.begin(), kEntryHeader.end(), at.begin())) {
    return false;
  }
  const View entry = at.subspan(kMiniHeaderSize, kDirEntrySize);
  if (entry[0] == 0) return AllZero(entry);
  return entry[11] == kLongNameAttribute || (entry[11] & 0xC8) == 0;
}

bool IsSection(View at) {
  return at.size() >= kPartitionHeaderSize && at[0] == 0xAB && at[1] == 0xCD &&
         (at[2] == 2 || at[2] == 3) && IsPartitionArea(at.subspan(kSectorAreaSize));
}

class Resync {
 public:
  Resync(FileWindow& window, const ResyncRange& range) : m_window(window), m_range(range) {}

  std::optional<ResumePoint> Find(uint64_t offset) {
    const auto known = std::lower_bound(m_range.sections.begin(), m_range.sections.end(), offset);
    if (known == m_range.sections.end() || *known >= m_range.limit) return FindByBytes(offset);
    m_range.limit = *known;
    const auto found = FindByBytes(offset);
    return found ? found : ResumePoint{*known, true, m_dataBytes};
  }

 private:
  std::optional<ResumePoint> FindByBytes(uint64_t offset) {
    uint64_t at = offset;
    while (at < m_range.limit) {
      if (StartsSection(at)) return ResumePoint{at, true, m_dataBytes};
      if (StartsItem(at)) return ResumePoint{at, false, m_dataBytes};
      const uint64_t next = m_range.rules.IsNtfs() ? at : StepOver(at);
      at = next > at ? next : Search(at + 1);
    }
    return std::nullopt;
  }

  View At(uint64_t offset, size_t count) {
    if (offset >= m_range.limit) return {};
    return m_window.At(offset,
                       static_cast<size_t>(std::min<uint64_t>(count, m_range.limit - offset)));
  }

  bool StartsSection(uint64_t at) {
    const View mark = At(at, 2);
    return mark.size() == 2 && mark[0] == 0xAB && mark[1] == 0xCD &&
           IsSection(At(at, kPartitionHeaderSize));
  }

  bool StartsItem(uint64_t at) {
    if (m_range.rules.IsNtfs()) return StartsNtfsEntry(at);
    const View first = At(at, 1);
    if (first.empty()) return false;
    if (first[0] == kRecordDirectory) return IsDirectoryRecord(At(at, kDirRecordSize));
    return first[0] == kRecordPartition && IsPartitionArea(At(at, kPartitionTrailerSize));
  }

  bool IsWholeData(uint64_t at) {
    const View bytes = At(at, kMiniHeaderSize);
    if (bytes.size() < kMiniHeaderSize || bytes[0] != kRecordDataBlock) return false;
    const _MiniHeader header = DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
    return Afford(uint64_t{header.Length} + std::min<uint64_t>(header.Param, kDecodedAtMost)) &&
           IsWholeDataRecord(At(at, FileWindow::kSize), m_range.rules);
  }

  bool Afford(uint64_t bytes) {
    if (*m_range.work < bytes) return false;
    *m_range.work -= bytes;
    return true;
  }

  bool IsRecord(uint64_t at) { return StartsItem(at) || IsWholeData(at) || StartsSection(at); }

  // Behind the record at `at` when it is a whole data block, or leads to a record; else `at`.
  uint64_t StepOver(uint64_t at) {
    const View header = At(at, kMiniHeaderSize);
    if (header.size() < kMiniHeaderSize) return at;
    const uint64_t next =
        at + kMiniHeaderSize + DecodeMiniHeader(header.first<kMiniHeaderSize>()).Length;
    const bool mayBeEntry = header[0] == kRecordDirectory;
    if (mayBeEntry && IsRecord(at + kDirRecordSize)) return at + kDirRecordSize;
    if (IsWholeData(at)) {
      m_dataBytes += next - at;
      return next;
    }
    return next < m_range.limit && IsRecord(next) ? next : at;
  }

  // The next place from `at` on where a search among bytes may stop.
  uint64_t Search(uint64_t at) {
    while (at < m_range.limit) {
      const View bytes = At(at, FileWindow::kSize);
      if (bytes.empty()) return m_range.limit;  // the file ends before
      const bool isEnd = bytes.size() < FileWindow::kSize;
      const size_t stop = isEnd ? bytes.size() : bytes.size() - kLookAhead;
      const std::vector<unsigned char> copy(bytes.begin(), bytes.end());
      for (size_t i = 0; i < stop; ++i) {
        if (IsCandidate(View(copy).subspan(i)) && IsFound(at + i)) return at + i;
      }
      at += stop;
    }
    return at;
  }

  // Cheap, and true for everything that IsFound may be true for.
  bool IsCandidate(View at) const {
    if (at[0] == 0xAB) return at.size() > 1 && at[1] == 0xCD;
    if (m_range.rules.IsNtfs()) return MayStartNtfsEntry(at);
    if (at.size() < kMiniHeaderSize) return false;
    if (at[0] == kRecordDirectory) return at[6] == kDirEntrySize && at[7] == 0;
    if (at[0] == kRecordPartition) return at[7] == kPartitionPayload >> 8;
    return DecodeDataRecord(at, m_range.rules).has_value();
  }

  // A data block among bytes counts when a record follows it.
  bool IsFound(uint64_t at) {
    if (StartsSection(at) || StartsItem(at)) return true;
    if (m_range.rules.IsNtfs() || !IsWholeData(at)) return false;
    const View header = At(at, kMiniHeaderSize);
    return IsRecord(at + kMiniHeaderSize +
                    DecodeMiniHeader(header.first<kMiniHeaderSize>()).Length);
  }

  static bool MayStartNtfsEntry(View at) {
    return at.size() >= kNtfsHeaderSize && BeginsNtfsEntry(platform::LoadLe32(&at[2]));
  }

  bool StartsNtfsEntry(uint64_t at) {
    const auto header = NtfsRecordAt(m_window, at, m_range.limit);
    if (!header || !BeginsNtfsEntry(header->RecordType)) return false;
    const uint64_t next = at + kNtfsHeaderSize + uint64_t{header->Length};
    if (header->RecordType == kNtfsEnd) {
      return header->Length == 0 && (next == m_range.limit || StartsSection(next) ||
                                     IsPartitionArea(At(next, kPartitionTrailerSize)));
    }
    if (!Afford(uint64_t{header->Length} + header->UncompressedLength)) return false;
    UnitDecoder decoder;
    std::vector<unsigned char> record;
    const View payload = m_window.At(at + kNtfsHeaderSize, header->Length);
    return DecodeNtfsPayload(*header, payload, m_range.rules.imageIsCompressed, decoder, &record) &&
           record.size() >= kFileRecordSize &&
           std::equal(record.begin(), record.begin() + 4, "FILE");
  }

  FileWindow& m_window;
  ResyncRange m_range;
  uint64_t m_dataBytes = 0;
};

}  // namespace

uint64_t FindRecordMark(FileWindow& window, uint64_t begin, uint64_t end) {
  for (uint64_t at = begin; at < end;) {
    const View bytes =
        window.At(at, static_cast<size_t>(std::min<uint64_t>(end - at, FileWindow::kSize)));
    const auto entry =
        std::search(bytes.begin(), bytes.end(), kEntryHeader.begin(), kEntryHeader.end());
    const auto area = std::search(bytes.begin(), entry, kAreaHeader.begin(), kAreaHeader.end());
    const auto found = area != entry ? area : entry;
    if (found != bytes.end()) return at + static_cast<uint64_t>(found - bytes.begin());
    if (bytes.size() < kMiniHeaderSize || at + bytes.size() >= end) return end;
    at += bytes.size() - (kMiniHeaderSize - 1);
  }
  return end;
}

std::optional<ResumePoint> FindResumePoint(FileWindow& window, uint64_t offset,
                                           const ResyncRange& range) {
  return Resync(window, range).Find(offset);
}

uint64_t EndOfWholeRecords(FileWindow& window, uint64_t begin, uint64_t end,
                           const RecordRules& rules) {
  uint64_t at = begin;
  while (at < end) {
    if (rules.IsNtfs()) at = SkipNtfsCompanions(window, at, end);
    if (at >= end) break;
    const View record = window.At(at, FileWindow::kSize);
    if (!IsWholeDataRecord(record, rules)) return at;
    at += DecodeDataRecord(record, rules)->Size();
  }
  return std::min(at, end);
}

}  // namespace capsule::host
