#include "tests/support/foreign_image.h"

#include <algorithm>

#include "capsule/container/header_scramble.h"
#include "capsule/container/index_format.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule::test {

ForeignImage::ForeignImage(ForeignHeader header) : m_header(std::move(header)), m_bytes(7560) {}

void ForeignImage::Put(std::span<const unsigned char> bytes) {
  m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
}

void ForeignImage::BeginSection(uint8_t systemId, uint8_t kind) {
  m_systemIds.push_back(systemId);
  Index(5, Offset(), 2056);
  auto opening = EncodePartitionHeader();
  opening[2] = kind;
  Put(opening);
}

void ForeignImage::EndSection() { Put(EncodePartitionTrailer()); }

void ForeignImage::Index(uint8_t type, uint32_t offset, uint32_t length, const std::string& name) {
  AppendIndexRecord({type, name, offset, length}, &m_index);
}

void ForeignImage::IndexMark(uint8_t type) { m_index.push_back(type); }

void ForeignImage::FillFixedHeader() {
  m_bytes[5000] = 0xAB;
  m_bytes[5001] = 0xCD;
  m_bytes[5513] = static_cast<unsigned char>(m_systemIds.size());
  m_bytes[5515] = m_header.compressed;
  for (size_t i = 0; i < m_systemIds.size(); ++i) m_bytes[7056 + 24 * i + 2] = m_systemIds[i];
}

void ForeignImage::FillCompactHeader() {
  const size_t tail = m_header.tailOffset;
  const size_t count = m_systemIds.size();
  platform::StoreLe16(&m_bytes[721], m_header.tailOffset);
  m_bytes[tail] = 0xAB;
  m_bytes[tail + 1] = 0xCD;
  m_bytes[tail + 6] = static_cast<unsigned char>(count);
  m_bytes[tail + 513] = static_cast<unsigned char>(count);
  m_bytes[tail + 515] = m_header.compressed;
  for (size_t i = 0; i < count; ++i) {
    const size_t at = tail + 2056 + 40 * i;
    m_bytes[at + 2] = m_systemIds[i];
    std::fill_n(&m_bytes[at + 28], 12, static_cast<unsigned char>(0xA5));
  }
  m_bytes[tail + 2056 + 40 * count] = 0x5A;
  platform::StoreLe32(&m_bytes[tail + 2057 + 40 * count], 0x12345678);
}

void ForeignImage::Scramble() {
  m_bytes[656] = 1;
  std::copy_n(m_header.key.begin(), std::min<size_t>(m_header.key.size(), 36),
              m_bytes.begin() + 657);
  const bool compact = m_header.tailOffset != 0;
  const size_t at = compact ? m_header.tailOffset + size_t{512} : 5512;
  const size_t length = compact ? 1544 + 40 * m_systemIds.size() : 1800;
  HeaderScramble(&m_bytes[at], m_header.key.substr(0, 36).c_str(), static_cast<int>(length), 0);
}

Bytes ForeignImage::Finish() {
  std::ranges::copy(m_header.version, m_bytes.begin());
  platform::StoreLe32(&m_bytes[715], Offset());
  m_bytes[719] = m_header.compressed ? 2 : 0;
  m_bytes[720] = 3;
  m_header.tailOffset != 0 ? FillCompactHeader() : FillFixedHeader();
  if (m_header.scrambled) Scramble();
  for (unsigned char i = 0; i < 7; ++i) m_bytes.push_back(i);
  Put(m_index);
  return std::move(m_bytes);
}

}  // namespace capsule::test
