// Images laid out by hand with contents that are known, opened; what is asked is about one file.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "capsule/blocks/data_block.h"
#include "capsule/compression/lzs.h"
#include "capsule/compression/stream_compressor.h"
#include "tests/support/bytes.h"
#include "tests/support/image_maker.h"
#include "tests/support/ntfs_record.h"
#include "tests/support/ntfs_section.h"
#include "tests/support/open_image.h"
#include "tests/support/temp_dir.h"

namespace capsule::test {

inline std::string RandomText(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string text(size, '\0');
  for (char& c : text) c = static_cast<char>('a' + random() % 26);
  return text;
}

struct Unit {
  uint32_t length;  // of the chunk
  std::string bytes;
};

// The chunks of `content` as LZS units with one history, the last one padded to 512 bytes.
inline std::vector<Unit> Units(std::string content) {
  content.resize((content.size() + 511) / 512 * 512);
  StreamCompressor compressor(16384, LzsKeepHistory, 0);
  compressor.ResetCompressionHistory();
  std::vector<Unit> units;
  for (size_t at = 0; at < content.size(); at += 8192) {
    const std::string chunk = content.substr(at, 8192);
    const auto length = static_cast<uint32_t>(chunk.size());
    compressor.CompressBuffer(Unsigned(chunk), length, nullptr, 0);
    const std::span unit(compressor.GetResult(), compressor.GetCompressedSize());
    units.push_back({length, std::string(unit.begin(), unit.end())});
  }
  return units;
}

inline void AddCompressed(ImageMaker& maker, const std::string& content) {
  const std::vector<Unit> units = Units(content);
  for (size_t i = 0; i < units.size(); ++i) {
    maker.Data(i + 1 == units.size() ? 1 : 0, units[i].length, units[i].bytes);
  }
}

// An image whose entries `add` lays out; what is asked is about its first file.
class MadeImage {
 public:
  explicit MadeImage(const std::string& bytes) {
    WriteFile(m_dir / "image", bytes);
    m_image = std::make_unique<OpenImage>(m_dir / "image");
    EXPECT_EQ(m_image->Read(), 0);
  }
  MadeImage(bool compressed, const std::function<void(ImageMaker&)>& add)
      : MadeImage(Section(compressed, add)) {}
  MadeImage(bool compressed, uint32_t size, const std::function<void(ImageMaker&)>& addData)
      : MadeImage(compressed, [&](auto& m) {
          m.File("F       BIN", size);
          addData(m);
        }) {}
  // Of one file in compressed records, whose entry says that it has `size` bytes.
  MadeImage(uint32_t size, const std::string& content)
      : MadeImage(true, size, [&](auto& m) { AddCompressed(m, content); }) {}

  CapsuleFile& File() { return m_image->File(); }
  CapsuleFileBlock& Block(int i = 0) { return *BlockAt(m_image->Partition(0)->GetFileBlocks(), i); }
  CapsulePartition& Partition() { return *m_image->Partition(0); }
  std::string Path() const { return m_dir / "image"; }
  std::string Range(int start, int length) { return Extract(File(), Block(), start, length); }
  // Makes what lies at `offset` of the image a unit that is corrupt.
  void Damage(int offset) {
    std::fstream file(m_dir / "image", std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(offset).write("\x80\0\0", 3);
  }
  int ChunkCount() { return Block().GetFileDataBlockList().GetCount(); }
  CapsuleFileDataBlock& Chunk(int i) {
    return *static_cast<CapsuleFileDataBlock*>(Block().GetFileDataBlockList().GetAt(i));
  }

 private:
  static std::string Section(bool compressed, const std::function<void(ImageMaker&)>& add) {
    ImageMaker maker(compressed);
    maker.BeginSection();
    add(maker);
    maker.EndSection();
    return maker.Finish();
  }

  TempDir m_dir;
  std::unique_ptr<OpenImage> m_image;
};

// An image of one NTFS section whose only file has `content`: in its FILE record, or in compressed
// data records behind it.
inline std::string NtfsImage(const std::string& content, bool resident) {
  constexpr uint32_t kRoot = 5;
  constexpr uint32_t kDataAttribute = 0x80;
  const Bytes data(content.begin(), content.end());
  ForeignImage foreign({});
  foreign.BeginSection(7, 3);
  const auto put = [&](uint32_t type, const Bytes& payload) {
    foreign.Index(2, foreign.Offset(), static_cast<uint32_t>(46 + payload.size()));
    PutNtfsRecord(foreign, type, false, 0, payload);
  };
  put(102, NtfsRecord().Name(3, u"root").IndexRoot({{40, kRoot}}).Finish());
  NtfsRecord file;
  file.Name(3, u"FILE.BIN");
  resident ? file.Resident(kDataAttribute, data) : file.NonResident(kDataAttribute, data.size());
  put(104, file.Finish());
  LzsWriter codec;
  VisitChunks(resident ? Bytes() : data, 16384, [&](const Bytes& chunk, bool last) {
    PutNtfsRecord(foreign, 106, last, chunk.size(), codec.Unit(chunk), 1);
  });
  put(108, {});
  foreign.EndSection();
  foreign.Index(2, foreign.Offset() - 40, 40);
  const Bytes bytes = foreign.Finish();
  return {bytes.begin(), bytes.end()};
}

}  // namespace capsule::test
