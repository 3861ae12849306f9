// ImageMaker lays out an image by hand, record by record, with or without its index.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/container/index_format.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule::test {

class ImageMaker {
 public:
  explicit ImageMaker(bool compressed = false) {
    Append(EncodeHeader("Capsulate test", compressed));
  }

  uint32_t Here() const { return static_cast<uint32_t>(m_bytes.size()); }

  void BeginSection(uint8_t systemId = 0x0B) {
    const size_t record = kPartitionRecordsOffset + kPartitionRecordSize * m_sections++;
    m_bytes[record + 2] = static_cast<char>(systemId);
    SetPartitionCount(m_sections);
    Index(kIndexSection, kPartitionHeaderSize);
    Append(EncodePartitionHeader());
  }

  void SetPartitionCount(size_t count) {
    m_bytes[kPartitionCountOffset] = static_cast<char>(count);
  }

  // A record of 40 bytes; `name` is the padded 11-byte short name.
  void Entry(std::string_view name, uint8_t attribute, uint32_t size = 0) {
    Index(attribute == kDirectoryAttribute ? kIndexZeroEntry : kIndexFile, kDirRecordSize);
    _ShortDirEntry entry{};
    std::copy_n(name.begin(), 8, entry.Name);
    std::copy_n(name.begin() + 8, 3, entry.Extension);
    entry.Attribute = attribute;
    entry.FileSize = size;
    Append(EncodeMiniHeader({kRecordDirectory, 1, 0, kDirEntrySize}));
    Append(EncodeShortEntry(entry));
  }
  void File(std::string_view name, uint32_t size) { Entry(name, 0x20, size); }
  void Directory(std::string_view name) { Entry(name, kDirectoryAttribute, 0); }

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
    Append(EncodeMiniHeader({kRecordDirectory, 1, 0, kDirEntrySize}));
    Append(piece);
  }

  // A folder with its own two entries.
  void Folder(std::string_view name) {
    for (const std::string_view entry : {name, {".          "}, {"..         "}}) Directory(entry);
  }

  void Close(int levels = 1) {
    for (int i = 0; i < levels; ++i) {
      Index(kIndexZeroEntry, kDirRecordSize);
      Append(EncodeZeroEntry());
    }
  }

  void Data(uint8_t flag, uint32_t param, const std::string& payload) {
    Append(
        EncodeMiniHeader({kRecordDataBlock, flag, param, static_cast<uint16_t>(payload.size())}));
    Append(payload);
  }

  // As many bytes 'd'.
  void Data(uint16_t length, bool last) { Data(last ? 1 : 0, 0, std::string(length, 'd')); }

  // A file of one such record.
  void SmallFile(std::string_view name, uint32_t size, uint8_t attribute = 0x20) {
    Entry(name, attribute, size);
    Data(512, true);
  }

  // A file's bytes as plain records of 8192 bytes, the last one padded.
  void Stored(const std::string& content) {
    for (size_t at = 0; at < content.size(); at += 8192) {
      std::string chunk = content.substr(at, 8192);
      chunk.resize((chunk.size() + 511) / 512 * 512);
      Data(at + 8192 >= content.size() ? 1 : 0, 0, chunk);
    }
  }

  void EndSection() {
    Append(EncodePartitionTrailer());
    m_index.push_back({kIndexZeroEntry, "", Here() - kDirRecordSize, kDirRecordSize});
  }

  // Appends an index record that points anywhere.
  void Index(uint8_t type, uint32_t length) { m_index.push_back({type, "", Here(), length}); }
  std::vector<IndexRecord>& IndexRecords() { return m_index; }
  std::string& Bytes() { return m_bytes; }

  // The image with its index, as bytes.
  std::string Finish() {
    std::array<unsigned char, 4> offset;
    platform::StoreLe32(offset.data(), Here());
    std::copy(offset.begin(), offset.end(), &m_bytes[kIndexOffsetOffset]);
    std::vector<unsigned char> index(kIndexPreamble);
    for (const IndexRecord& record : m_index) AppendIndexRecord(record, &index);
    Append(index);
    return m_bytes;
  }

  // Bytes as they are.
  template <typename Source>
  void Append(const Source& source) {
    m_bytes.insert(m_bytes.end(), source.begin(), source.end());
  }

 private:
  std::string m_bytes;
  std::vector<IndexRecord> m_index;
  size_t m_sections = 0;
};

}  // namespace capsule::test
