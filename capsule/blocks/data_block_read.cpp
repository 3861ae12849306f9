// A record becomes a chunk in two steps: Read takes header and payload, Decompress decodes the
// payload with the history that the chunk before it left.
//
// A unit without its end within its payload and its chunk would make the decoder go on with it at
// the next unit, from memory of this one or with the rest of a match. Such a unit counts as
// decoded, but its history is made unusable: no unit after it decodes.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <new>
#include <utility>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_record.h"
#include "capsule/compression/lzs.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/reader_lock.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/out_of_memory.h"
#include "capsule/platform/show_message.h"
#include "capsule/runtime/debug_tracer.h"

namespace capsule {
namespace {

constexpr const char* kNoMemory = "COULD NOT ALLOCATE ENOUGH MEMORY FOR DECOMPRESSION!!!";
constexpr const char* kException = "EXCEPTION OCCURRED!!!!!  EXITING DECOMPRESSION THREAD";

using Bytes = std::unique_ptr<unsigned char[]>;

// A message that finds no memory itself is not shown.
void Show(const char* message) {
  try {
    platform::ShowMessage(message);
  } catch (const std::bad_alloc&) {
    return;
  }
}

// `count` zero bytes; std::bad_alloc, with a message, when there is no memory.
Bytes AllocateChunk(uint32_t count) {
  Bytes bytes(new (std::nothrow) unsigned char[std::max<uint32_t>(count, 1)]());
  if (bytes) return bytes;
  Show(kNoMemory);
  throw std::bad_alloc();
}

// Decodes one unit; false when it is corrupt.
bool DecodeUnit(const unsigned char* unit, uint32_t unitSize, unsigned char* chunk,
                uint32_t chunkSize, char* history) {
  const uint16_t result =
      LzsDecompress(&unit, &chunk, &unitSize, &chunkSize, history, LzsKeepHistory);
  if ((result & LzsUnitComplete) == 0) std::memset(history, 0, LzsSizeOfDecompressionHistory());
  return result != 0;
}

int ClampToInt(int64_t value) {
  return static_cast<int>(
      std::clamp<int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

}  // namespace

int CapsuleFileDataBlock::Read(int fd, int offset, int* pOffset) {
  return platform::OrOutOfMemory(-1, [&] { return ReadOrThrow(fd, offset, pOffset); });
}

int CapsuleFileDataBlock::ReadOrThrow(int fd, int offset, int* pOffset) {
  if (pOffset == nullptr) return -1;
  if (m_DirectoryType == CapsuleDirectoryEntry::DirTypeNtfs) {
    return ReadNtfsRecord(fd, offset, pOffset);
  }
  CpsReaderLock reader;
  unsigned char bytes[kMiniHeaderSize];
  if (reader.ReadAt(fd, bytes, sizeof bytes, offset) != static_cast<int>(sizeof bytes)) return -1;
  ClearOutBuffers();
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
  m_pCompressed.reset();
  Bytes payload(new unsigned char[std::max<uint32_t>(length, 1)]);
  CpsReaderLock reader;
  if (reader.ReadAt(fd, payload.get(), length, offset) != static_cast<int>(length)) return false;
  m_pCompressed = std::move(payload);
  m_nCompressedSize = length;
  return true;
}

int CapsuleFileDataBlock::Decompress(CapsuleFile* file, char* history) {
  return platform::OrOutOfMemory(-1, [&] { return DecompressOrThrow(file, history); });
}

int CapsuleFileDataBlock::DecompressOrThrow(CapsuleFile* file, char* history) {
  if (file == nullptr) return -1;
  ReleaseChunk();
  try {
    const bool imageIsCompressed = file->IsCompressed() != 0;
    return IsCompressedPayload(m_MiniHeader, imageIsCompressed) ? DecompressUnit(file, history)
                                                                : ReadStored(file);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    Show(kException);
    return -1;
  }
}

int CapsuleFileDataBlock::DecompressUnit(CapsuleFile* file, char* history) {
  const uint32_t size = m_MiniHeader.Param;
  if (size > kMaxUncompressedLength) return 0;
  Bytes chunk = AllocateChunk(size);
  if (m_DirectoryType == CapsuleDirectoryEntry::DirTypeNtfs &&
      !TakePayload(file->GetImageFileHandle(), m_nDataOffset)) {
    return -1;
  }
  MainTracer().Trace("Uncompressed buffer read - len: %d : offset: %d \n",
                     static_cast<int>(m_MiniHeader.Length), m_nDataOffset);
  if (!m_pCompressed || history == nullptr) return -1;
  if (!DecodeUnit(m_pCompressed.get(), m_nCompressedSize, chunk.get(), size, history)) return -1;
  TakeChunk(std::move(chunk), size);
  return 0;
}

int CapsuleFileDataBlock::ReadStored(CapsuleFile* file) {
  const uint32_t size = m_MiniHeader.Length;
  m_MiniHeader.Param = size;
  Bytes chunk = AllocateChunk(size);
  CpsReaderLock reader;
  const int got = reader.ReadAt(file->GetImageFileHandle(), chunk.get(), size, m_nDataOffset);
  MainTracer().Trace("Uncompressed buffer read - len: %d : offset: %d \n", static_cast<int>(size),
                     m_nDataOffset);
  if (got != static_cast<int>(size)) return -1;
  TakeChunk(std::move(chunk), size);
  return 0;
}

void CapsuleFileDataBlock::TakeChunk(Bytes bytes, uint32_t size) {
  m_pUncompressed = std::move(bytes);
  m_nUncompressedSize = size;
  m_bDecompressed = 1;
}

void CapsuleFileDataBlock::ReleaseChunk() {
  m_pUncompressed.reset();
  m_nUncompressedSize = 0;
  m_bDecompressed = 0;
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
  const unsigned char* from = std::next(m_pUncompressed.get(), m_pUncompressed ? skip : 0);
  if (pOut == nullptr || (*pOut == nullptr && count > 0)) return -1;
  if (count > 0) std::memcpy(*pOut, from, count);
  std::advance(*pOut, count);
  MainTracer().Trace("Writing output buffer: start: %d : len: %d \n",
                     static_cast<int>(std::bit_cast<uintptr_t>(from)), static_cast<int>(count));
  return 0;
}

void CapsuleFileDataBlock::ClearOutBuffers() {
  m_pCompressed.reset();
  m_nCompressedSize = 0;
  ReleaseChunk();
}

void CapsuleFileDataBlock::AssignUncompressedBuffer(const unsigned char* data, int len) {
  const auto size = data == nullptr ? 0 : static_cast<size_t>(std::max(len, 0));
  Bytes copy(new unsigned char[std::max<size_t>(size, 1)]);
  if (size > 0) std::memcpy(copy.get(), data, size);
  TakeChunk(std::move(copy), static_cast<uint32_t>(size));
}

char* CapsuleFileDataBlock::GetPtrToUncompressedDataBuffer() {
  return static_cast<char*>(static_cast<void*>(m_pUncompressed.get()));
}

}  // namespace capsule
