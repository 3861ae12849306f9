#include "tests/support/ntfs_record.h"

#include <algorithm>

#include "capsule/platform/little_endian.h"

namespace capsule::test {
namespace {

using platform::LoadLe16;
using platform::StoreLe16;
using platform::StoreLe32;

constexpr size_t kSequence = 42;
constexpr size_t kFirst = 48;
constexpr uint16_t kSequenceNumber = 0x0777;

size_t Aligned(size_t size) { return (size + 7) / 8 * 8; }

}  // namespace

NtfsRecord::NtfsRecord() : m_bytes(kFirst) {
  std::ranges::copy(std::string("FILE"), m_bytes.begin());
  StoreLe16(&m_bytes[4], kSequence);
  StoreLe16(&m_bytes[6], 3);
  StoreLe16(&m_bytes[20], kFirst);
}

void NtfsRecord::Append(Bytes attribute) {
  attribute.resize(Aligned(attribute.size()));
  StoreLe32(&attribute[4], static_cast<uint32_t>(attribute.size()));
  m_bytes.insert(m_bytes.end(), attribute.begin(), attribute.end());
}

NtfsRecord& NtfsRecord::Resident(uint32_t type, const Bytes& value, const std::u16string& name) {
  constexpr size_t kHeader = 24;
  const size_t at = Aligned(kHeader + 2 * name.size());
  Bytes attribute(at + value.size());
  StoreLe32(attribute.data(), type);
  attribute[9] = static_cast<unsigned char>(name.size());
  StoreLe16(&attribute[10], kHeader);
  for (size_t i = 0; i < name.size(); ++i) StoreLe16(&attribute[kHeader + 2 * i], name[i]);
  StoreLe32(&attribute[16], static_cast<uint32_t>(value.size()));
  StoreLe16(&attribute[20], static_cast<uint16_t>(at));
  std::ranges::copy(value, attribute.begin() + static_cast<std::ptrdiff_t>(at));
  Append(attribute);
  return *this;
}

NtfsRecord& NtfsRecord::NonResident(uint32_t type, uint64_t size, uint64_t first) {
  Bytes attribute(72);
  StoreLe32(attribute.data(), type);
  attribute[8] = 1;
  StoreLe16(&attribute[10], 64);
  StoreLe32(&attribute[16], static_cast<uint32_t>(first));
  StoreLe16(&attribute[32], 64);
  StoreLe32(&attribute[48], static_cast<uint32_t>(size));
  StoreLe32(&attribute[52], static_cast<uint32_t>(size >> 32));
  Append(attribute);
  return *this;
}

NtfsRecord& NtfsRecord::Name(uint8_t nameSpace, const std::u16string& name) {
  Bytes value(66 + 2 * name.size());
  value[64] = static_cast<unsigned char>(name.size());
  value[65] = nameSpace;
  for (size_t i = 0; i < name.size(); ++i) StoreLe16(&value[66 + 2 * i], name[i]);
  return Resident(0x30, value);
}

NtfsRecord& NtfsRecord::IndexRoot(const std::vector<std::pair<uint32_t, uint32_t>>& entries) {
  Bytes value(32);
  const Bytes list = NtfsIndexEntries(entries);
  value.insert(value.end(), list.begin(), list.end());
  return Resident(0x90, value, u"$I30");
}

Bytes NtfsRecord::Finish() const {
  Bytes record = m_bytes;
  record.insert(record.end(), 4, static_cast<unsigned char>(0xFF));
  record.resize(1024);
  StoreLe16(&record[kSequence], kSequenceNumber);
  ApplyFixups(record, kSequenceNumber);
  return record;
}

void UndoFixups(std::span<unsigned char> record) {
  unsigned char* word = &record[LoadLe16(&record[4])];
  for (size_t end = 512; end <= record.size(); end += 512) {
    std::copy_n(word += 2, 2, &record[end - 2]);
  }
}

void ApplyFixups(std::span<unsigned char> record, uint16_t number) {
  unsigned char* word = &record[LoadLe16(&record[4])];
  for (size_t end = 512; end <= record.size(); end += 512) {
    std::copy_n(&record[end - 2], 2, word += 2);
    StoreLe16(&record[end - 2], number);
  }
}

Bytes NtfsIndexEntries(const std::vector<std::pair<uint32_t, uint32_t>>& entries) {
  constexpr size_t kEntry = 88;
  Bytes list;
  for (const auto& [child, parent] : entries) {
    Bytes entry(kEntry);
    StoreLe32(entry.data(), child);
    StoreLe16(&entry[8], kEntry);
    StoreLe16(&entry[10], kEntry - 16);
    StoreLe32(&entry[16], parent);
    list.insert(list.end(), entry.begin(), entry.end());
  }
  Bytes last(16);
  StoreLe16(&last[8], 16);
  last[12] = 2;
  list.insert(list.end(), last.begin(), last.end());
  return list;
}

}  // namespace capsule::test
