// Writing one file: its record group, then one data block record a chunk.
#include <algorithm>
#include <array>
#include <span>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_record.h"
#include "capsule/blocks/file_block.h"
#include "capsule/blocks/record_encoder.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/platform/out_of_memory.h"
#include "capsule/platform/scoped_descriptor.h"
#include "capsule/state/library_state.h"

namespace capsule {

namespace {

// Writes data block records one behind the other, each with its header in one write.
class RecordWriter {
 public:
  RecordWriter(int fd, int64_t offset, int level)
      : m_Encoder(*CurrentLibraryState().compressor, level), m_hImage(fd), m_nOffset(offset) {}

  // Writes the record of `padded`, a chunk with its padding. `header` brings the flag, and gets the
  // rest.
  bool Write(std::span<const unsigned char> padded, _MiniHeader* header) {
    const auto record = m_Encoder.Encode(padded, header);
    const auto size = static_cast<int64_t>(record.size());
    if (size == 0 || !FitsImage(m_nOffset, size)) return false;
    if (!platform::WriteAt(m_hImage, record.data(), record.size(), m_nOffset)) return false;
    m_nOffset += size;
    m_nWritten += size;
    return true;
  }

  int64_t Written() const { return m_nWritten; }

 private:
  RecordEncoder m_Encoder;
  int m_hImage;
  int64_t m_nOffset;
  int64_t m_nWritten = 0;
};

bool StreamChunks(int source, uint32_t size, RecordWriter& writer) {
  std::array<unsigned char, kChunkSize> chunk;
  for (uint32_t position = 0; position < size;) {
    const uint32_t length = std::min(size - position, kChunkSize);
    if (platform::ReadAt(source, chunk.data(), length, position) != int64_t{length}) return false;
    const uint32_t padded = PaddedChunkLength(length);
    std::fill_n(chunk.begin() + length, padded - length, static_cast<unsigned char>(0));
    position += length;
    _MiniHeader header{};
    header.Flag = position == size ? 1 : 0;
    if (!writer.Write({chunk.data(), padded}, &header)) return false;
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
    if (!writer.Write(padded, &header)) return -1;
    block->GetMiniHeader() = header;
    block->DeleteChunkPtr();
  }
  return Advance(pTotal, writer.Written()) ? 0 : -1;
}

int CapsuleFileBlock::StreamFile(const char* path, int fd, int offset, int* pTotal, int level) {
  if (pTotal == nullptr) return -1;
  return platform::OrOutOfMemory(-1,
                                 [&] { return StreamRecords(path, fd, offset, pTotal, level); });
}

int CapsuleFileBlock::StreamRecords(const char* path, int fd, int offset, int* pTotal, int level) {
  const platform::HostView& view = CurrentLibraryState().hostView;
  const uint32_t size = m_DirectoryEntry.EntryFor(m_DirectoryType).FileSize;
  RecordWriter writer(fd, offset, level);
  const platform::ScopedDescriptor source = view.OpenFile(path);
  const auto before = platform::Stamp(source.Get());
  if (!before || before->length != int64_t{size}) return -1;
  if (!StreamChunks(source.Get(), size, writer)) return -1;
  // Written to meanwhile, the file may never have had the content that was read.
  if (platform::Stamp(source.Get()) != before) return -1;
  return Advance(pTotal, writer.Written()) ? 0 : -1;
}

}  // namespace capsule
