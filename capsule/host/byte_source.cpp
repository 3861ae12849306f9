// What a system call says arrives as a std::system_error: whoever knows the name of the image makes
// it an Error.
#include "capsule/host/byte_source.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

#include "capsule/host/file/reason.h"
#include "capsule/platform/file.h"

namespace capsule::host {
namespace {

[[noreturn]] void ThrowErrno() { throw std::system_error(errno, std::generic_category()); }

class OpenFile : public ByteSource {
 public:
  explicit OpenFile(int descriptor) : m_descriptor(descriptor) {}
  int Descriptor() const { return m_descriptor; }

  uint64_t Size() const override {
    const int64_t length = platform::FileLength(m_descriptor);
    if (length < 0) ThrowErrno();
    return static_cast<uint64_t>(length);
  }

  size_t ReadAt(uint64_t offset, std::span<unsigned char> out) const override {
    if (offset > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return 0;
    const int64_t got =
        platform::ReadAt(m_descriptor, out.data(), out.size(), static_cast<int64_t>(offset));
    if (got < 0) ThrowErrno();
    return static_cast<size_t>(got);
  }

 private:
  int m_descriptor;
};

class OwnedFile : public OpenFile {
 public:
  explicit OwnedFile(const std::filesystem::path& path)
      : OpenFile(platform::OpenForReading(path.c_str())) {
    if (Descriptor() < 0) ThrowSystemError(path.string(), "cannot open", errno);
  }
  ~OwnedFile() override { platform::Close(Descriptor()); }
};

class Memory : public ByteSource {
 public:
  explicit Memory(std::span<const unsigned char> bytes) : m_bytes(bytes) {}

  uint64_t Size() const override { return m_bytes.size(); }

  size_t ReadAt(uint64_t offset, std::span<unsigned char> out) const override {
    if (offset >= m_bytes.size()) return 0;
    const auto rest = m_bytes.subspan(static_cast<size_t>(offset));
    const auto count = std::min(rest.size(), out.size());
    std::copy_n(rest.begin(), count, out.begin());
    return count;
  }

 private:
  std::span<const unsigned char> m_bytes;
};

class Function : public ByteSource {
 public:
  using Read = std::function<size_t(uint64_t, std::span<unsigned char>)>;
  Function(uint64_t size, Read read) : m_size(size), m_read(std::move(read)) {}

  uint64_t Size() const override { return m_size; }
  size_t ReadAt(uint64_t offset, std::span<unsigned char> out) const override {
    return m_read(offset, out);
  }

 private:
  uint64_t m_size;
  Read m_read;
};

}  // namespace

ByteSource::~ByteSource() = default;

std::shared_ptr<const ByteSource> FileSource(const std::filesystem::path& path) {
  return std::make_shared<OwnedFile>(path);
}

std::shared_ptr<const ByteSource> DescriptorSource(int descriptor) {
  return std::make_shared<OpenFile>(descriptor);
}

std::shared_ptr<const ByteSource> MemorySource(std::span<const unsigned char> bytes) {
  return std::make_shared<Memory>(bytes);
}

std::shared_ptr<const ByteSource> FunctionSource(
    uint64_t size, std::function<size_t(uint64_t, std::span<unsigned char>)> read) {
  return std::make_shared<Function>(size, std::move(read));
}

}  // namespace capsule::host
