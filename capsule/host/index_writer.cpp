// The image is walked twice: once to know that it is sound, where it ends and how long its index
// will be, and once to write. What is written, in this order, each step on disk before the next
// where that matters:
//   1. index offset 0, if the header has another, so that no reader follows an index being replaced
//   2. the file is cut behind the last trailer, the index is appended
//   3. the partition count, when numbers were skipped, and the index offset
#include "capsule/host/index_writer.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include "capsule/container/index_format.h"
#include "capsule/host/checksum.h"
#include "capsule/host/error.h"
#include "capsule/host/file_window.h"
#include "capsule/host/index_source.h"
#include "capsule/host/index_stream.h"
#include "capsule/host/reason.h"
#include "capsule/host/section_resync.h"
#include "capsule/host/section_scanner.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/platform/little_endian.h"

namespace capsule::host {
namespace {

constexpr uint8_t kIndexFolder = kIndexZeroEntry;  // everything of the tree that is not a file

IndexRecord MakeRecord(uint8_t type, std::string name, uint64_t offset, uint64_t length) {
  IndexRecord record;
  record.type = type;
  record.name = std::move(name);
  record.offset = static_cast<uint32_t>(offset);
  record.length = static_cast<uint32_t>(length);
  return record;
}

IndexRecord ChecksumRecord(uint64_t value, uint64_t offset, uint64_t length) {
  return MakeRecord(kIndexNote, ChecksumName(value), offset, length);
}

uint64_t RecordSize(const IndexRecord& record) {
  std::vector<unsigned char> bytes;
  AppendIndexRecord(record, &bytes);
  return bytes.size();
}

// The record that stands for an item. That of a trailer covers its last 40 bytes alone.
IndexRecord ItemRecord(const SectionItem& item) {
  switch (item.kind) {
    case SectionItem::Kind::Section:
      return MakeRecord(kIndexSection, "", item.offset, item.length);
    case SectionItem::Kind::File:
    case SectionItem::Kind::NtfsEnd:
      return MakeRecord(kIndexFile, item.path, item.offset, item.length);
    case SectionItem::Kind::Trailer:
      return MakeRecord(kIndexFolder, "", item.offset + item.length - kDirRecordSize,
                        kDirRecordSize);
    default:
      return MakeRecord(item.isNtfs ? kIndexFile : kIndexFolder, item.path, item.offset,
                        item.length);
  }
}

// Writes the records of one image after the other, with the check values of what they cover.
class RecordWriter {
 public:
  // `header`: as finally stored.
  RecordWriter(int descriptor, const std::string& name, uint64_t indexOffset,
               std::span<const unsigned char> header)
      : m_strName(name), m_Window(descriptor, name), m_Stream(descriptor, name, indexOffset) {
    RunningChecksum checksum;
    checksum.Update(header);
    m_Stream.Append(ChecksumRecord(checksum.Value(), 0, header.size()));
  }

  // A damaged file has no check value of its own.
  void Add(const SectionItem& item, bool isDamaged) {
    const bool isFile = item.kind == SectionItem::Kind::File;
    if (m_FileNote) m_Stream.Append(*m_FileNote);
    m_FileNote.reset();
    if (item.kind == SectionItem::Kind::Section) m_Section.Reset();
    m_File.Reset();
    m_nSectionBefore = m_Section.Value();
    const uint64_t end = CheckedEnd(item);
    Take(item.offset, end, isFile ? &m_File : nullptr);
    m_bEnded = EndsSection(item);
    if (m_bEnded) EndSection(m_Section.Value(), end);
    m_Last = ItemRecord(item);
    m_nLastPosition = m_Stream.Append(m_Last);
    if (item.kind == SectionItem::Kind::Section) {
      m_nSectionStart = item.offset;
      m_nSectionRecord = m_Stream.Append(ChecksumRecord(0, 0, 0));
    } else if (isFile && !isDamaged) {
      m_FileNote = ChecksumRecord(m_File.Value(), item.offset, item.length);
    }
  }

  // The last record reaches the index, and is that of an item, even when the end of the last
  // section is lost: then its check value is for what lies before the last item.
  uint64_t Finish(uint64_t indexOffset) {
    if (!m_bEnded) EndSection(m_nSectionBefore, m_Last.offset);
    m_Last.length = static_cast<uint32_t>(indexOffset - m_Last.offset);
    m_Stream.Replace(m_nLastPosition, m_Last);
    return m_Stream.Finish();
  }

 private:
  void EndSection(uint64_t value, uint64_t end) {
    m_Stream.Replace(m_nSectionRecord,
                     ChecksumRecord(value, m_nSectionStart, end - m_nSectionStart));
  }

  static bool EndsSection(const SectionItem& item) {
    return item.kind == SectionItem::Kind::Trailer || item.kind == SectionItem::Kind::NtfsEnd;
  }

