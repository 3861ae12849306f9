// NtfsVolume reads a raw NTFS volume as far as tests need it: FILE records, data by its runs,
// folders in the order of their index. Volumes are our own, so damage is not expected.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tests/support/lzs_writer.h"

namespace capsule::test {

// Unpacks tests/data/volumes/NAME.xz.
Bytes UnpackVolume(const std::string& name);

class NtfsVolume {
 public:
  static constexpr uint32_t kRoot = 5;
  static constexpr uint32_t kFirstUserFile = 24;

  explicit NtfsVolume(Bytes volume);

  // FILE records of a file as stored, 1024 bytes each: its base record, then those that the base
  // record's list of attributes names.
  std::vector<Bytes> FileRecords(uint32_t number) const;

  bool IsDirectory(uint32_t number) const;
  bool HasResidentData(uint32_t number) const;

  // The unnamed $DATA.
  Bytes Data(uint32_t number) const;

  // The blocks of a folder's index as stored.
  Bytes IndexBlocks(uint32_t number) const;

  // What a folder holds, in the order of names, each once and without the folder itself.
  std::vector<uint32_t> Children(uint32_t number) const;

  // The name that users see first.
  std::u16string Name(uint32_t number) const;

 private:
  struct Run {
    uint64_t clusters = 0;
    uint64_t first = 0;  // 0: a hole
  };
  struct Attribute {
    uint32_t type = 0;
    std::u16string name;
    bool resident = true;
    Bytes value;
    uint64_t firstCluster = 0;  // of the stream, where this part's runs begin
    uint64_t size = 0;
    uint64_t initialized = 0;
    std::vector<Run> runs;
  };

  Bytes RawRecord(uint32_t number) const;
  std::vector<Attribute> AttributesOf(uint32_t number) const;
  Bytes Stream(uint32_t number, uint32_t type, const std::u16string& name) const;
  Bytes ReadRuns(const std::vector<Attribute>& parts) const;
  void VisitNode(std::span<const unsigned char> entries, const Bytes& blocks, uint32_t self,
                 std::vector<uint32_t>* children) const;

  static std::vector<Attribute> ParseRecord(Bytes record);
  static Attribute ParseAttribute(std::span<const unsigned char> bytes);
  static std::vector<Run> ParseRuns(std::span<const unsigned char> bytes);

  Bytes m_volume;
  uint32_t m_clusterSize = 0;
  uint32_t m_indexSize = 0;  // bytes of an index block
  Bytes m_mft;
};

}  // namespace capsule::test
