// What is wrong with the source leaves out the item alone; what is wrong with the image ends the
// build. An item is in the image when all of its bytes are laid down: one that fails in the middle
// is written over by what comes next.
#include "capsule/host/build/image_draft.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "capsule/container/header_format.h"
#include "capsule/container/stored_header.h"
#include "capsule/host/build/source_content.h"
#include "capsule/host/file/image_file.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index_writer.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

constexpr uint64_t kMaxFileSize = 0x7FFFFFFF;

// The file in whose place the draft is to come.
std::optional<platform::FileIdentity> OldImage(const std::string& target, const std::string& name) {
  const auto old = platform::Status(target);
  if (!old) return std::nullopt;
  if (old->kind == platform::FileKind::Regular) return old->identity;
  throw Error(ErrorKind::Exists, name, "is not a regular file");
}

int Created(platform::TemporaryFile& file, const std::string& target, const std::string& name) {
  if (!file.Create(target)) ThrowSystemError(name, "cannot be created", errno);
  return file.Descriptor();
}

}  // namespace

ImageDraft::ImageDraft(std::string target, std::string name, DraftSettings settings)
    : m_target(std::move(target)),
      m_name(std::move(name)),
      m_settings(std::move(settings)),
      m_old(OldImage(m_target, m_name)),
      m_output(Created(m_temporary, m_target, m_name), m_name),
      m_index(m_target, m_name),
      m_encoders(m_settings.workers, m_settings.level, m_settings.latest),
      m_work(m_settings.workers) {
  m_own = platform::Identify(m_temporary.Descriptor());
  const ScopedLibraryState scope(m_state);
  if (m_image.CreateCapsuleFile(m_temporary.Path().c_str()) != 0) {
    FailAs("cannot be created", m_image.GetLastError());
  }
  m_open = true;
  m_image.SetCompressionLevel(m_settings.level);
  if (m_image.WriteImageFileHeader(m_settings.version.c_str()) != 0) {
    const int error = m_image.GetLastError();
    CloseImage();
    FailAs("write of the header", error);
  }
}

ImageDraft::~ImageDraft() { CloseImage(); }

void ImageDraft::BeginPartition(const std::string& label) {
  Settle();
  ++m_partition;
  m_labels.push_back(label);
  EndSection();
  const ScopedLibraryState scope(m_state);
  errno = 0;
  if (m_image.BeginPartition(m_partition) != 0) FailAs("write", errno != 0 ? errno : EFBIG);
  const auto begin = static_cast<uint64_t>(m_image.GetWriteOffset());
  m_index.BeginSection(begin - kPartitionHeaderSize, label);
  m_output.GoTo(begin);
}

// What closes a section that is not the last is its trailer alone.
void ImageDraft::EndSection() {
  m_output.Flush();
  if (m_partition > 0) m_index.EndSection(static_cast<uint64_t>(m_image.GetWriteOffset()));
}

void ImageDraft::Add(SourceItem item) {
  Check();
  EncodedItem encoded;
  const bool isFile = item.kind == SourceItem::Kind::File;
  if (isFile && item.status.size > kMaxFileSize) {
    encoded.problem = "file has " + std::to_string(item.status.size) + " bytes, " +
                      std::to_string(kMaxFileSize) + " are possible";
  } else if (isFile && item.status.size > kSpan) {
    return AddLong(std::move(item));
  } else if (item.kind == SourceItem::Kind::Folder) {
    encoded = m_encoders.Own().Encode(item, m_partition);
  }
  if (!m_batch) m_batch = std::make_unique<ItemBatch>(m_encoders, m_partition);
  m_batch->Add(std::move(item), std::move(encoded));
  if (m_batch->IsFull()) SubmitBatch();
}

void ImageDraft::SubmitBatch() {
  if (!m_batch) return;
  MakeRoom();
  m_work.Push(std::move(m_batch));
}

void ImageDraft::AddLong(SourceItem item) {
  SubmitBatch();
  const auto file = std::make_shared<LongFile>();
  file->partition = m_partition;
  file->item = std::move(item);
  for (uint64_t at = 0; at < file->item.status.size; at += kSpan) {
    MakeRoom();
    Check();
    m_work.Push(std::make_unique<SpanJob>(m_encoders, file, at));
  }
}

// Lays down what is done, and waits where too much is under way.
void ImageDraft::MakeRoom() {
  while (m_work.IsFull() || m_work.IsFirstDone()) LayFirst();
}

