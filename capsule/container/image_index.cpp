// The walk reads the index through one window that holds the longest record, so that a record is
// decoded where it lies and memory does not grow with names.
#include "capsule/container/image_index.h"

#include <limits>
#include <optional>
#include <span>

#include "capsule/container/header_format.h"
#include "capsule/container/index_format.h"
#include "capsule/container/index_window.h"
#include "capsule/platform/file.h"
#include "capsule/platform/little_endian.h"
#include "capsule/runtime/debug_tracer.h"
#include "capsule/state/library_state.h"

namespace capsule {
namespace {

constexpr int32_t kEndMark = -1;

// What an offset that no image can have is kept as: every reader refuses it, and it ends no list.
constexpr int32_t kOutOfRange = std::numeric_limits<int32_t>::min();

int32_t SignedOffset(uint32_t offset) {
  return offset > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())
             ? kOutOfRange
             : static_cast<int32_t>(offset);
}

int OffsetAt(const std::vector<int32_t>& offsets, uint32_t cursor) {
  return cursor < offsets.size() ? offsets[cursor] : kEndMark;
}

int TakeOffset(const std::vector<int32_t>& offsets, uint32_t* cursor) {
  const int offset = OffsetAt(offsets, *cursor);
  if (*cursor < offsets.size()) ++*cursor;
  return offset;
}

}  // namespace

ImageIndex* ImageIndex::Instance(const char* header, const char* path) {
  LibraryState& state = CurrentLibraryState();
  if (state.index == nullptr) {
    state.index = {new ImageIndex(header, path), [](ImageIndex* index) { delete index; }};
  }
  return state.index.get();
}

ImageIndex* ImageIndex::GetCurrentIndexInstance() { return CurrentLibraryState().index.get(); }

void ImageIndex::DeleteCurrentInstance() { CurrentLibraryState().index.reset(); }

ImageIndex::ImageIndex(const char* header, const char* path)
    : _image_header(header), _index_file(platform::OpenForReading(path)) {}

ImageIndex::~ImageIndex() {
  if (_index_file > 0) platform::Close(_index_file);
}

void ImageIndex::ReadIndex() {
  if (!_file_offsets.empty()) return;
  _SetOffsetToImageIndex();
  _FillOffsetVects();
}

int ImageIndex::GetNextPartitionOffset() {
  return TakeOffset(_partition_offsets, &_partition_cursor);
}

int ImageIndex::PeekNextPartitionOffset() {
  return OffsetAt(_partition_offsets, _partition_cursor);
}

int ImageIndex::GetNextFileOffset() { return TakeOffset(_file_offsets, &_file_cursor); }

int ImageIndex::PeekNextFileOffset() { return OffsetAt(_file_offsets, _file_cursor); }

const char* ImageIndex::GetImageFilePath() { return _image_header; }

void ImageIndex::_SetOffsetToImageIndex() {
  if (_index_file <= 0 || _image_header == nullptr) throw 0;
  _read_position = int64_t{_OffsetToIndex()} + kIndexPreamble;
}

uint32_t ImageIndex::_OffsetToIndex() const {
  const std::span<const char, kHeaderSize> header(_image_header, kHeaderSize);
  unsigned char bytes[4] = {};
  for (size_t i = 0; i < sizeof bytes; ++i) {
    bytes[i] = static_cast<unsigned char>(header[kIndexOffsetOffset + i]);
  }
  return platform::LoadLe32(bytes);
}

void ImageIndex::_FillOffsetVects() {
  IndexWindow window(_index_file, _read_position);
  uint32_t walks = 1;
  while (_walk_end < _OffsetToIndex()) {
    const std::optional<IndexRecord> record = window.TakeRecord();
    if (!record) break;
    if (record->type == kIndexGroupMark) {
      ++walks;  // the rest is a walk within this one; each ends both lists once
    } else {
      TakeRecord(*record);
    }
  }
  _file_offsets.insert(_file_offsets.end(), walks, kEndMark);
  _partition_offsets.insert(_partition_offsets.end(), walks, kEndMark);
}

void ImageIndex::TakeRecord(const IndexRecord& record) {
  const auto traced = static_cast<int>(record.offset);
  switch (record.type) {
    case kIndexFile:
    case kIndexZeroEntry:
      _file_offsets.push_back(SignedOffset(record.offset));
      IndexTracer().Trace("Index Offset(store in _file_offsets vect): %d\n", traced);
      break;
    case kIndexSection:
      _partition_offsets.push_back(SignedOffset(record.offset));
      IndexTracer().Trace("PhysicalPartition - Index Offset: %d\n", traced);
      break;
    case kIndexNote:
      IndexTracer().Trace("Logical Partition - Index Offset: %d\n", traced);
      break;
    default:
      IndexTracer().Trace("Default: %d\n", static_cast<int>(_walk_end));
      return;
  }
  _walk_end = uint64_t{record.offset} + record.length;
}

}  // namespace capsule
