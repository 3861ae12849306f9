#include "tests/support/foreign_image.h"

#include <algorithm>

#include "capsule/container/header_scramble.h"
#include "capsule/container/index_format.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule::test {

ForeignImage::ForeignImage(ForeignHeader header) : m_Header(std::move(header)), m_Bytes(7560) {}

void ForeignImage::Put(std::span<const unsigned char> bytes) {
  m_Bytes.insert(m_Bytes.end(), bytes.begin(), bytes.end());
}

void ForeignImage::BeginSection(uint8_t systemId, uint8_t kind) {
  m_SystemIds.push_back(systemId);
  Index(5, Offset(), 2056);
  auto opening = EncodePartitionHeader();
  opening[2] = kind;
  Put(opening);
}

void ForeignImage::EndSection() { Put(EncodePartitionTrailer()); }

void ForeignImage::Index(uint8_t type, uint32_t offset, uint32_t length, const std::string& name) {
  AppendIndexRecord({type, name, offset, length}, &m_Index);
}

void ForeignImage::IndexMark(uint8_t type) { m_Index.push_back(type); }

void ForeignImage::FillFixedHeader() {
  m_Bytes[5000] = 0xAB;
  m_Bytes[5001] = 0xCD;
  m_Bytes[5513] = static_cast<unsigned char>(m_SystemIds.size());
  m_Bytes[5515] = m_Header.compressed;
  for (size_t i = 0; i < m_SystemIds.size(); ++i) m_Bytes[7056 + 24 * i + 2] = m_SystemIds[i];
}

void ForeignImage::FillCompactHeader() {
  const size_t tail = m_Header.tailOffset;
  const size_t count = m_SystemIds.size();
  platform::StoreLe16(&m_Bytes[721], m_Header.tailOffset);
  m_Bytes[tail] = 0xAB;
  m_Bytes[tail + 1] = 0xCD;
  m_Bytes[tail + 6] = static_cast<unsigned char>(count);
  m_Bytes[tail + 513] = static_cast<unsigned char>(count);
  m_Bytes[tail + 515] = m_Header.compressed;
  for (size_t i = 0; i < count; ++i) {
    const size_t at = tail + 2056 + 40 * i;
    m_Bytes[at + 2] = m_SystemIds[i];
    std::fill_n(&m_Bytes[at + 28], 12, static_cast<unsigned char>(0xA5));
  }
  m_Bytes[tail + 2056 + 40 * count] = 0x5A;
  platform::StoreLe32(&m_Bytes[tail + 2057 + 40 * count], 0x12345678);
}

void ForeignImage::Scramble() {
  m_Bytes[656] = 1;
  std::copy_n(m_Header.key.begin(), std::min<size_t>(m_Header.key.size(), 36),
              m_Bytes.begin() + 657);
  const bool compact = m_Header.tailOffset != 0;
  const size_t at = compact ? m_Header.tailOffset + size_t{512} : 5512;
  const size_t length = compact ? 1544 + 40 * m_SystemIds.size() : 1800;
  HeaderScramble(&m_Bytes[at], m_Header.key.substr(0, 36).c_str(), static_cast<int>(length), 0);
}

Bytes ForeignImage::Finish() {
  std::ranges::copy(m_Header.version, m_Bytes.begin());
  platform::StoreLe32(&m_Bytes[715], Offset());
  m_Bytes[719] = m_Header.compressed ? 2 : 0;
  m_Bytes[720] = 3;
  m_Header.tailOffset != 0 ? FillCompactHeader() : FillFixedHeader();
  if (m_Header.scrambled) Scramble();
  for (unsigned char i = 0; i < 7; ++i) m_Bytes.push_back(i);
  Put(m_Index);
  return std::move(m_Bytes);
}

}  // namespace capsule::test
