#include "tests/support/fat_section.h"

#include <algorithm>
#include <array>

#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"
#include "tests/support/bytes.h"

namespace capsule::test {
namespace {

using Entry = std::array<unsigned char, 32>;

constexpr std::array<unsigned char, 8> kGroupHeader = {0x16, 1, 0, 0, 0, 0, 32, 0};

Entry LongPiece(const ForeignItem& item, size_t piece, size_t count) {
  Entry entry{};
  entry[0] = static_cast<unsigned char>(piece | (piece == count ? 0x40 : 0));
  entry[11] = 0x0F;
  entry[13] = ShortNameChecksum(std::span(Unsigned(item.shortName), 11).first<11>());
  constexpr std::array<size_t, kPieceUnits> kPlaces = {1,  3,  5,  7,  9,  14, 16,
                                                       18, 20, 22, 24, 28, 30};
  std::u16string units = item.longName + u'\0';
  units.resize(count * kPieceUnits, u'\xFFFF');
  for (size_t i = 0; i < kPieceUnits; ++i) {
    platform::StoreLe16(&entry[kPlaces[i]], units[(piece - 1) * kPieceUnits + i]);
  }
  return entry;
}

Entry ShortEntry(const ForeignItem& item) {
  Entry entry{};
  std::copy_n(item.shortName.begin(), 11, entry.begin());
  entry[11] = item.directory ? 0x10 : 0x20;
  platform::StoreLe32(&entry[22], 0x2F0A6AC5);  // date, time
  platform::StoreLe32(&entry[28], static_cast<uint32_t>(item.content.size()));
  return entry;
}

class FatWriter {
 public:
  FatWriter(ForeignImage& image, const FatStyle& style) : m_image(image), m_style(style) {}

  void Put(const std::vector<ForeignItem>& items) {
    for (const ForeignItem& item : items) {
      item.directory ? PutDirectory(item) : PutFile(item);
    }
  }

 private:
  void PutRecord(const Entry& entry) {
    m_image.Put(kGroupHeader);
    m_image.Put(entry);
  }

  void PutGroup(const ForeignItem& item) {
    const size_t pieces = (item.longName.size() + kPieceUnits - 1) / kPieceUnits;
    for (size_t piece = pieces; piece > 0; --piece) PutRecord(LongPiece(item, piece, pieces));
    PutRecord(ShortEntry(item));
  }

  void IndexFrom(uint8_t type, uint32_t start, const std::string& name) {
    if (m_style.notes) {
      m_image.IndexMark(4);
      m_image.Index(6, start, 1, "a note");
      m_image.IndexMark(1);
    }
    m_image.Index(type, start, m_image.Offset() - start, name);
  }

  void PutDirectory(const ForeignItem& item) {
    const ForeignItem self{.shortName = ".          ", .directory = true};
    const ForeignItem parent{.shortName = "..         ", .directory = true};
    for (const ForeignItem* group : {&item, &self, &parent}) {
      const uint32_t start = m_image.Offset();
      PutGroup(*group);
      IndexFrom(2, start, group->shortName);
    }
    Put(item.children);
    const uint32_t start = m_image.Offset();
    PutRecord(Entry{});
    IndexFrom(3, start, {});
  }

  void PutFile(const ForeignItem& item) {
    const uint32_t start = m_image.Offset();
    PutGroup(item);
    LzsWriter codec;
    VisitChunks(item.content, m_style.chunkSize,
                [&](const Bytes& chunk, bool last) { PutChunk(chunk, item.stored, last, codec); });
    IndexFrom(2, start, item.shortName);
  }

  void PutChunk(const Bytes& chunk, bool stored, bool last, LzsWriter& codec) {
    const bool compress = m_image.Compressed() && !stored;
    Bytes payload = compress ? codec.Unit(chunk) : chunk;
    if (compress && payload.size() == chunk.size()) payload.push_back(0);
    std::array<unsigned char, 8> header = {3, static_cast<unsigned char>(last ? 1 : 0)};
    if (!stored) platform::StoreLe32(&header[2], static_cast<uint32_t>(chunk.size()));
    platform::StoreLe16(&header[6], static_cast<uint16_t>(payload.size()));
    m_image.Put(header);
    m_image.Put(payload);
  }

  ForeignImage& m_image;
  const FatStyle& m_style;
};

}  // namespace

void PutFatSection(ForeignImage& image, const std::vector<ForeignItem>& items,
                   const FatStyle& style) {
  image.BeginSection(style.systemId, 2);
  FatWriter(image, style).Put(items);
  image.EndSection();
  image.Index(3, image.Offset() - 40, 40);
}

}  // namespace capsule::test
