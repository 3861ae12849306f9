// The position in the file is part of the shared state, not of a block: each block opens the file,
// takes one chunk and leaves the position to the next block. The position is set back before
// anything can fail, so a failure never shifts the file that follows.
#include <algorithm>
#include <limits>
#include <span>
#include <utility>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_record.h"
#include "capsule/compression/stream_compressor.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"
#include "capsule/platform/out_of_memory.h"
#include "capsule/platform/scoped_descriptor.h"
#include "capsule/state/library_state.h"

namespace capsule {

int CapsuleFileDataBlock::ReadFileData(const char* path) {
  return platform::OrOutOfMemory(-1, [&] { return TakeFileData(path); });
}

int CapsuleFileDataBlock::TakeFileData(const char* path) {
  m_pChunk = nullptr;
  LibraryState& state = CurrentLibraryState();
  // Whatever fails below, the next file starts at its beginning.
  const int64_t position = std::exchange(state.chunkReadPosition, 0);

  const platform::ScopedDescriptor file = state.hostView.OpenFile(path);
  const int64_t length = file ? platform::FileLength(file.Get()) : -1;
  if (length < 0 || length > kMaxImageSize) return -1;
  m_nFileSize = static_cast<int32_t>(length);
  if (position >= length) return -1;

  const int64_t wanted = std::min<int64_t>(length - position, kChunkSize);
  auto chunk = std::make_unique<unsigned char[]>(kChunkSize);
  if (platform::ReadAt(file.Get(), chunk.get(), static_cast<size_t>(wanted), position) != wanted) {
    return -1;
  }
  m_pChunk = std::move(chunk);
  m_MiniHeader = {kRecordDataBlock, 0, PaddedChunkLength(static_cast<uint32_t>(wanted)), 0};
  if (position + wanted == length) {
    m_MiniHeader.Flag = 1;
    return 0;
  }
  state.chunkReadPosition = static_cast<int32_t>(position + wanted);
  return static_cast<int>(wanted);
}

int CapsuleFileDataBlock::Compress(char* src, int len, char* dst, int* pOutLen, char* /*history*/,
                                   unsigned short /*effort*/) {
  m_pUncompressed = nullptr;
  m_nUncompressedSize = 0;
  m_bDecompressed = 0;
  if (src == nullptr || len < 0 || dst == nullptr || pOutLen == nullptr) return -1;
  StreamCompressor& compressor = *CurrentLibraryState().compressor;
  compressor.CompressBuffer(static_cast<const unsigned char*>(static_cast<const void*>(src)),
                            static_cast<uint32_t>(len), nullptr, 0);
  const uint32_t size = compressor.GetCompressedSize();
  const uint32_t stored = StoredUnitLength(size, static_cast<uint32_t>(len));
  if (size == 0 || stored > std::numeric_limits<uint16_t>::max()) return -1;
  const std::span<const unsigned char> unit(compressor.GetResult(), size);
  const std::span<char> room(dst, stored);
  std::copy(unit.begin(), unit.end(), room.begin());
  if (room.size() > unit.size()) room.back() = 0;
  *pOutLen = static_cast<int>(room.size());
  return 0;
}

char* CapsuleFileDataBlock::GetChunkPtr() {
  return static_cast<char*>(static_cast<void*>(m_pChunk.get()));
}

char* CapsuleFileDataBlock::DeleteChunkPtr() {
  m_pChunk = nullptr;
  return nullptr;
}

int CapsuleFileDataBlock::GetFileSize() { return m_nFileSize; }

}  // namespace capsule
