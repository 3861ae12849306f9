#include "capsule/host/build/source_content.h"

#include <cerrno>

#include "capsule/host/error.h"
#include "capsule/host/file/image_file.h"
#include "capsule/host/file/reason.h"
#include "capsule/platform/file.h"

namespace capsule::host {
namespace {

constexpr const char* kChanged = "changed while it was read";

std::string ReadHostBytes(const SourceItem& item, uint64_t offset, std::span<unsigned char> out) {
  try {
    const ImageFile bytes(item.bytes, item.path);
    return bytes.ReadAt(offset, out) == out.size() ? "" : kChanged;
  } catch (const ShortageError&) {
    throw;
  } catch (const Error& error) {
    return error.Reason();
  }
}

}  // namespace

std::string ReadSource(const SourceItem& item, uint64_t offset, std::span<unsigned char> out) {
  if (item.bytes) return ReadHostBytes(item, offset, out);
  const int64_t got =
      platform::ReadAt(item.file.Get(), out.data(), out.size(), static_cast<int64_t>(offset));
  if (got == static_cast<int64_t>(out.size())) return {};
  if (got >= 0) return kChanged;
  ThrowIfShort(item.path, "cannot be read", errno);
  return SystemReason(errno);
}

std::string ChangeOf(const SourceItem& item) {
  if (item.bytes || !item.file) return {};
  const auto now = platform::Stamp(item.file.Get());
  if (!now) return SystemReason(errno);
  return *now == item.stamp ? "" : kChanged;
}

}  // namespace capsule::host
