// An image is opened by its index; where sections hold NTFS records, or the index has no check
// value, what it leads to is also compared with the sections. If any of this fails and salvage is
// allowed, the tree comes from a survey of the sections, led by the index as far as that is right.
// Header and sizes are judged in the end, so their problems are told either way.
#include "capsule/host/image.h"

#include <algorithm>

#include "capsule/host/file/checksum.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/image_header.h"
#include "capsule/host/records/ntfs_entry.h"
#include "capsule/host/records/record_judge.h"
#include "capsule/host/records/record_source.h"
#include "capsule/host/records/record_stream.h"
#include "capsule/host/salvage/damaged_reader.h"
#include "capsule/host/sections/uncounted_section.h"
#include "capsule/host/tree/indexed_tree.h"
#include "capsule/host/tree/salvage_tree.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {

struct Image::Impl {
  ImageFile file;
  ImageInfo info;
  std::unique_ptr<Catalog> catalog;
  std::vector<ImageProblem> problems;
  std::vector<FileCheck> checks;       // by offset
  std::vector<RestartPoint> restarts;  // by record
};

namespace {

ImageInfo Summarize(const DecodedHeader& header, const IndexContents& index,
                    const Catalog& catalog) {
  ImageInfo info;
  info.label = header.version;
  info.compressed = header.compressed;
  info.checked = index.isChecked;
  info.indexOffset = header.indexOffset;
  info.partitions.resize(catalog.Roots());
  const size_t known = std::min(info.partitions.size(), header.partitions.size());
  for (size_t i = 0; i < info.partitions.size(); ++i) {
    info.partitions[i].offset = i < index.sections.size()
                                    ? index.sections[i]
                                    : catalog.Node(catalog.Root(static_cast<uint32_t>(i))).offset;
  }
  for (PartitionInfo& partition : info.partitions) {
    const auto label = index.labels.find(partition.offset);
    if (label != index.labels.end()) partition.label = label->second;
  }
  for (size_t i = 0; i < known; ++i) {
    info.partitions[i].systemId = header.partitions[i].SystemId;
    info.partitions[i].sectorCount = header.partitions[i].SectorCount;
  }
  for (uint32_t id = 0; id < catalog.Size(); ++id) {
    if (catalog.IsRoot(id)) continue;
    const CatalogNode& node = catalog.Node(id);
    PartitionInfo& partition = info.partitions[node.partition];
    ++(node.isDirectory ? partition.directories : partition.files);
    partition.bytes += node.size;
  }
  return info;
}

std::optional<FileCheck> CheckOf(const std::vector<FileCheck>& checks, uint32_t offset) {
  const auto check =
      std::lower_bound(checks.begin(), checks.end(), offset,
                       [](const FileCheck& item, uint32_t wanted) { return item.offset < wanted; });
  if (check == checks.end() || check->offset != offset) return std::nullopt;
  return *check;
}

// The restart points of the file whose data records lie from `begin` to `limit`.
std::span<const RestartPoint> RestartsIn(const std::vector<RestartPoint>& points, uint64_t begin,
                                         uint64_t limit) {
  const auto isBefore = [](const RestartPoint& point, uint64_t at) { return point.record < at; };
  const auto first = std::lower_bound(points.begin(), points.end(), begin, isBefore);
  return {first, std::lower_bound(first, points.end(), limit, isBefore)};
}

// FILE records have no check values of their own, and those that cannot be decoded make the class
// interface read what follows wrongly.
bool HasNtfsPartition(const DecodedHeader& header) {
  return std::any_of(header.partitions.begin(), header.partitions.end(),
                     [](const _Partition& record) { return record.SystemId == kSystemIdNtfs; });
}

// Sizes that nothing in the image can stand for.
void JudgeSizes(const Catalog& catalog, const ImageInfo& info,
                std::vector<ImageProblem>* problems) {
  for (uint32_t id = 0; id < catalog.Size(); ++id) {
    if (catalog.IsRoot(id)) continue;
    const CatalogNode& node = catalog.Node(id);
    const bool ofNtfs = info.partitions[node.partition].systemId == kSystemIdNtfs;
    const bool isLeftOut = ofNtfs && IsNtfsOwnFile(catalog.Name(id), catalog.IsRoot(node.parent));
    if (node.isDirectory || isLeftOut) continue;
    std::string problem = JudgeSize(node.size, node.dataLimit - node.offset);
    if (problem.empty()) continue;
    problems->push_back({catalog.NameForProblem(id), std::move(problem), false, node.offset});
  }
}

// A size may be anything: what it claims beyond all that the file's records can have held is not
// there.
void ReadWhatIsHeld(const RecordSource& source, const std::string& problem, uint64_t begin,
                    uint64_t end, const TakePiece& take) {
  const uint64_t room = source.limit - source.fileRecord;
  const uint64_t held = std::max(begin, std::min(end, MostBytesIn(room)));
  DamagedReader(source, problem, begin, held, take).Run();
  if (held == end) return;
  take({FilePiece::Kind::Claimed, held, end - held, {}, JudgeSize(source.size, room)});
}

// A scan finds a place for what the folders of a damaged partition do not count.
void RefuseLeftOut(const std::vector<ImageProblem>& problems, const std::string& path) {
  for (const ImageProblem& problem : problems) {
    if (problem.isLeftOut) throw Error(path, problem.reason);
  }
}

// What is wrong with the header, which a checked index vouches for; nothing when it does not.
std::optional<ImageProblem> JudgeHeader(const ImageFile& image, const IndexContents& index) {
  if (!index.headerCheck) return std::nullopt;
  FileWindow window(image);
  RunningChecksum checksum;
  checksum.Update(window.At(0, kHeaderSize));
  if (checksum.Value() == *index.headerCheck) return std::nullopt;
  return ImageProblem{"header",
                      "check value is " + ChecksumDigits(*index.headerCheck) + ", its bytes give " +
                          ChecksumDigits(checksum.Value()),
                      false, 0};
}

// What is wrong with a header that no check value vouches for. Only then its spare records are
// judged, since a check value would show their damage as well.
std::optional<ImageProblem> JudgeUncheckedHeader(const ImageFile& image,
                                                 const DecodedHeader& header,
                                                 const IndexContents& index) {
  if (index.headerCheck) return std::nullopt;
  FileWindow window(image);
  const auto stored = window.At(0, kHeaderSize);
  if (stored.size() < kHeaderSize) return std::nullopt;
  std::string wrong = JudgeSpareRecords(stored.first<kHeaderSize>(), header);
  if (wrong.empty()) return std::nullopt;
  return ImageProblem{"header", std::move(wrong), false, kPartitionRecordsOffset};
}

// What the index says was damaged when it was made.
void AddKnownDamage(const IndexContents& index, const Catalog& catalog,
                    std::vector<ImageProblem>* problems) {
  if (index.damages.empty()) return;
  const auto places = catalog.Places();
  for (const DamageNote& note : index.damages) {
    const auto place = std::lower_bound(places.begin(), places.end(), std::pair(note.offset, 0U));
    std::string path = "item at " + Hex(note.offset);
    if (place != places.end() && place->first == note.offset && !catalog.IsRoot(place->second))
      path = catalog.NameForProblem(place->second);
    if (note.offset == 0) path = note.isCut ? "end of the image" : "image";
    problems->push_back(
        {path, note.reason + "; known since the index was made", false, note.offset});
  }
}

// Takes "N:" from the front of `path`; partition 0 without it, none when N is out of reach.
std::optional<uint32_t> TakePartition(std::string_view* path) {
  size_t digits = 0;
  while (digits < path->size() && (*path)[digits] >= '0' && (*path)[digits] <= '9') ++digits;
  if (digits == 0 || digits == path->size() || (*path)[digits] != ':') return 0;
  if (digits > 3) return std::nullopt;
  const auto number = static_cast<uint32_t>(std::stoul(std::string(path->substr(0, digits))));
  path->remove_prefix(digits + 1);
  return number;
}

}  // namespace

