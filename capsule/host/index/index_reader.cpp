// The window is refilled whenever it holds less than the longest record that is possible, as long
// as the image goes on. What is used up is dropped then.
#include "capsule/host/index/index_reader.h"

#include <algorithm>

#include "capsule/platform/byte_reader.h"

namespace capsule::host {
namespace {

constexpr size_t kWindow = size_t{1} << 20;
static_assert(kWindow >= kLongestIndexRecord);

}  // namespace

IndexReader::IndexReader(const ImageFile& image, uint64_t position)
    : m_image(image), m_read(position), m_end(image.Size()) {}

void IndexReader::SumUp(IndexChecksum* sum) {
  m_sum = sum;
  m_sum->Update(std::span(m_bytes).subspan(m_used));
}

std::span<const unsigned char> IndexReader::Take(size_t count) {
  const auto bytes = Peek(count);
  m_used += bytes.size();
  return bytes;
}

bool IndexReader::TakeRecord(IndexRecord* record) {
  platform::ByteReader reader(Peek(kLongestIndexRecord));
  TakeIndexRecord(reader, record);
  if (reader.Ok()) m_used += reader.Position();
  return reader.Ok();
}

void IndexReader::TakeRest() {
  do {
    m_used = m_bytes.size();
    Refill();
  } while (!m_bytes.empty());
}

std::span<const unsigned char> IndexReader::Peek(size_t count) {
  if (m_bytes.size() - m_used < count && m_read < m_end) Refill();
  return std::span(m_bytes).subspan(m_used, std::min(count, m_bytes.size() - m_used));
}

// Drops what is used up and fills the rest of the window.
void IndexReader::Refill() {
  m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_used));
  m_used = 0;
  const size_t held = m_bytes.size();
  const uint64_t left = m_end - std::min(m_end, m_read);
  m_bytes.resize(held + static_cast<size_t>(std::min<uint64_t>(kWindow - held, left)));
  const auto fresh = std::span(m_bytes).subspan(held);
  const size_t got = m_image.ReadAt(m_read, fresh);
  m_read += got;
  if (got < fresh.size()) m_end = m_read;  // the image was cut short meanwhile
  m_bytes.resize(held + got);
  if (m_sum != nullptr) m_sum->Update(std::span(m_bytes).subspan(held));
}

}  // namespace capsule::host
