// A flag says that a read has begun and is taken back when it ends well. So whatever ends a read in
// the middle of a record, exceptions of the host included, makes the next one start again.
#include "capsule/host/file_reader.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "capsule/host/records/record_stream.h"

namespace capsule::host {
namespace {
constexpr size_t kPiece = size_t{128} * 1024;
}

struct FileReader::Impl {
  RecordStream records;
  bool hasFailed = false;  // the last read stopped inside a record: start again
};

FileReader::FileReader(RecordSource source)
    : m_impl(std::unique_ptr<Impl>(new Impl{RecordStream(std::move(source)), false})) {}
FileReader::FileReader(FileReader&&) noexcept = default;
FileReader& FileReader::operator=(FileReader&&) noexcept = default;
FileReader::~FileReader() = default;

uint64_t FileReader::Size() const { return m_impl->records.Source().size; }

size_t FileReader::Read(uint64_t offset, std::span<unsigned char> out) {
  RecordStream& records = m_impl->records;
  const uint64_t size = Size();
  const uint64_t end =
      offset >= size ? offset : offset + std::min<uint64_t>(out.size(), size - offset);
  if (std::exchange(m_impl->hasFailed, true)) {
    records.SeekAfterFailure(offset);
  } else {
    records.Seek(offset);
  }
  if (size == 0) records.ExpectEmpty();
  for (uint64_t at = offset; at < end;) {
    while (at >= records.ChunkEnd()) records.Advance(at);
    const auto skip = static_cast<size_t>(at - records.ChunkBegin());
    const auto count = static_cast<size_t>(std::min(end, records.ChunkEnd()) - at);
    const auto bytes = records.Chunk().subspan(skip, count);
    std::copy(bytes.begin(), bytes.end(), out.begin() + static_cast<std::ptrdiff_t>(at - offset));
    at += count;
  }
  m_impl->hasFailed = false;
  return static_cast<size_t>(end - offset);
}

void FileReader::CopyTo(uint64_t offset, uint64_t length,
                        const std::function<void(std::span<const unsigned char>)>& take) {
  const uint64_t begin = std::min(offset, Size());
  const uint64_t end = begin + std::min(length, Size() - begin);
  std::vector<unsigned char> piece(static_cast<size_t>(std::min<uint64_t>(end - begin, kPiece)));
  if (Size() == 0) Read(0, {});
  for (uint64_t at = begin; at < end;) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(end - at, piece.size()));
    const size_t count = Read(at, std::span(piece).first(wanted));
    take(std::span(piece).first(count));
    at += count;
  }
}

}  // namespace capsule::host