bool ImageDraft::Settle() {
  SubmitBatch();
  const bool isSomething = !m_work.IsEmpty();
  while (!m_work.IsEmpty()) LayFirst();
  return isSomething;
}

void ImageDraft::LayFirst() {
  Check();
  const auto job = m_work.TakeFirst();
  if (auto* batch = dynamic_cast<ItemBatch*>(job.get())) {
    Lay(*batch);
  } else {
    Lay(dynamic_cast<SpanJob&>(*job));
  }
}

void ImageDraft::Lay(ItemBatch& batch) {
  for (const ItemBatch::Piece& piece : batch.Pieces()) {
    if (!piece.encoded.bytes.empty()) Lay(piece.item, piece.encoded);
    m_settings.onItem(piece.item, piece.encoded.problem);
  }
}

void ImageDraft::Lay(const SourceItem& item, const EncodedItem& encoded) {
  const ItemPlace place = BeginItem(item);
  Put(encoded.bytes);
  EndItem(item, place);
  if (item.kind == SourceItem::Kind::Folder) {
    m_index.AddFolder(item.relative, place.offset, encoded.groups);
  } else {
    m_index.AddFile(item.relative, place.offset, encoded.bytes.size(), item.status.size,
                    encoded.check, {});
  }
}

// Lays down what closes levels before an item.
ItemPlace ImageDraft::BeginItem(const SourceItem& item) {
  const ScopedLibraryState scope(m_state);
  ItemPlace place{m_output.Position()};
  const bool isFolder = item.kind == SourceItem::Kind::Folder;
  const std::string path = ItemPath(m_partition, item.relative);
  if (m_image.BeginItem(path.c_str(), isFolder, &place.zeroEntries) != 0) {
    ThrowSystemError(item.path, "cannot be inserted", ENOMEM);
  }
  for (int i = 0; i < place.zeroEntries; ++i) Put(EncodeZeroEntry());
  place.offset = m_output.Position();
  return place;
}

void ImageDraft::EndItem(const SourceItem& item, const ItemPlace& place) {
  const ScopedLibraryState scope(m_state);
  const auto bytes = static_cast<int64_t>(m_output.Position() - place.begin);
  if (m_image.EndItem(bytes, static_cast<uint32_t>(item.status.size)) != 0) FailAsTooLarge();
  m_index.AddZeroEntries(place.begin, place.zeroEntries);
}

void ImageDraft::FailAsTooLarge() const {
  Fail(ErrorKind::Unsupported,
       "image would be larger than " + std::to_string(kMaxImageSize) + " bytes");
}

void ImageDraft::Put(std::span<const unsigned char> bytes) {
  const auto taken = static_cast<int64_t>(m_output.Position()) - m_image.GetWriteOffset();
  if (!m_image.HasRoomFor(taken + static_cast<int64_t>(bytes.size()))) FailAsTooLarge();
  m_output.Append(bytes);
  m_index.Take(bytes);
}

void ImageDraft::Lay(SpanJob& span) {
  LongFile& file = span.File();
  if (span.Begin() == 0) BeginLong(file.item);
  if (m_long->problem.empty()) TakeSpan(file, span.Begin(), span.Encoded());
  if (span.IsLast()) EndLong(file);
}

void ImageDraft::BeginLong(const SourceItem& item) {
  m_long.emplace();
  m_long->section = m_index.Mark();
  m_long->place = BeginItem(item);
}

void ImageDraft::TakeSpan(LongFile& file, uint64_t begin, EncodedSpan& encoded) {
  if (begin != 0 && encoded.problem.empty() && encoded.begin) {
    ++m_seams;
    if (!m_long->state->GoesOnLike(*encoded.begin)) {
      ++m_seamsRedone;
      encoded = m_encoders.Own().EncodeSpan(file, begin, *m_long->state);
    }
  }
  m_long->problem = encoded.problem;
  if (!encoded.problem.empty()) return;
  if (begin == 0) {
    m_long->groupBytes = encoded.groupBytes;
  } else {
    IndexRecord point = RestartRecord(m_output.Position(), begin, encoded.history);
    point.length = encoded.firstRecord;
    m_long->restarts.push_back(std::move(point));
  }
  Put(encoded.bytes);
  m_long->check.Update(encoded.bytes);
  m_long->state = std::move(encoded.end);
  m_settings.onBytes(file.item, std::min<uint64_t>(begin + kSpan, file.item.status.size));
}

