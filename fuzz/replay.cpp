// Plays every file of the folders and files given back to a fuzz target. Fails when there is none.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

void PlayBack(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> chars{std::istreambuf_iterator<char>(file), {}};
  const std::vector<uint8_t> bytes(chars.begin(), chars.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

int PlayBackAll(const fs::path& path) {
  if (!fs::is_directory(path)) {
    PlayBack(path);
    return 1;
  }
  int count = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    count += PlayBackAll(entry.path());
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) count += PlayBackAll(argv[i]);
  std::printf("%d inputs played back\n", count);
  return count == 0 ? 1 : 0;
}
