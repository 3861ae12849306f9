// Writing one file: its record group, then one data block record a chunk.
#include <algorithm>
#include <array>
#include <span>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_record.h"
#include "capsule/blocks/file_block.h"
#include "capsule/blocks/insert_observer.h"
#include "capsule/compression/stream_compressor.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/platform/opened_item.h"
#include "capsule/platform/out_of_memory.h"
#include "capsule/platform/scoped_descriptor.h"
#include "capsule/state/library_state.h"

namespace capsule {

namespace {

constexpr int kLastFastLevel = 3;
constexpr int kLastMediumLevel = 6;

void ConfigureCompressor(StreamCompressor& compressor, int level) {
  if (level >= 1 && level <= kLastFastLevel) {
    compressor.SetFastCompression();
  } else if (level > kLastFastLevel && level <= kLastMediumLevel) {
    compressor.SetMediumCompression();
  } else {
    compressor.SetMaximumCompression();
  }
}

// Writes data block records one behind the other, each with its header in one write.
class RecordWriter {
 public:
  RecordWriter(int fd, int64_t offset, int level) : m_hImage(fd), m_nOffset(offset) {
    m_bCompress = level != 0;
    if (m_bCompress) ConfigureCompressor(*CurrentLibraryState().compressor, level);
  }

  // Turns `padded`, the chunk with its padding, into the payload and all of `header` but Flag.
  bool Encode(std::span<const unsigned char> padded, _MiniHeader* header) {
    const auto length = static_cast<uint32_t>(padded.size());
    *header = {kRecordDataBlock, header->Flag, m_bCompress ? length : 0,
               static_cast<uint16_t>(length)};
    if (!m_bCompress) {
      std::copy(padded.begin(), padded.end(), Payload().begin());
      return true;
    }
    StreamCompressor& compressor = *CurrentLibraryState().compressor;
    compressor.CompressBuffer(padded.data(), length, Payload().data(), kCompressedChunkRoom);
    const uint32_t size = compressor.GetCompressedSize();
    const uint32_t stored = StoredUnitLength(size, length);
    if (size == 0 || stored > kCompressedChunkRoom) return false;
    if (stored > size) Payload()[size] = 0;
    header->Length = static_cast<uint16_t>(stored);
    return true;
  }

  // Writes `header` and the payload behind the record before.
  bool Write(const _MiniHeader& header) {
    const int64_t size = int64_t{kMiniHeaderSize} + header.Length;
    if (!FitsImage(m_nOffset, size)) return false;
    const auto bytes = EncodeMiniHeader(header);
    std::copy(bytes.begin(), bytes.end(), m_Record.begin());
    if (!platform::WriteAt(m_hImage, m_Record.data(), static_cast<size_t>(size), m_nOffset)) {
      return false;
    }
    m_nOffset += size;
    m_nWritten += size;
    return true;
  }

  // What comes next: the chunk at `position` of the file, behind `before`.
  InsertObserver::Chunk Next(uint32_t position, std::span<const unsigned char> before) const {
    return {m_nOffset, position, before, m_bCompress};
  }

  int64_t Written() const { return m_nWritten; }

 private:
  std::span<unsigned char> Payload() { return std::span(m_Record).subspan(kMiniHeaderSize); }