Image::Image(const std::filesystem::path& path, Opening opening)
    : Image(FileSource(path), path.string(), opening) {}

Image::Image(std::shared_ptr<const ByteSource> source, std::string name, Opening opening)
    : m_impl(std::make_unique<Impl>()) {
  Impl& impl = *m_impl;
  impl.file = ImageFile(std::move(source), std::move(name));
  const ImageFile& file = impl.file;
  const uint64_t length = file.Size();
  const DecodedHeader header = ReadImageHeader(file);
  IndexContents index;
  std::string scanReason;
  const bool isEmpty = SectionsOf(header).empty();
  try {
    RequireIndexInFile(header, file);
    index = ReadIndex(file, header.indexOffset);
    impl.catalog = ReadIndexedTree(file, header, index, &impl.problems);
    if (opening == Opening::Salvage) RefuseLeftOut(impl.problems, file.Name());
    if (!index.isChecked || HasNtfsPartition(header)) {
      RequireSameSections(file, index, *impl.catalog, header.indexOffset);
    }
  } catch (const ShortageError&) {
    throw;
  } catch (const Error& error) {
    const bool isWithoutIndex = isEmpty && header.indexOffset == 0;
    if (opening == Opening::Strict && !isWithoutIndex) throw;
    if (!isWithoutIndex) scanReason = error.Reason();
    impl.problems.clear();
    if (index.isChecked) index = ReadIndex(file, header.indexOffset, true);
    impl.catalog =
        SalvageCatalog(file, index, LimitOfSections(file, header, index, length), &impl.problems);
    if (impl.catalog->Size() == 0 && !isEmpty) throw;
    if (const auto at = FindUncountedSection(file)) {
      const auto counted = static_cast<uint32_t>(impl.catalog->Roots());
      impl.problems.push_back({"item at " + Hex(*at), UncountedReason(counted), false, *at});
    }
  }
  impl.info = Summarize(header, index, *impl.catalog);
  JudgeSizes(*impl.catalog, impl.info, &impl.problems);
  if (auto wrong = JudgeHeader(file, index)) {
    impl.problems.push_back(*std::move(wrong));
    // Its flag may be damaged. Stored records say by themselves that they are; what is compressed
    // would pass for stored.
    impl.info.compressed = true;
  }
  if (auto wrong = JudgeUncheckedHeader(file, header, index)) {
    impl.problems.push_back(*std::move(wrong));
  }
  AddKnownDamage(index, *impl.catalog, &impl.problems);
  impl.info.scanReason = scanReason;
  impl.info.imageBytes = length;
  impl.checks = std::move(index.checks);
  impl.restarts = std::move(index.restarts);
}

