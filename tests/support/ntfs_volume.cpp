#include "tests/support/ntfs_volume.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "capsule/platform/little_endian.h"
#include "tests/support/ntfs_record.h"

namespace capsule::test {
namespace {

using platform::LoadLe16;
using platform::LoadLe32;
using platform::LoadLe64;
using View = std::span<const unsigned char>;

constexpr size_t kRecordSize = 1024;
constexpr uint32_t kAttributeList = 0x20;
constexpr uint32_t kName = 0x30;
constexpr uint32_t kData = 0x80;
constexpr uint32_t kIndexRoot = 0x90;
constexpr uint32_t kIndexAllocation = 0xA0;
constexpr uint32_t kEnd = 0xFFFFFFFF;
constexpr const char16_t* kFolderIndex = u"$I30";

Bytes Copy(View view) { return {view.begin(), view.end()}; }

std::u16string Units(View view) {
  std::u16string units;
  for (size_t at = 0; at + 1 < view.size(); at += 2) {
    units.push_back(static_cast<char16_t>(LoadLe16(&view[at])));
  }
  return units;
}

uint64_t LittleEndian(View bytes) {
  uint64_t value = 0;
  for (size_t i = bytes.size(); i > 0; --i) value = value << 8 | bytes[i - 1];
  return value;
}

uint32_t RecordNumber(uint64_t reference) { return static_cast<uint32_t>(reference); }

}  // namespace

Bytes UnpackVolume(const std::string& name) {
  const std::string command = "xz -dc '" CAPSULE_TEST_DATA "/volumes/" + name + ".xz'";
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  Bytes bytes;
  Bytes buffer(size_t{1} << 20);
  while (const size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) {
    bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(got));
  }
  if (bytes.empty()) throw std::runtime_error("cannot unpack " + name);
  return bytes;
}

NtfsVolume::NtfsVolume(Bytes volume) : m_volume(std::move(volume)) {
  m_clusterSize = uint32_t{LoadLe16(&m_volume[11])} * m_volume[13];
  const auto perIndex = static_cast<signed char>(m_volume[68]);
  m_indexSize = perIndex > 0 ? m_clusterSize * static_cast<uint32_t>(perIndex) : 1U << -perIndex;
  const size_t start = LoadLe64(&m_volume[48]) * m_clusterSize;
  m_mft = Copy(View(m_volume).subspan(start, kRecordSize));
  m_mft = Stream(0, kData, u"");
}

Bytes NtfsVolume::RawRecord(uint32_t number) const {
  return Copy(View(m_mft).subspan(number * kRecordSize, kRecordSize));
}

std::vector<NtfsVolume::Run> NtfsVolume::ParseRuns(View bytes) {
  std::vector<Run> runs;
  uint64_t cluster = 0;
  for (size_t at = 0; at < bytes.size() && bytes[at] != 0;) {
    const size_t lengthWidth = bytes[at] & 0xF;
    const size_t offsetWidth = bytes[at] >> 4;
    const uint64_t clusters = LittleEndian(bytes.subspan(at + 1, lengthWidth));
    uint64_t step = LittleEndian(bytes.subspan(at + 1 + lengthWidth, offsetWidth));
    const bool negative = offsetWidth > 0 && (bytes[at + lengthWidth + offsetWidth] & 0x80) != 0;
    if (negative && offsetWidth < 8) step |= ~uint64_t{0} << (8 * offsetWidth);
    cluster += step;
    runs.push_back({clusters, offsetWidth == 0 ? 0 : cluster});
    at += 1 + lengthWidth + offsetWidth;
  }
  return runs;
}

NtfsVolume::Attribute NtfsVolume::ParseAttribute(View bytes) {
  Attribute attribute;
  attribute.type = LoadLe32(bytes.data());
  attribute.resident = bytes[8] == 0;
  attribute.name = Units(bytes.subspan(LoadLe16(&bytes[10]), size_t{bytes[9]} * 2));
  if (attribute.resident) {
    attribute.size = LoadLe32(&bytes[16]);
    attribute.value = Copy(bytes.subspan(LoadLe16(&bytes[20]), attribute.size));
  } else {
    attribute.firstCluster = LoadLe64(&bytes[16]);
    attribute.size = LoadLe64(&bytes[48]);
    attribute.initialized = LoadLe64(&bytes[56]);
    attribute.runs = ParseRuns(bytes.subspan(LoadLe16(&bytes[32])));
  }
  return attribute;
}

std::vector<NtfsVolume::Attribute> NtfsVolume::ParseRecord(Bytes record) {
  UndoFixups(record);
  std::vector<Attribute> attributes;
  for (size_t at = LoadLe16(&record[20]); LoadLe32(&record[at]) != kEnd;) {
    const size_t length = LoadLe32(&record[at + 4]);
    attributes.push_back(ParseAttribute(View(record).subspan(at, length)));
    at += length;
  }
  return attributes;
}

