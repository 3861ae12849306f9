// Files of NTFS partitions. Their data lies in the FILE record itself, when it is small, or in data
// records behind it; further FILE records of the same file may come in between.
#include <algorithm>

#include "capsule/host/file/reason.h"
#include "capsule/host/records/record_stream.h"
#include "capsule/partition/ntfs_file.h"

namespace capsule::host {

_MiniHeader RecordStream::NtfsHeaderAt(uint64_t offset, uint32_t* type) {
  const auto bytes = Window(offset, kNtfsHeaderSize);
  const _NTFSMiniHeader header = DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>());
  *type = header.RecordType;
  return ToMiniHeader(header);
}

_MiniHeader RecordStream::ReadNtfsHeader() {
  uint32_t type = 0;
  _MiniHeader header = NtfsHeaderAt(m_record, &type);
  while (IsNtfsCompanion(type)) {
    const bool isCounted = m_check && m_check->Next() == m_record;
    m_record += kNtfsHeaderSize + header.Length;
    RequireRoom(kNtfsHeaderSize);
    if (isCounted) CountUpTo(m_record);
    header = NtfsHeaderAt(m_record, &type);
  }
  if (!IsNtfsData(type)) {
    Fail("record is of type " + std::to_string(type) + ", a data record is " +
         std::to_string(kNtfsData) + " or " + std::to_string(kNtfsMoreData) + "; " +
         std::to_string(m_chunkEnd) + " of " + std::to_string(m_source.size) + " bytes were read");
  }
  return header;
}

// Takes the data from the FILE record when it lies there.
void RecordStream::TakeResidentData() {
  m_record = m_source.fileRecord;
  RequireRoom(kNtfsHeaderSize);
  uint32_t type = 0;
  const _MiniHeader header = NtfsHeaderAt(m_record, &type);
  RequireRoom(kNtfsHeaderSize + header.Length);
  DecodeRecord(DataRecordOf(header, m_source.rules));
  if (m_chunk.size() < kFileRecordSize) {
    Fail("FILE record of " + std::to_string(m_chunk.size()) + " bytes");
  }
  const auto data = ResidentData(std::span(m_chunk).first<kFileRecordSize>());
  m_isResident = data.has_value();
  if (data) m_resident.assign(data->begin(), data->end());
  m_chunk.clear();
  if (m_isResident && m_resident.size() != m_source.size) {
    Fail("FILE record holds " + std::to_string(m_resident.size()) + " of " +
         std::to_string(m_source.size) + " bytes");
  }
}

}  // namespace capsule::host