  std::array<unsigned char, kMiniHeaderSize + kCompressedChunkRoom> m_Record;
  int m_hImage;
  int64_t m_nOffset;
  int64_t m_nWritten = 0;
  bool m_bCompress = false;
};

using ReadChunk = std::function<bool(uint64_t offset, std::span<unsigned char> out)>;

bool StreamChunks(const ReadChunk& read, uint32_t size, RecordWriter& writer,
                  InsertObserver* observer) {
  std::array<unsigned char, kChunkSize> chunk;
  std::span<const unsigned char> before;
  for (uint32_t position = 0; position < size;) {
    if (observer != nullptr && !observer->OnChunk(writer.Next(position, before))) return false;
    before = chunk;
    const uint32_t length = std::min(size - position, kChunkSize);
    if (!read(position, std::span(chunk).first(length))) return false;
    const uint32_t padded = PaddedChunkLength(length);
    std::fill_n(chunk.begin() + length, padded - length, static_cast<unsigned char>(0));
    position += length;
    _MiniHeader header{};
    header.Flag = position == size ? 1 : 0;
    if (!writer.Encode({chunk.data(), padded}, &header) || !writer.Write(header)) return false;
  }
  return true;
}

}  // namespace

int CapsuleFileBlock::WriteDirEntry(DirectoryType type, const char* path, int fd, int offset,
                                    int* pTotal) {
  if (pTotal == nullptr) return -1;
  return platform::OrOutOfMemory(-1, [&] {
    SetFilePath(path);
    m_DirectoryType = type;
    int written = 0;
    if (m_DirectoryEntry.SetFileDirectory(type, path, fd, offset, &written) != 0) return -1;
    if (m_DirectoryEntry.Write(type, fd, offset + written, &written) != 0) return -1;
    return Advance(pTotal, written) ? 0 : -1;
  });
}

// However it fails, the next file is read from its beginning.
int CapsuleFileBlock::ReadAndChunk(const char* path) {
  const int result = platform::OrOutOfMemory(-1, [&] { return AppendChunks(path); });
  if (result != 0) CurrentLibraryState().chunkReadPosition = 0;
  return result;
}

int CapsuleFileBlock::AppendChunks(const char* path) {
  int result = kChunkSize;
  int fileSize = -1;
  while (result == static_cast<int>(kChunkSize)) {
    auto block = std::make_unique<CapsuleFileDataBlock>(m_DirectoryType, 0);
    result = block->ReadFileData(path);
    if (result == -1) return -1;
    if (fileSize != -1 && block->GetFileSize() != fileSize) return -1;
    fileSize = block->GetFileSize();
    m_DataBlocks.Append(block.get());
    static_cast<void>(block.release());
  }
  return 0;
}

int CapsuleFileBlock::WriteFile(int fd, int offset, int* pTotal, int level, char* /*history*/) {
  if (pTotal == nullptr) return -1;
  RecordWriter writer(fd, offset, level);
  for (int i = 0; i < m_DataBlocks.GetCount(); ++i) {
    auto* block = static_cast<CapsuleFileDataBlock*>(m_DataBlocks.GetAt(i));
    if (block == nullptr || block->GetChunkPtr() == nullptr) return -1;
    _MiniHeader header = block->GetMiniHeader();
    if (header.Param > kChunkSize) return -1;
    const void* chunk = block->GetChunkPtr();
    const std::span padded(static_cast<const unsigned char*>(chunk), header.Param);
    if (!writer.Encode(padded, &header) || !writer.Write(header)) return -1;
    block->GetMiniHeader() = header;
    block->DeleteChunkPtr();
  }
  return Advance(pTotal, writer.Written()) ? 0 : -1;
}

int CapsuleFileBlock::StreamFile(const char* path, int fd, int offset, int* pTotal, int level,
                                 InsertObserver* observer) {
  if (pTotal == nullptr) return -1;
  return platform::OrOutOfMemory(
      -1, [&] { return StreamRecords(path, fd, offset, pTotal, level, observer); });
}

int CapsuleFileBlock::StreamRecords(const char* path, int fd, int offset, int* pTotal, int level,
                                    InsertObserver* observer) {
  const platform::HostView& view = CurrentLibraryState().hostView;
  const uint32_t size = m_DirectoryEntry.EntryFor(m_DirectoryType).FileSize;
  RecordWriter writer(fd, offset, level);
  if (const auto* opened = path == nullptr ? nullptr : view.OpenedBytes(path)) {
    if (!StreamChunks(opened->read, size, writer, observer)) return -1;
    return Advance(pTotal, writer.Written()) ? 0 : -1;
  }
  const platform::ScopedDescriptor source = view.OpenFile(path);
  const auto before = platform::Stamp(source.Get());
  if (!before || before->length != int64_t{size}) return -1;
  const auto read = [&](uint64_t at, std::span<unsigned char> out) {
    const auto length = static_cast<int64_t>(out.size());
    return platform::ReadAt(source.Get(), out.data(), out.size(), static_cast<int64_t>(at)) ==
           length;
  };
  if (!StreamChunks(read, size, writer, observer)) return -1;
  // Written to meanwhile, the file may never have had the content that was read.
  if (platform::Stamp(source.Get()) != before) return -1;
  return Advance(pTotal, writer.Written()) ? 0 : -1;
}

}  // namespace capsule
