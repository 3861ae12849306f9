// ItemEncoder turns an item into the bytes that stand for it in a section: its record groups, and
// for a file its data records. Nothing in them depends on where they will lie or on what lies
// before them, so many encoders work side by side. Each is used by one thread at a time.
//
// A file longer than kSpan is encoded in spans of that length. What the compressor knows at the
// beginning of a span it learns from the few chunks before; whether that is what it would know if
// it had come all the way is seen where the spans are put together.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "capsule/compression/compressor_state.h"
#include "capsule/host/build/source_walk.h"
#include "capsule/host/index/restart_point.h"
#include "capsule/state/library_state.h"

namespace capsule::host {

// Long files have a restart point at the beginning of each span but the first.
inline constexpr uint32_t kSpan = kRestartDistance;

struct EncodedItem {
  std::vector<unsigned char> bytes;
  std::array<uint32_t, 3> groups{};  // lengths of the record groups: a folder has three
  uint64_t check = 0;                // of a file: XXH3 of the bytes
  std::string problem;               // why there are none
};

// A file that is encoded in spans; shared by those who do it.
struct LongFile {
  SourceItem item;
  int partition = 0;
  std::once_flag isLevelKnown;
  int level = 0;
  // Where a span begins that cannot be encoded. Those before it are needed all the same: what is
  // laid down first decides what is said of the file.
  std::atomic<uint64_t> failedAt = UINT64_MAX;
};

struct EncodedSpan {
  std::vector<unsigned char> bytes;      // of the first span, from the record group on
  std::vector<unsigned char> history;    // what its first record may refer back to
  uint32_t firstRecord = 0;              // length of that, with its header
  uint64_t groupBytes = 0;               // of the record group
  std::optional<CompressorState> begin;  // of a compressed file
  std::optional<CompressorState> end;
  std::string problem;
};

class ItemEncoder {
 public:
  // `level`: 0 to 9. `latest`: no time is stored that is later, in seconds after 1970.
  ItemEncoder(int level, int64_t latest);

  // Encodes a folder, or a file of up to kSpan bytes.
  EncodedItem Encode(const SourceItem& item, int partition);

  // Encodes the span of a file that begins at `begin`, a multiple of kSpan.
  EncodedSpan EncodeSpan(LongFile& file, uint64_t begin);

  // The same once more, with what the compressor knows in truth.
  EncodedSpan EncodeSpan(LongFile& file, uint64_t begin, const CompressorState& state);

 private:
  void AppendGroups(const SourceItem& item, int partition, EncodedItem* out);
  void AppendContent(const SourceItem& item, EncodedItem* out);
  bool AppendRecords(std::span<const unsigned char> content, int level,
                     std::vector<unsigned char>* out);
  void ChooseLevel(LongFile& file);
  int LevelOf(const SourceItem& item) const;
  std::string ReadSpan(const LongFile& file, uint64_t begin, uint64_t warm);
  EncodedSpan EncodeRead(LongFile& file, uint64_t begin, const CompressorState* state);

  int m_level;
  LibraryState m_state;
  std::vector<unsigned char> m_content;
};

// What records of a file of `size` bytes take when they are stored.
uint64_t StoredSize(uint64_t size);

// What an item is called while it is inserted: "0:\folder\file".
std::string ItemPath(int partition, const std::string& relative);

}  // namespace capsule::host
