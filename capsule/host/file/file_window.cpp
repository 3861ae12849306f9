// The buffer is filled from the offset that is asked for. After a leap forward little is read,
// since whoever leaves much out is looking at headers.
#include "capsule/host/file/file_window.h"

#include <algorithm>
#include <utility>

namespace capsule::host {

FileWindow::FileWindow(ImageFile image, size_t size) : m_image(std::move(image)), m_Bytes(size) {}

std::span<const unsigned char> FileWindow::At(uint64_t offset, size_t count) {
  count = std::min(count, m_Bytes.size());
  const bool inside = offset >= m_nStart && offset - m_nStart <= m_nFilled &&
                      count <= m_nFilled - static_cast<size_t>(offset - m_nStart);
  if (!inside) Fill(offset, count);
  const auto at = static_cast<size_t>(offset - m_nStart);
  return std::span<const unsigned char>(m_Bytes).subspan(at, std::min(count, m_nFilled - at));
}

void FileWindow::Fill(uint64_t offset, size_t count) {
  // Whoever leaves much out is after headers, and would have most of a large window read for
  // naught.
  const bool isLeap = offset > m_nStart + m_nFilled + kLeapSize;
  const size_t wanted = isLeap ? std::max(count, kLeapSize) : m_Bytes.size();
  m_nStart = offset;
  m_nFilled = 0;
  m_nFilled = m_image.ReadAt(offset, std::span(m_Bytes).first(wanted));
}

}  // namespace capsule::host
