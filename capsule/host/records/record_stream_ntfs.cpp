// Files of NTFS partitions. Their data lies in the FILE record itself, when it is small, or in data
// records behind it; further FILE records of the same file may come in between.
#include <algorithm>

#include "capsule/host/file/reason.h"
#include "capsule/host/records/record_stream.h"
#include "capsule/partition/ntfs_format.h"

namespace capsule::host {

_MiniHeader RecordStream::NtfsHeaderAt(uint64_t offset, uint32_t* type) {
  const auto bytes = Window(offset, kNtfsHeaderSize);
  const _NTFSMiniHeader header = DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>());
  *type = header.RecordType;
  return {static_cast<uint8_t>(header.RecordType), header.LastFlag, header.UncompressedLength,
          header.Length};
}

_MiniHeader RecordStream::ReadNtfsHeader() {
  uint32_t type = 0;
  _MiniHeader header = NtfsHeaderAt(m_nRecord, &type);
  while (IsNtfsFileRecord(type) && !BeginsNtfsEntry(type)) {
    const bool isCounted = m_Check && m_Check->Next() == m_nRecord;
    m_nRecord += kNtfsHeaderSize + header.Length;
    CheckRoom(kNtfsHeaderSize);
    if (isCounted) CountUpTo(m_nRecord);
    header = NtfsHeaderAt(m_nRecord, &type);
  }
  if (!IsNtfsData(type)) {
    Fail("record is of type " + std::to_string(type) + ", a data record is " +
         std::to_string(kNtfsData) + " or " + std::to_string(kNtfsMoreData) + "; " +
         std::to_string(m_nChunkEnd) + " of " + std::to_string(m_Source.size) + " bytes were read");
  }
  return header;
}

// Takes the data from the FILE record when it lies there.
void RecordStream::TakeResidentData() {
  m_nRecord = m_Source.fileRecord;
  CheckRoom(kNtfsHeaderSize);
  uint32_t type = 0;
  const _MiniHeader header = NtfsHeaderAt(m_nRecord, &type);
  CheckRoom(kNtfsHeaderSize + header.Length);
  DecodeRecord(DataRecordOf(header, m_Source.rules));
  if (m_Chunk.size() < kFileRecordSize) {
    Fail("FILE record of " + std::to_string(m_Chunk.size()) + " bytes");
  }
  const auto record = std::span(m_Chunk).first<kFileRecordSize>();
  UndoFileRecordFixups(record);
  std::vector<unsigned char> value;
  VisitAttributes(record, [&](const NtfsAttribute& attribute) {
    if (attribute.type != kDataType || attribute.nameLength != 0) return true;
    m_bResident = !attribute.nonResident;
    const auto bytes = attribute.ResidentValue();
    if (m_bResident) value.assign(bytes.begin(), bytes.end());
    return false;
  });
  m_Chunk.clear();
  if (m_bResident && value.size() != m_Source.size) {
    Fail("FILE record holds " + std::to_string(value.size()) + " of " +
         std::to_string(m_Source.size) + " bytes");
  }
  m_Resident = std::move(value);
}

}  // namespace capsule::host
