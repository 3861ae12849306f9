#include "capsule/host/build/image_output.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "capsule/host/file/reason.h"
#include "capsule/platform/file.h"

namespace capsule::host {
namespace {

constexpr size_t kBufferSize = size_t{1} << 20;
constexpr uint64_t kWriteBackDistance = uint64_t{8} << 20;

}  // namespace

ImageOutput::ImageOutput(int descriptor, std::string name)
    : m_descriptor(descriptor), m_name(std::move(name)) {
  m_buffer.reserve(kBufferSize);
}

void ImageOutput::GoTo(uint64_t offset) {
  if (offset >= m_flushed && offset <= Position()) {
    m_buffer.resize(static_cast<size_t>(offset - m_flushed));
    return;
  }
  m_buffer.clear();
  m_flushed = offset;
  m_sent = std::min(m_sent, offset);
}

void ImageOutput::Append(std::span<const unsigned char> bytes) {
  if (m_buffer.size() + bytes.size() > kBufferSize) Flush();
  if (bytes.size() >= kBufferSize) return Write(bytes);
  m_buffer.insert(m_buffer.end(), bytes.begin(), bytes.end());
}

void ImageOutput::Flush() {
  Write(m_buffer);
  m_buffer.clear();
}

void ImageOutput::Write(std::span<const unsigned char> bytes) {
  if (bytes.empty()) return;
  if (!platform::WriteAt(m_descriptor, bytes.data(), bytes.size(),
                         static_cast<int64_t>(m_flushed))) {
    ThrowSystemError(m_name, "write", errno);
  }
  m_flushed += bytes.size();
  if (m_flushed - m_sent < kWriteBackDistance) return;
  platform::StartWriteBack(m_descriptor, static_cast<int64_t>(m_sent),
                           static_cast<int64_t>(m_flushed - m_sent));
  m_sent = m_flushed;
}

}  // namespace capsule::host
