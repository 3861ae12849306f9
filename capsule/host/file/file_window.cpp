// The buffer is filled from the offset that is asked for. After a leap forward little is read,
// since whoever leaves much out is looking at headers.
#include "capsule/host/file/file_window.h"

#include <algorithm>
#include <utility>

namespace capsule::host {

FileWindow::FileWindow(ImageFile image, size_t size) : m_image(std::move(image)), m_bytes(size) {}

std::span<const unsigned char> FileWindow::At(uint64_t offset, size_t count) {
  const uint64_t left = m_image.Size() - std::min(m_image.Size(), offset);
  count = static_cast<size_t>(std::min<uint64_t>({count, m_bytes.size(), left}));
  if (count == 0) return {};
  const bool inside = offset >= m_start && offset - m_start <= m_filled &&
                      count <= m_filled - static_cast<size_t>(offset - m_start);
  if (!inside) Fill(offset, count);
  const auto at = static_cast<size_t>(offset - m_start);
  return std::span<const unsigned char>(m_bytes).subspan(at, std::min(count, m_filled - at));
}

void FileWindow::Fill(uint64_t offset, size_t count) {
  // Whoever leaves much out is after headers, and would have most of a large window read for
  // naught.
  const bool isLeap = offset > m_start + m_filled + kLeapSize;
  const size_t wanted = isLeap ? std::max(count, kLeapSize) : m_bytes.size();
  m_start = offset;
  m_filled = 0;
  m_filled = m_image.ReadAt(offset, std::span(m_bytes).first(wanted));
}

}  // namespace capsule::host
