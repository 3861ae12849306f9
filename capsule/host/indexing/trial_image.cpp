#include "capsule/host/indexing/trial_image.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/image.h"
#include "capsule/platform/file.h"

namespace capsule::host {
namespace {

constexpr uint64_t kPiece = uint64_t{64} << 10;

}  // namespace

TrialImage::TrialImage(const ImageFile& image) : m_image(image) {
  const std::string& name = image.Name();
  if (m_file.Create(name)) return;
  std::error_code ignored;
  const auto folder = std::filesystem::temp_directory_path(ignored);
  const auto file = folder / std::filesystem::path(name).filename();
  if (folder.empty() || !m_file.Create(file.string())) Fail("cannot create a file to try it with");
}

uint64_t TrialImage::Length() const {
  return static_cast<uint64_t>(std::max<int64_t>(platform::FileLength(Descriptor()), 0));
}

void TrialImage::Copy(uint64_t begin, uint64_t end) {
  if (!CopyBytes(m_image, Descriptor(), begin, end)) Fail("copy");
}

void TrialImage::Put(std::span<const unsigned char> header) {
  if (!platform::WriteAt(Descriptor(), header.data(), header.size(), 0)) Fail("copy");
}

void TrialImage::Open(bool isWhole) const {
  std::string problem;
  try {
    const Image image(DescriptorSource(Descriptor()), m_file.Path());
    if (!isWhole || image.IsWhole()) return;
    problem = image.Problems().front().path + ": " + image.Problems().front().reason;
  } catch (const Error& error) {
    problem = error.Reason();
  }
  throw Error(m_image.Name(), "no index leads to what is there: " + problem);
}

void TrialImage::Fail(const char* step) const { ThrowSystemError(m_image.Name(), step, errno); }

bool CopyBytes(const ImageFile& from, int to, uint64_t begin, uint64_t end) {
  std::vector<unsigned char> bytes(static_cast<size_t>(std::min(end - begin, kPiece)));
  for (uint64_t at = begin; at < end;) {
    const auto count = static_cast<size_t>(std::min<uint64_t>(end - at, bytes.size()));
    const size_t length = from.ReadAt(at, std::span(bytes).first(count));
    if (length == 0) throw Error(from.Name(), "ends at " + Hex(at), at);
    if (!platform::WriteAt(to, bytes.data(), length, static_cast<int64_t>(at))) return false;
    at += length;
  }
  return true;
}

}  // namespace capsule::host