Bytes NtfsVolume::ReadRuns(const std::vector<Attribute>& parts) const {
  Bytes stream;
  for (const Attribute& part : parts) {
    for (const Run& run : part.runs) {
      const size_t size = run.clusters * m_clusterSize;
      if (run.first == 0) {
        stream.resize(stream.size() + size);
      } else {
        const View data = View(m_volume).subspan(run.first * m_clusterSize, size);
        stream.insert(stream.end(), data.begin(), data.end());
      }
    }
  }
  stream.resize(parts.front().initialized);
  stream.resize(parts.front().size);
  return stream;
}

std::vector<Bytes> NtfsVolume::FileRecords(uint32_t number) const {
  std::vector<Bytes> records = {RawRecord(number)};
  std::vector<uint32_t> numbers = {number};
  for (const Attribute& attribute : ParseRecord(records.front())) {
    if (attribute.type != kAttributeList) continue;
    const Bytes list = attribute.resident ? attribute.value : ReadRuns({attribute});
    for (size_t at = 0; at + 24 <= list.size(); at += LoadLe16(&list[at + 4])) {
      const uint32_t holder = RecordNumber(LoadLe64(&list[at + 16]));
      if (std::ranges::find(numbers, holder) != numbers.end()) continue;
      numbers.push_back(holder);
      records.push_back(RawRecord(holder));
    }
  }
  return records;
}

std::vector<NtfsVolume::Attribute> NtfsVolume::AttributesOf(uint32_t number) const {
  std::vector<Attribute> all;
  for (const Bytes& record : FileRecords(number)) {
    std::ranges::move(ParseRecord(record), std::back_inserter(all));
  }
  return all;
}

Bytes NtfsVolume::Stream(uint32_t number, uint32_t type, const std::u16string& name) const {
  std::vector<Attribute> parts;
  for (Attribute& attribute : AttributesOf(number)) {
    if (attribute.type == type && attribute.name == name) parts.push_back(std::move(attribute));
  }
  if (parts.empty()) return {};
  if (parts.front().resident) return parts.front().value;
  std::ranges::sort(parts, {}, &Attribute::firstCluster);
  return ReadRuns(parts);
}

bool NtfsVolume::IsDirectory(uint32_t number) const {
  return (LoadLe16(&RawRecord(number)[22]) & 2) != 0;
}

bool NtfsVolume::HasResidentData(uint32_t number) const {
  return std::ranges::any_of(AttributesOf(number), [](const Attribute& attribute) {
    return attribute.type == kData && attribute.name.empty() && attribute.resident;
  });
}

Bytes NtfsVolume::Data(uint32_t number) const { return Stream(number, kData, u""); }

Bytes NtfsVolume::IndexBlocks(uint32_t number) const {
  return Stream(number, kIndexAllocation, kFolderIndex);
}

std::u16string NtfsVolume::Name(uint32_t number) const {
  constexpr size_t kNameLength = 64;
  constexpr unsigned char kDos = 2;
  for (const Attribute& attribute : AttributesOf(number)) {
    if (attribute.type != kName || attribute.value[kNameLength + 1] == kDos) continue;
    return Units(View(attribute.value).subspan(kNameLength + 2, attribute.value[kNameLength] * 2U));
  }
  return {};
}

// An entry whose first flag is set has the names before it in a block of its own.
void NtfsVolume::VisitNode(View entries, const Bytes& blocks, uint32_t self,
                           std::vector<uint32_t>* children) const {
  for (size_t at = 0;; at += LoadLe16(&entries[at + 8])) {
    const unsigned flags = entries[at + 12];
    const size_t length = LoadLe16(&entries[at + 8]);
    if ((flags & 1) != 0) {
      const uint64_t unit = std::min(m_clusterSize, m_indexSize);
      const uint64_t block = LoadLe64(&entries[at + length - 8]) * unit;
      Bytes node = Copy(View(blocks).subspan(block, m_indexSize));
      UndoFixups(node);
      VisitNode(View(node).subspan(size_t{24} + LoadLe32(&node[24])), blocks, self, children);
    }
    if ((flags & 2) != 0) return;
    const uint32_t child = RecordNumber(LoadLe64(&entries[at]));
    const bool known = std::ranges::find(*children, child) != children->end();
    if (child != self && !known) children->push_back(child);
  }
}

std::vector<uint32_t> NtfsVolume::Children(uint32_t number) const {
  std::vector<uint32_t> children;
  const Bytes root = Stream(number, kIndexRoot, kFolderIndex);
  if (root.empty()) return children;
  const size_t first = size_t{16} + LoadLe32(&root[16]);
  VisitNode(View(root).subspan(first), IndexBlocks(number), number, &children);
  return children;
}

}  // namespace capsule::test