Image::~Image() = default;
Image::Image(Image&&) noexcept = default;
Image& Image::operator=(Image&&) noexcept = default;

const std::string& Image::Path() const { return m_impl->file.Name(); }
const ImageInfo& Image::Info() const& { return m_impl->info; }
const std::vector<ImageProblem>& Image::Problems() const& { return m_impl->problems; }
bool Image::IsWhole() const {
  const bool isByIndex = Info().scanReason.empty() || Info().indexOffset == 0;
  return isByIndex && Problems().empty();
}
int Image::Partitions() const { return static_cast<int>(m_impl->catalog->Roots()); }

Entry Image::Root(int n) const& {
  if (n < 0 || n >= Partitions())
    throw Error(ErrorKind::NotFound, Path(), "has no partition " + std::to_string(n));
  return m_impl->catalog->At(m_impl->catalog->Root(static_cast<uint32_t>(n)));
}

std::optional<Entry> Image::Find(std::string_view path) const& {
  const Catalog& catalog = *m_impl->catalog;
  const std::optional<uint32_t> partition = TakePartition(&path);
  if (!partition || *partition >= catalog.Roots()) return std::nullopt;
  std::optional<uint32_t> at = catalog.Root(*partition);
  while (at && !path.empty()) {
    const std::string_view segment = path.substr(0, path.find_first_of("/\\"));
    path.remove_prefix(std::min(path.size(), segment.size() + 1));
    if (!segment.empty()) at = catalog.FindChild(*at, segment);
  }
  if (!at) return std::nullopt;
  return catalog.At(*at);
}

