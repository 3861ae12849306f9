// The window is refilled whenever it holds less than the longest record that is possible. A record
// that still does not fit is then cut off by the end of the file.
#include "capsule/container/index_window.h"

#include "capsule/platform/file.h"

namespace capsule {
namespace {

constexpr size_t kWindowSize = size_t{128} * 1024;
static_assert(kWindowSize >= kLongestIndexRecord);

}  // namespace

IndexWindow::IndexWindow(int descriptor, int64_t position)
    : m_nDescriptor(descriptor), m_nPosition(position) {}

std::optional<IndexRecord> IndexWindow::TakeRecord() {
  if (!m_bEnd && m_Bytes.size() - m_nTaken < kLongestIndexRecord) Refill();
  platform::ByteReader reader(std::span<const unsigned char>(m_Bytes).subspan(m_nTaken));
  IndexRecord record = TakeIndexRecord(reader);
  if (!reader.Ok()) return std::nullopt;
  m_nTaken += reader.Position();
  return record;
}

void IndexWindow::Refill() {
  m_nPosition += static_cast<int64_t>(m_nTaken);
  m_nTaken = 0;
  m_Bytes.resize(kWindowSize);
  const int64_t got = platform::ReadAt(m_nDescriptor, m_Bytes.data(), kWindowSize, m_nPosition);
  if (got < 0) throw 0;
  m_Bytes.resize(static_cast<size_t>(got));
  m_bEnd = m_Bytes.size() < kWindowSize;
}

}  // namespace capsule
