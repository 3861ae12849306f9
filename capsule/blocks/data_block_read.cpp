// A record becomes a chunk in two steps: Read takes header and payload, Decompress decodes the
// payload with the history that the chunk before it left.
//
// A unit that leaves a side of the decoder unfinished (it yields more than its header states, or
// less and has no end) would make the decoder go on, at the next unit, from memory of this one.
// Such a unit counts as decoded, but its history is made unusable: no unit after it decodes.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <utility>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_block_format.h"
#include "capsule/compression/lzs.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/reader_lock.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/message_sink.h"
#include "capsule/runtime/debug_tracer.h"

namespace capsule {
namespace {

constexpr const char* kNoMemory = "COULD NOT ALLOCATE ENOUGH MEMORY FOR DECOMPRESSION!!!";
constexpr const char* kException = "EXCEPTION OCCURRED!!!!!  EXITING DECOMPRESSION THREAD";

using Bytes = std::unique_ptr<unsigned char[]>;

// `count` zero bytes; null, with a message, when there is no memory.
Bytes AllocateChunk(uint32_t count) {
  Bytes bytes(new (std::nothrow) unsigned char[std::max<uint32_t>(count, 1)]());
  if (!bytes) platform::ShowMessage(kNoMemory);
  return bytes;
}

// Whether the decoder holds no pointer into the buffers of the call that gave `result`.
bool BothSidesFinished(uint16_t result) {
  return (result & LzsUnitComplete) != 0 ||
         result == static_cast<uint16_t>(LzsInputUsedUp | LzsOutputFull);
}

// Decodes one unit; false when it is corrupt.
bool DecodeUnit(const unsigned char* unit, uint32_t unitSize, unsigned char* chunk,
                uint32_t chunkSize, char* history) {
  const uint16_t result =
      LzsDecompress(&unit, &chunk, &unitSize, &chunkSize, history, LzsKeepHistory);
  if (!BothSidesFinished(result)) std::memset(history, 0, LzsSizeOfDecompressionHistory());
  return result != 0;
}

int ClampToInt(int64_t value) {
  return static_cast<int>(
      std::clamp<int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

}  // namespace

int CapsuleFileDataBlock::Read(int fd, int offset, int* pOffset) {
  if (pOffset == nullptr) return -1;
  if (m_DirectoryType == CapsuleDirectoryEntry::DirTypeNtfs) {
    return ReadNtfsRecord(fd, offset, pOffset);
  }
  CpsReaderLock reader;
  unsigned char bytes[kMiniHeaderSize];
  if (reader.ReadAt(fd, bytes, sizeof bytes, offset) != static_cast<int>(sizeof bytes)) return -1;
  m_MiniHeader = DecodeMiniHeader(bytes);
  m_bValid = m_MiniHeader.Type == kRecordDataBlock ? 1 : 0;
  if (m_bValid == 0) return 0;

  int position = *pOffset;
  if (!Advance(&position, kMiniHeaderSize)) return -1;
  m_nDataOffset = position;
  if (!Advance(&position, m_MiniHeader.Length)) return -1;
  *pOffset = position;
  return ReadPayload(fd, int64_t{offset} + kMiniHeaderSize);
}

int CapsuleFileDataBlock::ReadPayload(int fd, int64_t offset) {
  const bool taken = TakePayload(fd, offset);
  MainTracer().Trace("Read of Compressed Buffer: len: %d : offset: %d \n",
                     static_cast<int>(m_MiniHeader.Length), ClampToInt(offset));
  return taken ? 0 : -1;
}

bool CapsuleFileDataBlock::TakePayload(int fd, int64_t offset) {
  const uint32_t length = m_MiniHeader.Length;
  m_nCompressedSize = 0;
  m_pCompressed.reset(new (std::nothrow) unsigned char[std::max<uint32_t>(length, 1)]);
  if (!m_pCompressed) return false;
  CpsReaderLock reader;
  if (reader.ReadAt(fd, m_pCompressed.get(), length, offset) != static_cast<int>(length)) {
    m_pCompressed.reset();
    return false;
  }
  m_nCompressedSize = length;
  return true;
}

int CapsuleFileDataBlock::Decompress(CapsuleFile* file, char* history) {
  if (file == nullptr) return -1;
  try {
    const bool imageIsCompressed = file->IsCompressed() != 0;
    return IsCompressedPayload(m_MiniHeader, imageIsCompressed) ? DecompressUnit(file, history)
                                                                : ReadStored(file);
  } catch (const std::exception&) {
    platform::ShowMessage(kException);
    return -1;
  }
}

int CapsuleFileDataBlock::DecompressUnit(CapsuleFile* file, char* history) {
  const uint32_t size = m_MiniHeader.Param;
  m_bDecompressed = 0;
  if (size > kMaxUncompressedLength) return 0;
  m_nUncompressedSize = 0;
  m_pUncompressed = AllocateChunk(size);
  if (!m_pUncompressed) return -1;
  if (m_DirectoryType == CapsuleDirectoryEntry::DirTypeNtfs &&
      !TakePayload(file->GetImageFileHandle(), m_nDataOffset)) {
    return -1;
  }
  MainTracer().Trace("Uncompressed buffer read - len: %d : offset: %d \n",
                     static_cast<int>(m_MiniHeader.Length), m_nDataOffset);
  if (!m_pCompressed || history == nullptr) return -1;
  if (!DecodeUnit(m_pCompressed.get(), m_nCompressedSize, m_pUncompressed.get(), size, history)) {
    return -1;
  }
  m_nUncompressedSize = size;
  m_bDecompressed = 1;
  return 0;
}

int CapsuleFileDataBlock::ReadStored(CapsuleFile* file) {
  const uint32_t size = m_MiniHeader.Length;
  m_MiniHeader.Param = size;
  m_bDecompressed = 0;
  m_nUncompressedSize = 0;
  m_pUncompressed = AllocateChunk(size);
  if (!m_pUncompressed) return -1;
  CpsReaderLock reader;
  const int got =
      reader.ReadAt(file->GetImageFileHandle(), m_pUncompressed.get(), size, m_nDataOffset);
  MainTracer().Trace("Uncompressed buffer read - len: %d : offset: %d \n", static_cast<int>(size),
                     m_nDataOffset);
  if (got != static_cast<int>(size)) return -1;
  m_nUncompressedSize = size;
  m_bDecompressed = 1;
  return 0;
}

int CapsuleFileDataBlock::IsWithinOffset(CapsuleFile* file, int blockStart, int rangeStart,
                                         int rangeEnd, int* pBlockEnd) {
  if (file == nullptr || pBlockEnd == nullptr) return 0;
  if (!IsCompressedPayload(m_MiniHeader, file->IsCompressed() != 0)) {
    m_MiniHeader.Param = m_MiniHeader.Length;
  }
  const int blockEnd = ClampToInt(int64_t{blockStart} + m_MiniHeader.Param);
  *pBlockEnd = blockEnd;
  const auto within = [](int value, int from, int to) { return value >= from && value <= to; };
  return within(rangeStart, blockStart, blockEnd) || within(rangeEnd, blockStart, blockEnd) ||
                 within(blockStart, rangeStart, rangeEnd)
             ? 1
             : 0;
}

int CapsuleFileDataBlock::WriteDecompressedBuffer(char** pOut, int blockStart, int rangeStart,
                                                  int rangeEnd) {
  const uint32_t stated = m_MiniHeader.Param;  // unaligned in its record
  const int64_t size = std::min(stated, m_nUncompressedSize);
  const int64_t skip = std::clamp<int64_t>(int64_t{rangeStart} - blockStart, 0, size);
  const int64_t end = std::clamp<int64_t>(int64_t{rangeEnd} - blockStart, skip, size);
  const auto count = static_cast<size_t>(end - skip);
  const unsigned char* from = m_pUncompressed.get() + (m_pUncompressed ? skip : 0);
  if (pOut == nullptr || (*pOut == nullptr && count > 0)) return -1;
  if (count > 0) std::memcpy(*pOut, from, count);
  *pOut += count;
  MainTracer().Trace("Writing output buffer: start: %d : len: %d \n",
                     static_cast<int>(std::bit_cast<uintptr_t>(from)), static_cast<int>(count));
  return 0;
}

void CapsuleFileDataBlock::ClearOutBuffers() {
  m_pCompressed.reset();
  m_nCompressedSize = 0;
  m_pUncompressed.reset();
  m_nUncompressedSize = 0;
  m_bDecompressed = 0;
}

void CapsuleFileDataBlock::AssignUncompressedBuffer(const unsigned char* data, int len) {
  const auto size = data == nullptr ? 0 : static_cast<size_t>(std::max(len, 0));
  Bytes copy(new unsigned char[std::max<size_t>(size, 1)]);
  if (size > 0) std::memcpy(copy.get(), data, size);
  m_pUncompressed = std::move(copy);
  m_nUncompressedSize = static_cast<uint32_t>(size);
  m_bDecompressed = 1;
}

char* CapsuleFileDataBlock::GetPtrToUncompressedDataBuffer() {
  return static_cast<char*>(static_cast<void*>(m_pUncompressed.get()));
}

}  // namespace capsule
