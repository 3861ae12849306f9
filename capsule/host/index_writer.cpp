// The image is walked twice: once to know that it is sound, where it ends and how long its index
// will be, and once to write. What is written, in this order, each step on disk before the next
// where that matters:
//   1. index offset 0, if the header has another, so that no reader follows an index being replaced
//   2. the file is cut behind the last trailer, the index is appended
//   3. the partition count, when numbers were skipped, and the index offset
#include "capsule/host/index_writer.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "capsule/container/index_format.h"
#include "capsule/host/error.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/file/watch.h"
#include "capsule/host/index/image_header.h"
#include "capsule/host/indexing/index_annotation.h"
#include "capsule/host/indexing/index_record_writer.h"
#include "capsule/host/indexing/index_source.h"
#include "capsule/host/indexing/trial_image.h"
#include "capsule/host/sections/section_scanner.h"
#include "capsule/host/sections/uncounted_section.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"

namespace capsule::host {
namespace {

// What lies behind the last trailer is cut off, but not a section that a damaged header conceals.
void RefuseToCutSection(const ImageFile& image, const SectionScanner& scanner, uint64_t end) {
  if (!FindUncountedSection(image, scanner, end)) return;
  throw Error(image.Name(), Hex(end) + ": " + UncountedReason(scanner.SectionCount()), end);
}

// An index that says what was damaged is not replaced by one that does not.
void RefuseToForget(const ImageFile& image) {
  const DecodedHeader header = ReadImageHeader(image);
  IndexContents index;
  try {
    RequireIndexInFile(header, image);
    index = ReadIndex(image, header.indexOffset);
  } catch (const Error&) {
    return;
  }
  if (!index.damages.empty()) throw Error(image.Name(), "its index tells of damage, and is kept");
}

// Where a checked index stands that the header does not lead to any more, what it tells of files
// must be so: it would be lost by a new one, and with it what shows that they are damaged.
void RefuseToContradictLostIndex(const ImageFile& image, uint64_t offset) {
  const uint64_t length = image.Size();
  if (offset >= length) return;
  IndexContents index;
  try {
    index = ReadIndex(image, offset);
  } catch (const ShortageError&) {
    throw;
  } catch (const Error&) {
    return;  // it is none
  }
  if (!index.isChecked) return;
  FileWindow window(image);
  uint64_t covered = 0;
  for (const FileCheck& check : index.checks) {
    RunningChecksum checksum;
    covered += check.length;  // of a true index never more than the image
    for (uint64_t at = check.offset, end = at + check.length; at < end && covered <= length;) {
      const auto bytes =
          window.At(at, static_cast<size_t>(std::min<uint64_t>(end - at, FileWindow::kSize)));
      if (bytes.empty()) break;
      checksum.Update(bytes);
      at += bytes.size();
    }
    if (covered <= length && checksum.Value() == check.value) continue;
    throw Error(image.Name(),
                "an index at " + Hex(offset) +
                    " that the header does not lead to vouches for other bytes at " +
                    Hex(check.offset) + ", and is kept",
                offset);
  }
}

}  // namespace

IndexWriter::IndexWriter(const std::filesystem::path& image)
    : m_descriptor(platform::OpenForUpdate(image.c_str())), m_owned(true), m_name(image.string()) {
  if (m_descriptor < 0) ThrowSystemError(m_name, "", errno);
}

IndexWriter::IndexWriter(int descriptor, std::string name)
    : m_descriptor(descriptor), m_name(std::move(name)) {}

IndexWriter::~IndexWriter() {
  if (m_owned) platform::Close(m_descriptor);
}

// What the first walk found out.
struct IndexWriter::Plan {
  IndexReport report;
  SectionTrust trust = SectionTrust::Written;
  std::vector<DamageNote> notes;            // on the image as a whole
  std::map<uint64_t, std::string> damages;  // by the offset of their item
  bool endsEmpty = false;                   // the last item is the header of a section
  bool isCompressed = false;
  bool isNtfs = false;  // some of it
  bool hasRestartPoints = false;
  std::vector<unsigned char> header;  // as it will be stored

