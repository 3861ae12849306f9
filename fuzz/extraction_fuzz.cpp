// Extraction to disk: whatever the image, nothing beside the target folder changes.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "capsule/host/error.h"
#include "capsule/host/extractor.h"
#include "fuzz/memory_file.h"
#include "fuzz/read_all.h"

namespace {

using namespace capsule;
namespace fs = std::filesystem;

constexpr uint64_t kMostBytes = 1 << 20;
constexpr char kSentinel[] = "left alone";

// A folder with the target in it, and a file beside the target.
class Sandbox {
 public:
  Sandbox() : m_path(Make()) {
    fs::create_directories(Target());
    std::ofstream(m_path / "beside") << kSentinel;
  }
  ~Sandbox() {
    fs::permissions(Target(), fs::perms::owner_all, fs::perm_options::add);
    fs::remove_all(m_path);
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  fs::path Target() const { return m_path / "a" / "target"; }

  void Check() const {
    std::ifstream file(m_path / "beside");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    fuzz::Require(text == kSentinel, "the file beside the target is as it was");
    fuzz::Require(Count(m_path) == 2 && Count(m_path / "a") == 1, "nothing is new beside it");
  }

 private:
  static fs::path Make() {
    const fs::path shared = fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
    std::string name = shared / "capsule-fuzz-XXXXXX";
    fuzz::Require(mkdtemp(name.data()) != nullptr, "a folder can be made");
    return name;
  }
  static std::ptrdiff_t Count(const fs::path& folder) {
    return std::distance(fs::directory_iterator(folder), {});
  }

  fs::path m_path;
};

bool IsSmall(const host::Image& image) {
  uint64_t bytes = 0;
  uint64_t files = 0;
  fuzz::VisitFiles(image, [&](const host::Entry& entry) {
    bytes += entry.Size();
    ++files;
  });
  return bytes <= kMostBytes && files <= 500;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzz::MemoryFile file({data, size});
  try {
    const host::Image image(file.Path(), host::Opening::Salvage);
    if (!IsSmall(image)) return 0;
    const Sandbox sandbox;
    static_cast<void>(host::Extractor(image, sandbox.Target()).Run());
    sandbox.Check();
  } catch (const host::Error&) {
  }
  return 0;
}