RecordSource Image::SourceOf(const Entry& entry) const {
  if (entry.m_catalog != m_impl->catalog.get())
    throw Error(ErrorKind::Misuse, Path(), "entry of another image");
  const CatalogNode& node = m_impl->catalog->Node(entry.m_id);
  if (node.isDirectory) throw Error(ErrorKind::Misuse, Path(), entry.Path() + ": is a directory");
  RecordSource source;
  source.image = m_impl->file;
  source.rules.imageIsCompressed = m_impl->info.compressed;
  source.begin = node.dataOffset;
  source.limit = node.dataLimit;
  source.size = node.size;
  source.rules.kind = m_impl->info.partitions[node.partition].systemId == kSystemIdNtfs
                          ? RecordKind::Ntfs
                          : RecordKind::Fat;
  source.fileRecord = node.offset;
  source.check = CheckOf(m_impl->checks, node.offset);
  if (!source.rules.IsNtfs())
    source.restarts = RestartsIn(m_impl->restarts, source.begin, source.limit);
  source.entryPath = entry.Path();
  return source;
}

FileReader Image::OpenFile(const Entry& entry) const& { return FileReader(SourceOf(entry)); }

void Image::ReadDamaged(const Entry& entry, uint64_t offset, uint64_t length,
                        const TakePiece& take) const {
  const RecordSource source = SourceOf(entry);
  const uint64_t begin = std::min(offset, source.size);
  const uint64_t end = begin + std::min(length, source.size - begin);
  const std::string problem = ProblemOf(source);
  RecordSource unchecked = source;
  unchecked.check.reset();
  const bool onlyCheckFails = !problem.empty() && source.check && ProblemOf(unchecked).empty();
  if (!problem.empty() && !onlyCheckFails) {
    return ReadWhatIsHeld(source, problem, begin, end, take);
  }
  FileReader reader(std::move(unchecked));
  uint64_t at = begin;
  reader.CopyTo(begin, end - begin, [&](std::span<const unsigned char> bytes) {
    take({FilePiece::Kind::Data, at, bytes.size(), bytes, {}});
    at += bytes.size();
  });
  if (onlyCheckFails) take({FilePiece::Kind::Uncertain, begin, end - begin, {}, problem});
}

void Image::CopyLeft(const Entry& entry, uint64_t offset, uint64_t length, OnDamage onDamage,
                     const TakeLeft& take,
                     const std::function<void(const LostRange&)>& onLost) const {
  if (onDamage == OnDamage::Stop) {
    OpenFile(entry).CopyTo(offset, length, [&](auto bytes) { take(bytes, 0); });
    return;
  }
  ReadDamaged(entry, offset, length, [&](const FilePiece& piece) {
    const auto lost = LostIn(piece);
    if (lost && onLost) onLost(*lost);
    if (onDamage == OnDamage::Skip || piece.kind == FilePiece::Kind::Data) {
      if (!piece.bytes.empty()) take(piece.bytes, 0);
    } else if (piece.kind == FilePiece::Kind::Lost) {
      take({}, piece.length);
    }
  });
}

size_t Image::Read(const Entry& entry, uint64_t offset, std::span<unsigned char> out) const {
  return OpenFile(entry).Read(offset, out);
}

}  // namespace capsule::host
