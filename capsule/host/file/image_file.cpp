// This is where failures of a byte source become errors that name the image; what a source claims
// to have filled is never believed beyond the room that it was given.
#include "capsule/host/file/image_file.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"

namespace capsule::host {
namespace {

uint64_t SizeOf(const ByteSource& source, const std::string& name) {
  try {
    return source.Size();
  } catch (const std::system_error& error) {
    ThrowSystemError(name, "cannot tell its length", error.code());
  }
}

}  // namespace

ImageFile::ImageFile(std::shared_ptr<const ByteSource> source, std::string name) {
  if (!source) throw Error(ErrorKind::Misuse, name, "there is no source");
  const uint64_t size = SizeOf(*source, name);
  m_state = std::make_shared<const State>(State{std::move(source), std::move(name), size});
}

ImageFile::ImageFile(int descriptor, std::string name)
    : ImageFile(DescriptorSource(descriptor), std::move(name)) {}

size_t ImageFile::ReadAt(uint64_t offset, std::span<unsigned char> out) const {
  try {
    // A source of the host may claim to have filled more than it was given.
    return std::min(m_state->source->ReadAt(offset, out), out.size());
  } catch (const std::system_error& error) {
    ThrowSystemError(Name(), "read at " + Hex(offset), error.code(), offset);
  }
}

}  // namespace capsule::host
