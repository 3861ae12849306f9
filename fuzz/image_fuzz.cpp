// A whole image: opened strictly, by salvage and by the class interface, read, verified, mapped.
// What opens strictly has the same files by salvage.
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "capsule/container/capsule_file.h"
#include "capsule/host/error.h"
#include "capsule/host/image.h"
#include "capsule/host/verifier.h"
#include "fuzz/memory_file.h"
#include "fuzz/read_all.h"

namespace {

using namespace capsule;

constexpr size_t kMostRead = 1 << 22;

size_t ReadSome(const host::Image& image) {
  size_t files = 0;
  size_t left = kMostRead;
  std::vector<unsigned char> piece(1 << 16);
  fuzz::VisitFiles(image, [&](const host::Entry& entry) {
    ++files;
    try {
      host::FileReader reader = image.OpenFile(entry);
      for (uint64_t at = 0; at < entry.Size() && left > 0;) {
        const size_t got = reader.Read(at, piece);
        at += got;
        left -= std::min(left, got);
      }
    } catch (const host::Error&) {
    }
  });
  return files;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto source = host::MemorySource({data, size});
  size_t strict = 0;
  bool isSound = false;
  try {
    const host::Image image(source, "fuzz");
    isSound = image.Problems().empty();
    strict = ReadSome(image);
  } catch (const host::Error&) {
  }
  try {
    const host::Image image(source, "fuzz", host::Opening::Salvage);
    const size_t salvaged = ReadSome(image);
    fuzz::Require(!isSound || salvaged == strict, "a sound image has the same files either way");
  } catch (const host::Error&) {
    fuzz::Require(!isSound, "a sound image can be opened either way");
  }
  try {
    static_cast<void>(host::Verifier(source, "fuzz").Run([](const host::Fault&) {}));
  } catch (const host::Error&) {
  }
  const fuzz::MemoryFile file({data, size});
  try {
    CapsuleFile image(file.Path().c_str());
    image.ReadImage(0);
  } catch (int) {
  }
  return 0;
}
