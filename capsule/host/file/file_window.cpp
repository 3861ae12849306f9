#include "capsule/host/file/file_window.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/platform/file.h"

namespace capsule::host {

FileWindow::FileWindow(int descriptor, std::string name, size_t size)
    : m_nDescriptor(descriptor), m_strName(std::move(name)), m_Bytes(size) {}

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
  const int64_t got =
      platform::ReadAt(m_nDescriptor, m_Bytes.data(), wanted, static_cast<int64_t>(offset));
  m_nStart = offset;
  m_nFilled = got < 0 ? 0 : static_cast<size_t>(got);
  if (got < 0) {
    ThrowSystemError(m_strName, "read at " + Hex(offset), errno, offset);
  }
}

}  // namespace capsule::host
