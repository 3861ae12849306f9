// ImageMaker lays out an image by hand, record by record, with its index.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/container/index_format.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule::test {

class ImageMaker {
 public:
  explicit ImageMaker(bool compressed) : m_bytes(EncodeHeader("Capsulate test", compressed)) {}

  uint32_t Here() const { return static_cast<uint32_t>(m_bytes.size()); }

  void BeginSection(uint8_t systemId = 0x0B) {
    const size_t record = kPartitionRecordsOffset + kPartitionRecordSize * m_sections++;
    m_bytes[record + 2] = systemId;
    m_bytes[kPartitionCountOffset] = static_cast<unsigned char>(m_sections);
    Index(kIndexSection, kPartitionHeaderSize);
    Append(EncodePartitionHeader());
  }

  // A record of 40 bytes; `name` is the padded 11-byte short name.
  void Entry(const std::string& name, uint8_t attribute, uint32_t size) {
    Index(attribute == kDirectoryAttribute ? kIndexZeroEntry : kIndexFile, kDirRecordSize);
    _ShortDirEntry entry{};
    std::copy_n(name.begin(), 8, entry.Name);
    std::copy_n(name.begin() + 8, 3, entry.Extension);
    entry.Attribute = attribute;
    entry.FileSize = size;
    Append(EncodeMiniHeader({kRecordDirectory, 1, 0, kDirEntrySize}));
    Append(EncodeShortEntry(entry));
  }
  void File(const std::string& name, uint32_t size) { Entry(name, 0x20, size); }
  void Directory(const std::string& name) { Entry(name, kDirectoryAttribute, 0); }

  void ZeroEntry() {
    Index(kIndexZeroEntry, kDirRecordSize);
    Append(EncodeZeroEntry());
  }

  void Data(uint8_t flag, uint32_t param, const std::string& payload) {
    Append(
        EncodeMiniHeader({kRecordDataBlock, flag, param, static_cast<uint16_t>(payload.size())}));
    Append(payload);
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
  std::vector<unsigned char>& Bytes() { return m_bytes; }

  // The image with its index, as bytes.
  std::string Finish() {
    platform::StoreLe32(&m_bytes[kIndexOffsetOffset], Here());
    m_bytes.resize(m_bytes.size() + kIndexPreamble);
    for (const IndexRecord& record : m_index) AppendIndexRecord(record, &m_bytes);
    return {m_bytes.begin(), m_bytes.end()};
  }

 private:
  template <typename Source>
  void Append(const Source& source) {
    m_bytes.insert(m_bytes.end(), source.begin(), source.end());
  }

  std::vector<unsigned char> m_bytes;
  std::vector<IndexRecord> m_index;
  size_t m_sections = 0;
};

}  // namespace capsule::test