  // What counts for the section's check value ends before the trailer. A region that reached the
  // index would end the walk of readers, so a last record without a trailer does not count.
  static uint64_t CheckedEnd(const SectionItem& item) {
    const uint64_t end = item.offset + item.length;
    if (!EndsSection(item)) return end;
    const bool hasRecord = item.kind == SectionItem::Kind::NtfsEnd && item.dataOffset < end;
    return hasRecord ? item.dataOffset : item.offset;
  }

  // Counts bytes in for their section, and for their file if they have one.
  void Take(uint64_t at, uint64_t end, RunningChecksum* file) {
    while (at < end) {
      const auto bytes =
          m_Window.At(at, static_cast<size_t>(std::min<uint64_t>(end - at, FileWindow::kSize / 2)));
      if (bytes.empty()) throw Error(m_strName, "ends at " + Hex(at), at);
      m_Section.Update(bytes);
      if (file != nullptr) file->Update(bytes);
      at += bytes.size();
    }
  }

  std::string m_strName;
  FileWindow m_Window;
  IndexStream m_Stream;
  RunningChecksum m_Section;
  RunningChecksum m_File;
  uint64_t m_nSectionRecord = 0;
  uint64_t m_nSectionStart = 0;
  uint64_t m_nSectionBefore = 0;  // its check value up to the last item
  bool m_bEnded = false;
  IndexRecord m_Last;
  uint64_t m_nLastPosition = 0;
  std::optional<IndexRecord> m_FileNote;  // waits for an item behind the file
};

// Whether the header counts more sections than it has records of, or has records that it does not
// count.
bool IsHeaderUnsure(const SectionScanner& scanner) {
  const size_t count = scanner.SectionCount();
  if (scanner.Header().partitions.size() != count) return true;
  if (scanner.Header().layout != HeaderLayout::Fixed || scanner.IsScrambled()) return false;
  const auto rest = scanner.RawHeader()
                        .subspan(kPartitionRecordsOffset, kPartitionRecordSize * kMaxPartitions)
                        .subspan(kPartitionRecordSize * count);
  return std::any_of(rest.begin(), rest.end(), [](unsigned char b) { return b != 0; });
}

// What lies behind the last trailer is cut off, but not a section that a damaged header conceals.
void RefuseToCutSection(int descriptor, const std::string& name, const SectionScanner& scanner,
                        uint64_t end) {
  if (!IsHeaderUnsure(scanner)) return;
  FileWindow window(descriptor, name);
  uint64_t work = 0;
  const ResyncRange range{.limit = end + kPartitionHeaderSize, .work = &work};
  const auto next = FindResumePoint(window, end, range);
  if (!next || !next->startsSection || next->offset != end) return;
  throw Error(name,
              "section at " + Hex(end) + " is not one of the " +
                  std::to_string(scanner.SectionCount()) + " that the header tells of",
              end);
}

// Readers take the first records of the header for those of the sections.
bool ComeFirst(const DecodedHeader& header, size_t sectionCount) {
  const auto end = header.partitions.begin() + static_cast<std::ptrdiff_t>(sectionCount);
  return std::none_of(header.partitions.begin(), end, [](const _Partition& record) {
    return EncodePartition(record) == decltype(EncodePartition(record)){};
  });
}

// The header as it will be stored.
std::vector<unsigned char> CompleteHeader(const SectionScanner& scanner, uint64_t indexOffset,
                                          const std::string& name) {
  const auto raw = scanner.RawHeader();
  std::vector<unsigned char> header(raw.begin(), raw.end());
  platform::StoreLe32(&header[kIndexOffsetOffset], static_cast<uint32_t>(indexOffset));
  const bool countMatches = scanner.Header().partitions.size() == scanner.SectionCount();
  if (!countMatches) {
    if (scanner.IsScrambled()) {
      throw Error(name, "partition count cannot be corrected: header is scrambled");
    }
    if (scanner.Header().layout != HeaderLayout::Fixed ||
        !ComeFirst(scanner.Header(), scanner.SectionCount())) {
      throw Error(name, "partition count cannot be corrected: records do not follow each other");
    }
    header[kPartitionCountOffset] = static_cast<unsigned char>(scanner.SectionCount());
  }
  return header;
}

}  // namespace

IndexWriter::IndexWriter(const std::filesystem::path& image)
    : m_nDescriptor(platform::OpenForUpdate(image.c_str())),
      m_bOwned(true),
      m_strName(image.string()) {
  if (m_nDescriptor < 0) throw Error(m_strName, SystemReason(errno));
}

IndexWriter::IndexWriter(int descriptor, std::string name)
    : m_nDescriptor(descriptor), m_strName(std::move(name)) {}

IndexWriter::~IndexWriter() {
  if (m_bOwned) platform::Close(m_nDescriptor);
}

// What the first walk found out.
struct IndexWriter::Plan {
  IndexReport report;
  bool isDamaged = false;
  bool endsEmpty = false;             // the last item is the header of a section
  std::vector<unsigned char> header;  // as it will be stored
};

IndexReport IndexWriter::Write(DamagedSections damaged) {
  const Plan plan = Measure(damaged);
  const uint64_t end = plan.report.indexOffset;
  if (!plan.isDamaged) {
    const std::vector<unsigned char> noOffset(kHeaderSize);
    PatchHeader(noOffset, kIndexOffsetOffset, sizeof(uint32_t));
    SyncFile();
  }
  try {
    Append(plan);
    SyncFile();
  } catch (...) {
    platform::Truncate(m_nDescriptor, static_cast<int64_t>(end));
    throw;
  }
  PatchHeader(plan.header, kPartitionCountOffset, 1);
  PatchHeader(plan.header, kIndexOffsetOffset, sizeof(uint32_t));
  SyncFile();
  return plan.report;
}

IndexWriter::Plan IndexWriter::Measure(DamagedSections damaged) {
  const SectionScanner scanner(m_nDescriptor, m_strName);
  if (scanner.SectionCount() == 0) throw Error(m_strName, "has no partitions to index");
  Plan plan;
  try {
    Count(&plan);
  } catch (const Error& error) {
    if (damaged == DamagedSections::Refuse) throw;
    RefuseToReplaceIndex(m_nDescriptor, m_strName, error);
    plan = {};
    plan.isDamaged = true;
    Count(&plan);
  }
  if (plan.report.sections != scanner.SectionCount() || plan.endsEmpty) {
    throw Error(m_strName, "has " + std::to_string(scanner.SectionCount()) +
                               " sections, but what can be read ends in number " +
                               std::to_string(plan.report.sections));
  }
  if (plan.report.imageBytes > static_cast<uint64_t>(kMaxImageSize)) {
    throw Error(m_strName, "image with its index would be " +
                               std::to_string(plan.report.imageBytes) + " bytes, " +
                               std::to_string(kMaxImageSize) + " are possible");
  }
  RefuseToCutSection(m_nDescriptor, m_strName, scanner, plan.report.indexOffset);
  plan.header = CompleteHeader(scanner, plan.report.indexOffset, m_strName);
  return plan;
}

// Walks the image and counts.
void IndexWriter::Count(Plan* plan) {
  const uint64_t checksumSize = RecordSize(ChecksumRecord(0, 0, 0));
  uint64_t indexSize = kIndexPreamble + checksumSize;
  uint64_t fileNote = 0;  // of the last item; it only comes when another follows
  IndexReport& report = plan->report;
  const auto take = [&](const SectionItem& item, bool isDamaged) {
    ThrowIfCancelled();
    const bool isSection = item.kind == SectionItem::Kind::Section;
    const bool isFile = item.kind == SectionItem::Kind::File;
    indexSize += RecordSize(ItemRecord(item));
    indexSize += fileNote + (isSection ? checksumSize : 0);
    fileNote = isFile && !isDamaged ? checksumSize : 0;
    report.files += isFile ? 1 : 0;
    report.directories += item.kind == SectionItem::Kind::Directory && !item.isRoot ? 1 : 0;
    report.sections += isSection ? 1 : 0;
    plan->endsEmpty = isSection;
  };
  report.indexOffset =
      VisitItems(m_nDescriptor, m_strName, plan->isDamaged, take, &report.problems);
  report.imageBytes = report.indexOffset + indexSize;
}

void IndexWriter::Append(const Plan& plan) {
  const uint64_t start = plan.report.indexOffset;
  if (!platform::Truncate(m_nDescriptor, static_cast<int64_t>(start))) {
    throw Error(m_strName, "truncate: " + SystemReason(errno));
  }
  RecordWriter writer(m_nDescriptor, m_strName, start, plan.header);
  const auto take = [&](const SectionItem& item, bool isDamaged) {
    ThrowIfCancelled();
    writer.Add(item, isDamaged);
  };
  std::vector<ImageProblem> known;
  VisitItems(m_nDescriptor, m_strName, plan.isDamaged, take, &known);
  if (writer.Finish(start) != plan.report.imageBytes) throw Error(m_strName, "changed meanwhile");
}

void IndexWriter::PatchHeader(std::span<const unsigned char> header, size_t offset, size_t count) {
  const auto bytes = header.subspan(offset, count);
  if (!platform::WriteAt(m_nDescriptor, bytes.data(), count, static_cast<int64_t>(offset))) {
    throw Error(m_strName, "write of the header: " + SystemReason(errno), offset);
  }
}

void IndexWriter::SyncFile() {
  if (!platform::Sync(m_nDescriptor)) throw Error(m_strName, "sync: " + SystemReason(errno));
}

void IndexWriter::ThrowIfCancelled() const {
  if (m_pCancel != nullptr && *m_pCancel) throw Error(m_strName, "cancelled");
}

}  // namespace capsule::host