// Samples do not tell all of a file: one that has got larger is laid down once more, stored.
void ImageDraft::StoreIfSmaller(LongFile& file) {
  const uint64_t size = file.item.status.size;
  const uint64_t bytes = m_output.Position() - m_long->place.offset - m_long->groupBytes;
  if (file.level == 0 || bytes < StoredSize(size)) return;
  GoBack(*m_long);
  file.level = 0;
  BeginLong(file.item);
  for (uint64_t at = 0; at < size && m_long->problem.empty(); at += kSpan) {
    Check();
    EncodedSpan encoded = m_encoders.Own().EncodeSpan(file, at);
    TakeSpan(file, at, encoded);
  }
}

void ImageDraft::GoBack(const OpenLongFile& file) {
  m_output.GoTo(file.place.begin);
  m_index.GoBack(file.section);
}

void ImageDraft::EndLong(LongFile& file) {
  if (m_long->problem.empty()) StoreIfSmaller(file);
  OpenLongFile open = std::move(*m_long);
  m_long.reset();
  if (open.problem.empty()) open.problem = ChangeOf(file.item);
  if (!open.problem.empty()) {
    GoBack(open);
  } else {
    EndItem(file.item, open.place);
    const uint64_t offset = open.place.offset;
    m_index.AddFile(file.item.relative, offset, m_output.Position() - offset, file.item.status.size,
                    open.check.Value(), std::move(open.restarts));
  }
  m_settings.onItem(file.item, open.problem);
}

bool ImageDraft::IsOwnFile(const platform::FileIdentity& identity) const {
  return identity == m_own || identity == m_old;
}

uint64_t ImageDraft::Complete(int* syncProblem) {
  Settle();
  m_output.Flush();
  const uint64_t bytes = AppendIndex();
  if (const char* step = m_temporary.Publish(syncProblem)) FailAs(step, errno);
  return bytes;
}

uint64_t ImageDraft::AppendIndex() {
  const auto at = static_cast<uint64_t>(m_image.GetWriteOffset());
  const int levels = m_image.GetCurrentPartitionPtr()->GetHierarchyLevel();
  {
    const ScopedLibraryState scope(m_state);
    errno = 0;
    if (m_image.CloseImageFile() != 0) FailAs("write", errno != 0 ? errno : EIO);
    m_open = false;
  }
  for (int i = 0; i < levels; ++i) m_index.Take(EncodeZeroEntry());
  m_index.AddZeroEntries(at, levels);
  const uint64_t trailer = at + uint64_t{kDirRecordSize} * static_cast<uint64_t>(levels);
  m_index.EndSection(trailer);
  const uint64_t end = trailer + kPartitionTrailerSize;
  if (!platform::Truncate(m_temporary.Descriptor(), static_cast<int64_t>(end))) {
    FailAs("truncate", errno);
  }
  if (!m_index.Fits(end)) return IndexBySections();
  std::vector<unsigned char> header(kHeaderSize);
  if (ImageFile(m_temporary.Descriptor(), m_name).ReadAt(0, header) != header.size()) {
    FailAs("read of the header", EIO);
  }
  const std::string problem =
      CompleteHeader(static_cast<uint32_t>(end),
                     std::span<unsigned char, kHeaderSize>(header.data(), kHeaderSize));
  if (!problem.empty()) Fail(ErrorKind::System, problem);
  const uint64_t length = m_index.Finish(m_temporary.Descriptor(), end, header);
  if (!platform::WriteAt(m_temporary.Descriptor(), header.data(), header.size(), 0)) {
    FailAs("write of the header", errno);
  }
  return length;
}

// Near the largest size of an image it is to be seen what of the index it has room for.
uint64_t ImageDraft::IndexBySections() {
  IndexWriter index(m_temporary.Descriptor(), m_name);
  index.SetLabels(m_labels);
  return index.Write({.stop = m_settings.stop}).imageBytes;
}

void ImageDraft::CloseImage() {
  if (std::exchange(m_open, false)) m_image.CloseImageFileHandle();
}

void ImageDraft::Check() const {
  if (m_settings.stop.stop_requested()) Fail(ErrorKind::Cancelled, "cancelled");
}

void ImageDraft::Fail(ErrorKind kind, const std::string& reason) const {
  throw Error(kind, m_name, reason);
}

void ImageDraft::FailAs(const char* step, int error) const {
  ThrowSystemError(m_name, step, error);
}

}  // namespace capsule::host
