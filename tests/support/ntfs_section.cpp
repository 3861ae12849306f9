#include "tests/support/ntfs_section.h"

#include <algorithm>
#include <array>

#include "capsule/platform/little_endian.h"
#include "tests/support/ntfs_record.h"

namespace capsule::test {
namespace {

using platform::LoadLe16;
using platform::StoreLe16;

constexpr uint32_t kDirectoryRecord = 102;
constexpr uint32_t kMoreOfDirectory = 103;
constexpr uint32_t kFileRecord = 104;
constexpr uint32_t kData = 106;
constexpr uint32_t kOtherData = 107;
constexpr uint32_t kEndOfRecords = 108;

class NtfsWriter {
 public:
  NtfsWriter(ForeignImage& image, const NtfsVolume& volume, const NtfsStyle& style)
      : m_image(image), m_volume(volume), m_style(style) {}

  void Put(uint32_t number) {
    const uint32_t start = m_image.Offset();
    if (m_volume.IsDirectory(number)) {
      PutFolder(number, start);
      for (const uint32_t child : m_volume.Children(number)) Put(child);
    } else {
      PutFile(number, start);
    }
  }

 private:
  std::vector<Bytes> FileRecords(uint32_t number) const {
    std::vector<Bytes> records = m_volume.FileRecords(number);
    if (m_style.earlierLayout) std::ranges::for_each(records, ToEarlierLayout);
    return records;
  }

  void PutFolder(uint32_t number, uint32_t start) {
    uint32_t type = kDirectoryRecord;
    for (const Bytes& record : FileRecords(number)) {
      LzsWriter codec;
      PutChunk(type, false, record, codec, 0);
      if (type == kDirectoryRecord) m_image.Index(2, start, m_image.Offset() - start);
      type = kMoreOfDirectory;
    }
    PutChunks(m_volume.IndexBlocks(number), 0);
  }

  void PutFile(uint32_t number, uint32_t start) {
    Bytes joined;
    for (const Bytes& record : FileRecords(number)) {
      joined.insert(joined.end(), record.begin(), record.end());
    }
    LzsWriter codec;
    PutChunk(kFileRecord, false, joined, codec, 0);
    m_image.Index(2, start, m_image.Offset() - start);
    const bool stored = number >= NtfsVolume::kFirstUserFile && !m_volume.HasResidentData(number);
    if (stored) PutChunks(m_volume.Data(number), 1);
  }

  void PutChunks(const Bytes& data, uint32_t primary) {
    LzsWriter codec;
    VisitChunks(data, 16384, [&](const Bytes& chunk, bool last) {
      PutChunk(last ? kOtherData : kData, last, chunk, codec, primary);
    });
  }

  // In LZS form, unless that is not shorter.
  void PutChunk(uint32_t type, bool last, const Bytes& chunk, LzsWriter& codec, uint32_t primary) {
    if (m_image.Compressed()) {
      LzsWriter attempt = codec;
      const Bytes unit = attempt.Unit(chunk);
      if (unit.size() < chunk.size()) {
        codec = std::move(attempt);
        return PutNtfsRecord(m_image, type, last, chunk.size(), unit, primary);
      }
    }
    PutNtfsRecord(m_image, type, last, 0, chunk, primary);
  }

  ForeignImage& m_image;
  const NtfsVolume& m_volume;
  const NtfsStyle& m_style;
};

}  // namespace

void ToEarlierLayout(Bytes& record) {
  const size_t size = record.size();
  const uint16_t first = LoadLe16(&record[20]);
  const uint16_t number = LoadLe16(&record[LoadLe16(&record[4])]);
  UndoFixups(record);
  record.erase(record.begin() + 48, record.begin() + first);
  record.resize(size);
  StoreLe16(&record[4], 42);
  StoreLe16(&record[20], 48);
  StoreLe16(&record[24], static_cast<uint16_t>(LoadLe16(&record[24]) - (first - 48)));
  StoreLe16(&record[42], number);
  ApplyFixups(record, number);
}

void PutNtfsRecord(ForeignImage& image, uint32_t type, bool last, size_t length,
                   const Bytes& payload, uint32_t primary) {
  std::array<unsigned char, 46> header = {'N', static_cast<unsigned char>(last ? 1 : 0)};
  platform::StoreLe32(&header[2], type);
  StoreLe16(&header[8], static_cast<uint16_t>(length));
  StoreLe16(&header[10], static_cast<uint16_t>(payload.size()));
  platform::StoreLe32(&header[42], primary);
  image.Put(header);
  image.Put(payload);
}

void PutNtfsSection(ForeignImage& image, const NtfsVolume& volume, const NtfsStyle& style) {
  constexpr uint8_t kNtfs = 7;
  image.BeginSection(kNtfs, 3);
  NtfsWriter writer(image, volume, style);
  writer.Put(NtfsVolume::kRoot);
  if (style.strayFile) writer.Put(NtfsVolume::kFirstUserFile);
  const uint32_t end = image.Offset();
  PutNtfsRecord(image, kEndOfRecords, false, 0, {});
  image.EndSection();
  image.Index(2, end, image.Offset() - end);
}

}  // namespace capsule::test
