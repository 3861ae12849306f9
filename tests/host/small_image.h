// An image put together by hand, record by record.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/host/index_writer.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"
#include "tests/support/temp_dir.h"

namespace capsule::test {

class SmallImage {
 public:
  SmallImage() { AddBytes(EncodeHeader("Capsulate test", false)); }

  uint32_t Size() const { return static_cast<uint32_t>(m_bytes.size()); }
  std::string& Bytes() { return m_bytes; }

  void BeginSection(uint8_t systemId = 0x0B) {
    m_bytes[kPartitionRecordsOffset + kPartitionRecordSize * m_sections + 2] =
        static_cast<char>(systemId);
    ++m_sections;
    SetPartitionCount(m_sections);
    AddBytes(EncodePartitionHeader());
  }
  void SetPartitionCount(uint32_t count) {
    m_bytes[kPartitionCountOffset] = static_cast<char>(count);
  }
  void EndSection() { AddBytes(EncodePartitionTrailer()); }
  void Close(int levels = 1) {
    for (int i = 0; i < levels; ++i) AddBytes(EncodeZeroEntry());
  }

  // `name`: 11 bytes.
  void Entry(std::string_view name, uint8_t attribute, uint32_t size = 0) {
    _ShortDirEntry entry{};
    std::copy_n(name.begin(), 8, entry.Name);
    std::copy_n(name.begin() + 8, 3, entry.Extension);
    entry.Attribute = attribute;
    entry.FileSize = size;
    AddBytes(EncodeMiniHeader({kRecordDirectory, 1, 0, kDirEntrySize}));
    AddBytes(EncodeShortEntry(entry));
  }
  // A long name of up to 12 characters for the entry that follows, `name`.
  void LongName(std::string_view longName, std::string_view name) {
    constexpr int kPlaces[] = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};
    std::array<unsigned char, 32> piece{0x41};
    piece[11] = kLongNameAttribute;
    std::array<unsigned char, 11> bytes;
    std::copy_n(name.begin(), bytes.size(), bytes.begin());
    piece[13] = ShortNameChecksum(bytes);
    for (size_t i = 0; i < std::size(kPlaces); ++i) {
      const int unit = i < longName.size() ? longName[i] : i == longName.size() ? 0 : 0xFFFF;
      platform::StoreLe16(&piece[kPlaces[i]], static_cast<uint16_t>(unit));
    }
    AddBytes(EncodeMiniHeader({kRecordDirectory, 1, 0, kDirEntrySize}));
    AddBytes(piece);
  }
  void Folder(std::string_view name) {
    Entry(name, kDirectoryAttribute);
    Entry(".          ", kDirectoryAttribute);
    Entry("..         ", kDirectoryAttribute);
  }
  // A file of one record.
  void SmallFile(std::string_view name, uint32_t size, uint8_t attribute = 0x20) {
    Entry(name, attribute, size);
    Data(512, true);
  }
  void Data(uint16_t length, bool last) {
    AddBytes(EncodeMiniHeader({kRecordDataBlock, static_cast<uint8_t>(last ? 1 : 0), 0, length}));
    m_bytes.append(length, 'd');
  }

 private:
  void AddBytes(std::span<const unsigned char> bytes) {
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
  }

  std::string m_bytes;
  uint32_t m_sections = 0;
};

// One folder with a file of 700 bytes in two records, and one with 10 bytes.
inline SmallImage TwoFiles() {
  SmallImage image;
  image.BeginSection();
  image.Folder("FOLDER     ");
  image.Entry("ONE     BIN", 0x20, 700);
  image.Data(512, false);
  image.Data(512, true);
  image.SmallFile("TWO     BIN", 10);
  image.Close();
  image.EndSection();
  return image;
}

// Writes the image with its index; returns its bytes.
inline std::string WriteIndexed(const std::string& path, SmallImage image) {
  WriteFile(path, image.Bytes());
  static_cast<void>(host::IndexWriter(path).Write());
  return ReadFile(path);
}

}  // namespace capsule::test
