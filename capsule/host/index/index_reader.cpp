#include "capsule/host/index/index_reader.h"

#include <algorithm>
#include <limits>

#include "capsule/platform/byte_reader.h"

namespace capsule::host {
namespace {

constexpr size_t kLongestRecord = 1 + 2 + std::numeric_limits<uint16_t>::max() + 4 + 4;
constexpr size_t kWindow = size_t{1} << 20;
static_assert(kWindow >= kLongestRecord);

}  // namespace

IndexReader::IndexReader(const ImageFile& image, uint64_t position)
    : m_window(image, kWindow), m_position(position), m_end(image.Size()) {}

std::span<const unsigned char> IndexReader::Take(size_t count) {
  const uint64_t left = m_end - std::min(m_end, m_position);
  const auto bytes = m_window.At(m_position, static_cast<size_t>(std::min<uint64_t>(left, count)));
  m_position += bytes.size();
  return bytes;
}

bool IndexReader::TakeRecord(IndexRecord* record) {
  const uint64_t start = m_position;
  const auto bytes = Take(kLongestRecord);
  platform::ByteReader reader(bytes);
  TakeIndexRecord(reader, record);
  m_position = reader.Ok() ? start + reader.Position() : start;
  m_record = bytes.first(reader.Ok() ? reader.Position() : 0);
  return reader.Ok();
}

}  // namespace capsule::host
