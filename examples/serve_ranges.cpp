// Serves one file of an image to several threads: each fetches ranges of its own, in no order, and
// puts them where they belong in a copy of the file.
// Usage: serve_ranges IMAGE PATH COPY
#include <capsule/host/image.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kThreads = 4;
constexpr uint64_t kRange = 20000;

// Fetches every kThreads-th range, from the end of the file to its start. The Image is shared; each
// thread has a reader of its own.
void Fetch(const capsule::host::Image& image, const capsule::host::Entry& entry, unsigned thread,
           int copy) {
  capsule::host::FileReader reader = image.OpenFile(entry);
  std::vector<unsigned char> range(kRange);
  for (uint64_t number = entry.Size() / kRange + 1; number-- > 0;) {
    if (number % kThreads != thread) continue;
    const uint64_t offset = number * kRange;
    const size_t size = reader.Read(offset, range);
    if (::pwrite(copy, range.data(), size, static_cast<off_t>(offset)) !=
        static_cast<ssize_t>(size)) {
      throw std::runtime_error("cannot write the copy");
    }
  }
}

int Serve(const char* path, const char* file, const char* target) {
  const capsule::host::Image image(path);
  const auto entry = image.Find(file);
  if (!entry || entry->IsDirectory()) throw std::runtime_error("no such file in the image");
  const int copy = ::open(target, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (copy < 0) throw std::runtime_error("cannot create the copy");

  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      try {
        Fetch(image, *entry, i, copy);
      } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return ::close(copy) == 0 && failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: serve_ranges IMAGE PATH COPY\n", stderr);
    return 2;
  }
  try {
    return Serve(argv[1], argv[2], argv[3]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
