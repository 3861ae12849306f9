#include "capsule/host/build/index_draft.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/file/image_file.h"
#include "capsule/host/file/reason.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/platform/temporary_file.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

constexpr size_t kPiece = size_t{256} << 10;

platform::ScopedDescriptor Opened(const std::string& target, const std::string& name) {
  platform::ScopedDescriptor file(platform::OpenUnnamed(target));
  if (!file) ThrowSystemError(name, "cannot be created", errno);
  return file;
}

}  // namespace

IndexDraft::IndexDraft(const std::string& target, std::string name)
    : m_name(std::move(name)),
      m_file(Opened(target, m_name)),
      m_stream(m_file.Get(), m_name, 0),
      m_records(m_stream, static_cast<uint64_t>(kMaxImageSize)) {}

SectionItem IndexDraft::Item(Kind kind, uint64_t offset, uint64_t length) const {
  SectionItem item;
  item.kind = kind;
  item.offset = offset;
  item.length = length;
  return item;
}

void IndexDraft::Add(const SectionItem& item, ItemNotes notes) {
  m_counter.Add(item, notes.damage, notes.label);
  m_records.Add(item, std::move(notes));
}

void IndexDraft::BeginSection(uint64_t offset, const std::string& label) {
  m_section.Reset();
  Take(EncodePartitionHeader());
  Add(Item(Kind::Section, offset, kPartitionHeaderSize), {.label = label});
}

void IndexDraft::AddZeroEntries(uint64_t offset, int count) {
  for (int i = 0; i < count; ++i, offset += kDirRecordSize) {
    Add(Item(Kind::ZeroEntry, offset, kDirRecordSize));
  }
}

void IndexDraft::AddFolder(const std::string& relative, uint64_t offset,
                           std::span<const uint32_t> groupLengths) {
  SectionItem item = Item(Kind::Directory, offset, 0);
  if (relative.size() <= kMaxScannedPath) item.path = relative;
  for (const uint32_t length : groupLengths) {
    item.length = length;
    Add(item);
    item = Item(Kind::DotEntry, item.offset + length, 0);
  }
}

void IndexDraft::AddFile(const std::string& relative, uint64_t offset, uint64_t length,
                         uint64_t size, uint64_t check, std::vector<IndexRecord> restarts) {
  SectionItem item = Item(Kind::File, offset, length);
  if (relative.size() <= kMaxScannedPath) item.path = relative;
  item.entry.FileSize = static_cast<uint32_t>(size);
  ItemNotes notes{.check = check};
  if (!restarts.empty()) {
    notes.restarts = [points = std::move(restarts)](const auto& take) {
      for (const IndexRecord& point : points) take(point);
    };
  }
  Add(item, std::move(notes));
}

void IndexDraft::EndSection(uint64_t offset) {
  Add(Item(Kind::Trailer, offset, kPartitionTrailerSize));
  m_records.EndSection(m_section.Value(), offset);
}

bool IndexDraft::Fits(uint64_t imageBytes) const {
  return imageBytes + m_counter.Bytes() + m_counter.MostRestartBytes() <=
         static_cast<uint64_t>(kMaxImageSize);
}

uint64_t IndexDraft::Finish(int image, uint64_t imageBytes, std::span<const unsigned char> header) {
  RunningChecksum checksum;
  checksum.Update(header);
  const uint64_t length = m_records.Finish(imageBytes, checksum.Value());
  const ImageFile index(m_file.Get(), m_name);
  std::vector<unsigned char> piece(static_cast<size_t>(std::min<uint64_t>(length, kPiece)));
  for (uint64_t at = 0; at < length; at += piece.size()) {
    piece.resize(static_cast<size_t>(std::min<uint64_t>(length - at, piece.size())));
    if (index.ReadAt(at, piece) != piece.size()) {
      throw Error(ErrorKind::System, m_name, "changed meanwhile");
    }
    if (!platform::WriteAt(image, piece.data(), piece.size(),
                           static_cast<int64_t>(imageBytes + at))) {
      ThrowSystemError(m_name, "write of the index", errno);
    }
  }
  return imageBytes + length;
}

}  // namespace capsule::host
