// Check values of sections are replaced after the buffer may have been written, so the check value
// of the index is computed by reading the index back from the file in the end.
#include "capsule/host/indexing/index_stream.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/file/reason.h"
#include "capsule/platform/file.h"

namespace capsule::host {
namespace {
constexpr size_t kBufferSize = size_t{64} << 10;
}

IndexStream::IndexStream(int descriptor, std::string name, uint64_t offset)
    : m_descriptor(descriptor),
      m_name(std::move(name)),
      m_start(offset),
      m_flushed(offset),
      m_buffer(kIndexPreamble) {}

uint64_t IndexStream::Append(const IndexRecord& record) {
  const uint64_t position = m_flushed + m_buffer.size();
  AppendIndexRecord(record, &m_buffer);
  if (m_buffer.size() >= kBufferSize) Flush();
  return position;
}

void IndexStream::Replace(uint64_t position, const IndexRecord& record) {
  std::vector<unsigned char> bytes;
  AppendIndexRecord(record, &bytes);
  if (position >= m_flushed) {
    std::copy(bytes.begin(), bytes.end(),
              m_buffer.begin() + static_cast<std::ptrdiff_t>(position - m_flushed));
  } else {
    WriteAt(position, bytes);
  }
}

uint64_t IndexStream::Finish() {
  Flush();
  IndexChecksum checksum;
  FileWindow window(ImageFile(m_descriptor, m_name));
  for (uint64_t at = m_start + kIndexPreamble; at < m_flushed;) {
    const uint64_t left = m_flushed - at;
    const auto bytes =
        window.At(at, static_cast<size_t>(std::min<uint64_t>(left, FileWindow::kSize)));
    if (bytes.empty()) throw Error(m_name, "index ends at " + Hex(at), at);
    checksum.Update(bytes);
    at += bytes.size();
  }
  WriteAt(m_start, EncodeIndexStart(checksum.Value()));
  return m_flushed;
}

void IndexStream::Flush() {
  WriteAt(m_flushed, m_buffer);
  m_flushed += m_buffer.size();
  m_buffer.clear();
}

void IndexStream::WriteAt(uint64_t offset, std::span<const unsigned char> bytes) {
  if (!platform::WriteAt(m_descriptor, bytes.data(), bytes.size(), static_cast<int64_t>(offset))) {
    ThrowSystemError(m_name, "write at " + Hex(offset), errno, offset);
  }
}

}  // namespace capsule::host
