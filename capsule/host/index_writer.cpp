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
#include "capsule/host/index_record_writer.h"
#include "capsule/host/index_source.h"
#include "capsule/host/reason.h"
#include "capsule/host/section_scanner.h"
#include "capsule/host/uncounted_section.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/platform/little_endian.h"

namespace capsule::host {
namespace {

// What lies behind the last trailer is cut off, but not a section that a damaged header conceals.
void RefuseToCutSection(int descriptor, const std::string& name, const SectionScanner& scanner,
                        uint64_t end) {
  if (!FindUncountedSection(descriptor, name, scanner, end)) return;
  throw Error(name, Hex(end) + ": " + UncountedReason(scanner.SectionCount()), end);
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
  bool endsEmpty = false;  // the last item is the header of a section
  bool isCompressed = false;
  bool hasRestartPoints = false;
  std::vector<unsigned char> header;  // as it will be stored
};

IndexReport IndexWriter::Write(DamagedSections damaged) {
  Plan plan = Measure(damaged);
  const uint64_t end = plan.report.indexOffset;
  if (!plan.isDamaged) {
    const std::vector<unsigned char> noOffset(kHeaderSize);
    PatchHeader(noOffset, kIndexOffsetOffset, sizeof(uint32_t));
    SyncFile();
  }
  try {
    plan.report.imageBytes = Append(plan);
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
  plan.isCompressed = scanner.Header().compressed;
  plan.header = CompleteHeader(scanner, plan.report.indexOffset, m_strName);
  return plan;
}

// Walks the image and counts. Restart points are left out where the image would get too long by
// them.
void IndexWriter::Count(Plan* plan) {
  IndexRecordCounter records;
  IndexReport& report = plan->report;
  const auto take = [&](const SectionItem& item, bool isDamaged) {
    ThrowIfCancelled();
    const bool isSection = item.kind == SectionItem::Kind::Section;
    records.Add(item, isDamaged);
    report.files += item.kind == SectionItem::Kind::File ? 1 : 0;
    report.directories += item.kind == SectionItem::Kind::Directory && !item.isRoot ? 1 : 0;
    report.sections += isSection ? 1 : 0;
    plan->endsEmpty = isSection;
  };
  report.indexOffset =
      VisitItems(m_nDescriptor, m_strName, plan->isDamaged, take, &report.problems);
  report.imageBytes = report.indexOffset + records.Bytes();
  plan->hasRestartPoints =
      report.imageBytes + records.MostRestartBytes() <= static_cast<uint64_t>(kMaxImageSize);
}

// Where the image ends with its index.
uint64_t IndexWriter::Append(const Plan& plan) {
  const uint64_t start = plan.report.indexOffset;
  if (!platform::Truncate(m_nDescriptor, static_cast<int64_t>(start))) {
    throw Error(m_strName, "truncate: " + SystemReason(errno));
  }
  RecordSource files;
  files.descriptor = m_nDescriptor;
  files.imageIsCompressed = plan.isCompressed;
  files.imagePath = m_strName;
  IndexRecordWriter writer(files, start, plan.header, plan.hasRestartPoints);
  writer.SetKnownRestarts(m_pKnownRestarts);
  const auto take = [&](const SectionItem& item, bool isDamaged) {
    ThrowIfCancelled();
    writer.Add(item, isDamaged);
  };
  std::vector<ImageProblem> known;
  VisitItems(m_nDescriptor, m_strName, plan.isDamaged, take, &known);
  const uint64_t end = writer.Finish();
  if (end - writer.RestartBytes() != plan.report.imageBytes) {
    throw Error(m_strName, "changed meanwhile");
  }
  return end;
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