  std::string DamageOf(const SectionItem& item) const {
    const auto damage = damages.find(item.offset);
    return damage == damages.end() ? std::string() : damage->second;
  }
};

IndexReport IndexWriter::Write(const IndexOptions& options) {
  const DamagedSections damaged = options.damaged;
  m_watch = std::make_unique<Watch>(m_name, options.onProgress, options.stop);
  m_watch->Check();
  KeepLabels();
  if (IsWithoutPartitions()) {
    if (damaged != DamagedSections::Refuse) RefuseUnlessEmpty();
    return {};
  }
  const bool force = damaged == DamagedSections::NoteDamage;
  if (damaged != DamagedSections::Refuse) {
    if (!m_owned) {
      throw Error(ErrorKind::Misuse, m_name, "only an image with a path can be judged");
    }
    const Image image(Bytes().Source(), m_name, Opening::Salvage);
    return image.Info().checked
               ? AnnotateIndex(m_descriptor, image, force, {options.onProgress, options.stop})
               : WriteSections(image, force);
  }
  RefuseToForget(Bytes());
  Plan plan = Measure(SectionTrust::Written, {});
  if (m_owned) {
    TrialImage trial(Bytes());
    plan.report.imageBytes = Append(plan, trial.Descriptor(), nullptr);
    PutInPlace(plan, trial);
  } else {
    Complete(plan, [&] { plan.report.imageBytes = Append(plan, m_descriptor, nullptr); });
  }
  return plan.report;
}

void IndexWriter::KeepLabels() {
  m_oldLabels.clear();
  if (m_labels) return;
  try {
    const DecodedHeader header = ReadImageHeader(Bytes());
    RequireIndexInFile(header, Bytes());
    m_oldLabels = ReadIndex(Bytes(), header.indexOffset).labels;
  } catch (const ShortageError&) {
    throw;
  } catch (const Error&) {
    // Nothing says what they are called.
  }
}

// The label of a section, looked up by its number or by its offset.
std::string IndexWriter::LabelOf(const SectionItem& item, size_t number) const {
  if (item.kind != SectionItem::Kind::Section) return {};
  if (m_labels) return number < m_labels->size() ? (*m_labels)[number] : std::string();
  const auto label = m_oldLabels.find(static_cast<uint32_t>(item.offset));
  return label == m_oldLabels.end() ? std::string() : label->second;
}

// Of an image without an index that vouches for its sections, which are judged as opening does.
IndexReport IndexWriter::WriteSections(const Image& image, bool force) {
  const bool isWhole = image.IsWhole();
  const auto& problems = image.Problems();
  const bool hasIndex = !isWhole && HasReadableIndex(Bytes());
  const std::string damage =
      problems.empty() ? image.Info().scanReason : problems[0].path + ": " + problems[0].reason;
  if (hasIndex && !force) {
    throw Error(m_name, damage + "; the index can be read, and is kept for what it tells");
  }
  if (FindUncountedSection(Bytes())) throw Error(m_name, damage);
  std::vector<DamageNote> notes;
  if (hasIndex && problems.empty()) notes.push_back({0, kHeaderSize, damage, false});
  Plan plan = Measure(problems.empty() ? SectionTrust::Sound : SectionTrust::Damaged, notes);
  if (!problems.empty() && plan.report.problems.empty()) throw Error(m_name, damage);
  RefuseToContradictLostIndex(Bytes(), plan.report.indexOffset);
  TrialImage trial(Bytes());
  trial.Put(plan.header);
  plan.report.imageBytes = Append(plan, trial.Descriptor(), &trial);
  trial.Open(plan.notes.empty() && plan.damages.empty());
  PutInPlace(plan, trial);
  return plan.report;
}

// From here on nothing is cancelled: the header says that there is no index until all of it is
// there.
void IndexWriter::PutInPlace(const Plan& plan, const TrialImage& trial) {
  const uint64_t begin = plan.report.indexOffset;
  const uint64_t end = trial.Length();
  if (!platform::CanGrow(m_descriptor, static_cast<int64_t>(begin),
                         static_cast<int64_t>(end - begin))) {
    ThrowSystemError(m_name, "no room for the index", errno);
  }
  Complete(plan, [&] {
    const bool isDone = platform::Truncate(m_descriptor, static_cast<int64_t>(begin)) &&
                        CopyBytes(ImageFile(trial.Descriptor(), m_name), m_descriptor, begin, end);
    if (!isDone) ThrowSystemError(m_name, "write of the index", errno);
  });
}

// An item comes up. Each of the two walks over the sections counts for half. `before`: what earlier
// ones counted.
void IndexWriter::Walked(const SectionItem& item, uint64_t before) {
  m_watch->TellWithin(before + item.offset, m_watch->IsHeard() && !item.path.empty()
                                                ? std::to_string(item.section) + ":/" + item.path
                                                : "");
}

// Puts the index in its place by `append`, and lets the header tell of it.
void IndexWriter::Complete(const Plan& plan, const std::function<void()>& append) {
  const auto end = static_cast<int64_t>(plan.report.indexOffset);
  if (plan.trust != SectionTrust::Damaged) {
    const std::vector<unsigned char> noOffset(kHeaderSize);
    PatchHeader(noOffset, kIndexOffsetOffset, sizeof(uint32_t));
    SyncFile();
  }
  try {
    append();
    SyncFile();
  } catch (...) {
    platform::Truncate(m_descriptor, end);
    throw;
  }
  PatchHeader(plan.header, kPartitionCountOffset, 1);
  PatchHeader(plan.header, kIndexOffsetOffset, sizeof(uint32_t));
  SyncFile();
}

// Whether the image has no partitions: then there is nothing to index.
bool IndexWriter::IsWithoutPartitions() const {
  const SectionScanner scanner(Bytes());
  if (scanner.SectionCount() != 0) return false;
  RefuseToCutSection(Bytes(), scanner, kHeaderSize);
  return true;
}

// An image without partitions may be one whose header lost them.
void IndexWriter::RefuseUnlessEmpty() const {
  const Image image(Bytes().Source(), m_name, Opening::Salvage);
  if (image.IsWhole()) return;
  throw Error(m_name, image.Problems().empty()
                          ? image.Info().scanReason
                          : image.Problems()[0].path + ": " + image.Problems()[0].reason);
}

IndexWriter::Plan IndexWriter::Measure(SectionTrust trust, std::vector<DamageNote> notes) {
  const SectionScanner scanner(Bytes());
  Plan plan;
  plan.trust = trust;
  plan.notes = std::move(notes);
  Count(&plan);
  if (plan.report.sections != scanner.SectionCount() || plan.endsEmpty) {
    throw Error(m_name, "has " + std::to_string(scanner.SectionCount()) +
                            " sections, but what can be read ends in number " +
                            std::to_string(plan.report.sections));
  }
  if (plan.report.imageBytes > static_cast<uint64_t>(kMaxImageSize)) {
    throw Error(ErrorKind::Unsupported, m_name,
                "image with its index would be " + std::to_string(plan.report.imageBytes) +
                    " bytes, " + std::to_string(kMaxImageSize) + " are possible");
  }
  RefuseToCutSection(Bytes(), scanner, plan.report.indexOffset);
  plan.isCompressed = scanner.Header().compressed;
  const auto stored = scanner.RawHeader();
  plan.header.assign(stored.begin(), stored.end());
  const std::span<unsigned char, kHeaderSize> header(plan.header.data(), kHeaderSize);
  const std::string problem =
      CompleteHeader(static_cast<uint32_t>(plan.report.indexOffset), header);
  if (!problem.empty()) throw Error(m_name, problem);
  return plan;
}

// Walks the image and counts. Restart points are left out where the image would get too long by
// them.
void IndexWriter::Count(Plan* plan) {
  IndexRecordCounter records;
  IndexReport& report = plan->report;
  const auto length =
      static_cast<uint64_t>(std::max<int64_t>(platform::FileLength(m_descriptor), 0));
  m_watch->Now().bytesTotal = 2 * length;
  ItemVisitor visitor;
  visitor.onItem = [&](const SectionItem& item, const std::string& damage) {
    Walked(item, 0);
    const bool isSection = item.kind == SectionItem::Kind::Section;
    records.Add(item, damage, LabelOf(item, report.sections));
    report.files += item.kind == SectionItem::Kind::File ? 1 : 0;
    report.directories +=
        item.IsEntry() && item.kind != SectionItem::Kind::File && !item.isRoot ? 1 : 0;
    report.sections += isSection ? 1 : 0;
    plan->endsEmpty = isSection;
    plan->isNtfs = plan->isNtfs || item.isNtfs;
    if (damage.empty()) return;
    plan->damages[item.offset] = damage;
    const bool isNamed = !item.path.empty();
    report.problems.push_back(
        {isNamed ? std::to_string(item.section) + ":/" + item.path : "item at " + Hex(item.offset),
         damage});
  };
  visitor.onImage = [&](const DamageNote& note) { plan->notes.push_back(note); };
  report.indexOffset = VisitItems(Bytes(), plan->trust, visitor);
  for (const DamageNote& note : plan->notes) {
    records.Add(note);
    report.problems.push_back({note.isCut ? "end of the image" : "image", note.reason});
  }
  report.imageBytes = report.indexOffset + records.Bytes();
  plan->hasRestartPoints =
      report.imageBytes + records.MostRestartBytes() <= static_cast<uint64_t>(kMaxImageSize);
}

// Writes the index to `output`; where it ends. A trial gets the records that opening reads.
uint64_t IndexWriter::Append(const Plan& plan, int output, TrialImage* trial) {
  const uint64_t start = plan.report.indexOffset;
  if (!platform::Truncate(output, static_cast<int64_t>(start))) {
    ThrowSystemError(m_name, "truncate", errno);
  }
  RecordSource files;
  files.image = Bytes();
  files.rules.imageIsCompressed = plan.isCompressed;
  IndexRecordWriter writer(files, output, start, plan.header, plan.hasRestartPoints);
  const uint64_t half = m_watch->Now().bytesTotal / 2;
  writer.SetOnBytes([&](uint64_t at) { m_watch->TellWithin(half + at, m_watch->Now().path); });
  for (const DamageNote& note : plan.notes) writer.Add(note);
  size_t sections = 0;
  ItemVisitor visitor;
  visitor.onItem = [&](const SectionItem& item, const std::string&) {
    Walked(item, half);
    writer.Add(item, plan.DamageOf(item), LabelOf(item, sections));
    sections += item.kind == SectionItem::Kind::Section ? 1 : 0;
    const bool hasData = item.kind == SectionItem::Kind::File && item.dataOffset != 0;
    const uint64_t end = item.offset + item.length;
    if (trial != nullptr) trial->Copy(item.offset, hasData && !plan.isNtfs ? item.dataOffset : end);
  };
  visitor.onImage = [](const DamageNote&) {};
  const bool isKnown = plan.trust == SectionTrust::Sound;  // what was decoded once
  VisitItems(Bytes(), isKnown ? SectionTrust::Written : plan.trust, visitor);
  const uint64_t end = writer.Finish();
  if (end - writer.RestartBytes() != plan.report.imageBytes) {
    throw Error(ErrorKind::System, m_name, "changed meanwhile");
  }
  m_watch->Tell(m_watch->Now().bytesTotal, "");
  return end;
}

void IndexWriter::PatchHeader(std::span<const unsigned char> header, size_t offset, size_t count) {
  const auto bytes = header.subspan(offset, count);
  if (!platform::WriteAt(m_descriptor, bytes.data(), count, static_cast<int64_t>(offset))) {
    ThrowSystemError(m_name, "write of the header", errno, offset);
  }
}

ImageFile IndexWriter::Bytes() const { return ImageFile(m_descriptor, m_name); }

void IndexWriter::SyncFile() {
  if (!platform::Sync(m_descriptor)) ThrowSystemError(m_name, "sync", errno);
}

}  // namespace capsule::host
