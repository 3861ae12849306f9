// TrialImage shows whether an image would open by an index that it has not got yet: a file as long
// as the image with the records that opening reads, the new index behind them, and holes for the
// rest. It lies beside the image, or in the folder for temporary files, and goes with its object.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "capsule/host/file/image_file.h"
#include "capsule/platform/temporary_file.h"

namespace capsule::host {

class TrialImage {
 public:
  // Makes an empty file to try `image` with. Throws host::Error when no file can be made.
  explicit TrialImage(const ImageFile& image);

  int Descriptor() const { return m_file.Descriptor(); }
  uint64_t Length() const;

  // Copies the bytes of the image from `begin` to `end`.
  void Copy(uint64_t begin, uint64_t end);

  // Puts `header` at the start of the file.
  void Put(std::span<const unsigned char> header);

  // Throws host::Error unless it opens strictly, and, where `isWhole`, without a problem.
  void Open(bool isWhole) const;

 private:
  [[noreturn]] void Fail(const char* step) const;

  ImageFile m_image;
  platform::TemporaryFile m_file;
};

// Copies bytes of an image to the same place of an open file; false with errno when it cannot be
// written. Throws Error.
bool CopyBytes(const ImageFile& from, int to, uint64_t begin, uint64_t end);

}  // namespace capsule::host
