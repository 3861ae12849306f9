// Extraction. A compressed chunk refers back into the chunks before it, so chunks are decoded in
// order, and the history moves on with them:
//
//   1. The history is right for the data block `historyAt`, and for no other; kUnknown: for none.
//   2. A chunk that is needed and not held is decoded after all compressed ones from `historyAt`
//      on; when it lies before, the history first goes back to the last checkpoint before it.
//   3. Chunks outside of the range asked for are released; a released one is read again from the
//      image when it is needed again.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_record.h"
#include "capsule/blocks/file_block.h"
#include "capsule/blocks/file_extraction.h"
#include "capsule/compression/lzs.h"
#include "capsule/container/capsule_file.h"
#include "capsule/platform/out_of_memory.h"
#include "capsule/runtime/debug_tracer.h"

namespace capsule {
namespace {

// A checkpoint costs a history of four kilobytes; this many chunks are half a megabyte or more.
constexpr int kCheckpointDistance = 64;

char* Chars(unsigned char* bytes) { return static_cast<char*>(static_cast<void*>(bytes)); }

// Closed intervals, as in CapsuleFileDataBlock::IsWithinOffset.
bool Touches(const FileExtraction& extraction, size_t index, int64_t start, int64_t end) {
  const auto& places = extraction.places;
  if (index >= places.size()) return false;
  const int64_t chunkEnd = index + 1 < places.size() ? places[index + 1].start : extraction.end;
  return chunkEnd >= start && places[index].start <= end;
}

// The first data block whose chunk ends at `start` or later.
size_t FirstTouching(const FileExtraction& extraction, int64_t start) {
  const auto& places = extraction.places;
  if (places.empty()) return 0;
  const auto next = std::lower_bound(
      places.begin() + 1, places.end(), start,
      [](const FileExtraction::Place& place, int64_t value) { return place.start < value; });
  return static_cast<size_t>(next - places.begin()) - 1;
}

}  // namespace

int CapsuleFileBlock::DecompressFile(void* file, int start, int* pLen) {
  if (pLen == nullptr) return -1;
  if (file == nullptr || m_DirectoryEntry.IsDirectory() != 0) {
    *pLen = -1;
    ClearDecompressedFilePointer();
    return -1;
  }
  const int64_t size = m_DirectoryEntry.FileSize();
  if (start < 0 || start >= size) return -1;
  const auto length = static_cast<int>(std::clamp<int64_t>(*pLen, 0, size - start));
  try {
    auto* image = static_cast<CapsuleFile*>(file);
    PrepareDataBlocks(image->GetImageFileHandle());
    if (m_DataBlocks.GetCount() == 0 && !m_pExtraction && !m_bDataBlocksPending) {
      *pLen = 0;
      ClearDecompressedFilePointer();
      return 0;
    }
    if (FillExtractionBuffer(image, start, length) == 0) {
      *pLen = length;
      return 0;
    }
  } catch (const std::bad_alloc&) {
    ClearDecompressedFilePointer();
    return -1;
  }
  *pLen = -1;
  ClearDecompressedFilePointer();
  return 0;
}

// The buffer is made only when there are data blocks that reach the range's end.
int CapsuleFileBlock::FillExtractionBuffer(CapsuleFile* file, int64_t start, int len) {
  if (m_bNtfsDataPending) LocateNtfsData(file, m_nNTFSDataBlockStart);
  if (!HoldsResidentData()) {
    SyncPlaces();
    if (Extraction().end < start + len) return -1;
  }
  if (m_nDecompressedSize < len) {
    ClearDecompressedFilePointer();
    m_pDecompressedFile.reset(new unsigned char[static_cast<size_t>(len)]);
    m_nDecompressedSize = len;
  }
  return DecompressRange(file, static_cast<int>(start), len);
}

int CapsuleFileBlock::DecompressFileBlocks(CapsuleFile* file, int start, int len) {
  return platform::OrOutOfMemory(-1, [&] { return DecompressRange(file, start, len); });
}

int CapsuleFileBlock::DecompressRange(CapsuleFile* file, int start, int len) {
  if (start == 0) ResetHistoryBuffer();
  if (file == nullptr) return -1;
  if (start < 0 || len < 0 || len > std::numeric_limits<int>::max() - start) return -1;
  if (len > m_nDecompressedSize) return -1;
  const int end = start + len;
  if (m_bNtfsDataPending) LocateNtfsData(file, m_nNTFSDataBlockStart);
  if (HoldsResidentData()) return CopyResidentData(start, len);
  SyncPlaces();
  const int count = m_DataBlocks.GetCount();
  ReleaseOutside(start, end);
  char* out = Chars(m_pDecompressedFile.get());
  auto i = static_cast<int>(FirstTouching(Extraction(), start));
  int position =
      i < count ? static_cast<int>(Extraction().places[static_cast<size_t>(i)].start) : 0;
  for (; i < count && position < end; ++i) {
    if (!EnsureRecord(file, i)) return -1;
    CapsuleFileDataBlock* block = DataBlockAt(i);
    int next = 0;
    if (block->IsWithinOffset(file, position, start, end, &next) != 0) {
      MainTracer().Trace("Total Data Blocks: %d \n", count);
      MainTracer().Trace("File Block: %d : Offset: %d \n", i, block->GetDataOffset());
      if (block->IsDecompressed() == 0 && DecodeDataBlock(file, i) != 0) return -1;
      block->WriteDecompressedBuffer(&out, position, start, end);
    }
    position = next;
  }
  return position >= end ? 0 : -1;
}

bool CapsuleFileBlock::HoldsResidentData() const {
  const CapsuleFileDataBlock* first = DataBlockAt(0);
  return first != nullptr && first->IsResident();
}

int CapsuleFileBlock::CopyResidentData(int start, int len) {
  const std::span<const unsigned char> value = DataBlockAt(0)->Uncompressed();
  if (static_cast<size_t>(start) + static_cast<size_t>(len) > value.size()) return -1;
  std::copy_n(value.begin() + start, len, m_pDecompressedFile.get());
  return 0;
}

// Makes sure that the header of a data block is known and, unless its chunk is held, the payload
// that decoding takes; false when the image does not hold them.
bool CapsuleFileBlock::EnsureRecord(CapsuleFile* file, int index) {
  CapsuleFileDataBlock* block = DataBlockAt(index);
  if (block == nullptr || block->IsValid() == 0) return false;
  if (block->HasPayload() || block->IsDecompressed() != 0) return true;
  if (m_DirectoryType == CapsuleDirectoryEntry::DirTypeNtfs) return block->GetDataOffset() != 0;
  if (block->GetDataOffset() != 0 &&
      !IsCompressedPayload(block->GetMiniHeader(), file->IsCompressed() != 0)) {
    return true;
  }
  int position = Extraction().places[static_cast<size_t>(index)].record;
  return block->ReadOrThrow(file->GetImageFileHandle(), position, &position) == 0 &&
         block->IsValid() != 0;
}

int CapsuleFileBlock::DecodeDataBlock(CapsuleFile* file, int index) {
  CapsuleFileDataBlock* block = DataBlockAt(index);
  const bool needsHistory = IsCompressedPayload(block->GetMiniHeader(), file->IsCompressed() != 0);
  if (!needsHistory && block->DecompressOrThrow(file, nullptr) != 0) return -1;
  if (needsHistory && DecodeUpTo(file, index) != 0) {
    Extraction().historyAt = FileExtraction::kUnknown;
    return -1;
  }
  if (block->IsDecompressed() == 0) return -1;
  try {
    Extraction().decompressed.push_back(index);
  } catch (const std::bad_alloc&) {
    block->ClearOutBuffers();
    throw;
  }
  return 0;
}

// Decodes what lies between the history and data block `index`, and that block.
int CapsuleFileBlock::DecodeUpTo(CapsuleFile* file, int index) {
  FileExtraction& extraction = Extraction();
  if (!RewindHistory(index)) return -1;
  while (extraction.historyAt <= index) {
    const int at = extraction.historyAt;
    if (!EnsureRecord(file, at)) return -1;
    CapsuleFileDataBlock* block = DataBlockAt(at);
    const bool held = block->IsDecompressed() != 0;
    if (IsCompressedPayload(block->GetMiniHeader(), file->IsCompressed() != 0)) {
      if (block->DecompressOrThrow(file, Chars(m_pHistoryCopy.get())) != 0) return -1;
      if (block->IsDecompressed() == 0) return -1;
    }
    if (at != index && !held) block->ClearOutBuffers();
    ++extraction.historyAt;
    KeepCheckpoint();
  }
  return 0;
}

// One that finds no memory is left out: it would only have saved time.
void CapsuleFileBlock::KeepCheckpoint() {
  FileExtraction& extraction = Extraction();
  const int at = extraction.historyAt;
  if (at % kCheckpointDistance != 0) return;
  if (!extraction.checkpoints.empty() && extraction.checkpoints.back().block >= at) return;
  const unsigned char* history = m_pHistoryCopy.get();
  try {
    extraction.checkpoints.push_back(
        {at, {history, std::next(history, LzsSizeOfDecompressionHistory())}});
  } catch (const std::bad_alloc&) {
    return;
  }
}

// Makes the history one that is right for data block `index` or one before it.
bool CapsuleFileBlock::RewindHistory(int index) {
  if (!m_pInitialHistory) return false;
  FileExtraction& extraction = Extraction();
  const size_t size = std::max<size_t>(m_pInitialHistory->size(), LzsSizeOfDecompressionHistory());
  if (!m_pHistoryCopy) {
    m_pHistoryCopy = std::make_unique<unsigned char[]>(size);
    extraction.historyAt = FileExtraction::kUnknown;
  }
  const auto& checkpoints = extraction.checkpoints;
  const auto after = std::upper_bound(
      checkpoints.begin(), checkpoints.end(), index,
      [](int value, const FileExtraction::Checkpoint& kept) { return value < kept.block; });
  const bool atStart = after == checkpoints.begin();
  const int nearest = atStart ? 0 : (after - 1)->block;
  if (extraction.historyAt >= nearest && extraction.historyAt <= index) return true;
  const auto& history = atStart ? *m_pInitialHistory : (after - 1)->history;
  std::memcpy(m_pHistoryCopy.get(), history.data(), history.size());
  extraction.historyAt = nearest;
  return true;
}

void CapsuleFileBlock::ReleaseOutside(int64_t start, int64_t end) {
  FileExtraction& extraction = Extraction();
  std::erase_if(extraction.decompressed, [&](int index) {
    if (Touches(extraction, static_cast<size_t>(index), start, end)) return false;
    if (CapsuleFileDataBlock* block = DataBlockAt(index)) block->ClearOutBuffers();
    return true;
  });
}

int CapsuleFileBlock::ResetHistoryBuffer() {
  if (m_pSharedHistory == nullptr || !m_pInitialHistory) return -1;
  const unsigned char* history = m_pHistoryCopy ? m_pHistoryCopy.get() : m_pInitialHistory->data();
  std::memcpy(m_pSharedHistory, history, static_cast<size_t>(m_nHistorySize));
  return 0;
}

void* CapsuleFileBlock::GetPtrToDecompressedFile() { return m_pDecompressedFile.get(); }

void CapsuleFileBlock::ClearDecompressedFilePointer() {
  m_pDecompressedFile.reset();
  m_nDecompressedSize = 0;
}

}  // namespace capsule
