// NtfsRecord builds a FILE record attribute by attribute.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/lzs_writer.h"

namespace capsule::test {

class NtfsRecord {
 public:
  // Update sequence at 42 and first attribute at 48.
  NtfsRecord();

  NtfsRecord& Resident(uint32_t type, const Bytes& value, const std::u16string& name = {});

  // `first`: the cluster of its stream that the attribute's runs begin with.
  NtfsRecord& NonResident(uint32_t type, uint64_t size, uint64_t first = 0);

  // A $FILE_NAME.
  NtfsRecord& Name(uint8_t nameSpace, const std::u16string& name);

  // An $INDEX_ROOT of a folder: pairs of a child's reference and its parent's.
  NtfsRecord& IndexRoot(const std::vector<std::pair<uint32_t, uint32_t>>& entries);

  // 1024 bytes with the last words of both sectors displaced.
  Bytes Finish() const;

 private:
  void Append(Bytes attribute);

  Bytes m_bytes;
};

// Puts back the last word of every sector of a record, and displaces it, by `number`, again.
void UndoFixups(std::span<unsigned char> record);
void ApplyFixups(std::span<unsigned char> record, uint16_t number);

// Index entries for IndexRoot, then the one that ends a node.
Bytes NtfsIndexEntries(const std::vector<std::pair<uint32_t, uint32_t>>& entries);

}  // namespace capsule::test
