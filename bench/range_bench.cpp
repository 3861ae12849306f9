// Reads pieces of 4 KiB of one file of an image, all by one reader, in places that chance chose,
// and prints the times in milliseconds as one JSON object: opening the image, the first read, and
// the middle and the longest of the others. Usage: range_bench IMAGE PATH READS
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <stdexcept>
#include <vector>

#include "capsule/host/file_reader.h"
#include "capsule/host/image.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kPiece = 4096;

double Since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void Run(const char* path, const char* file, int reads) {
  const Clock::time_point start = Clock::now();
  const capsule::host::Image image(path);
  const double opened = Since(start);

  const auto entry = image.Find(file);
  if (!entry || entry->Size() <= kPiece) throw std::runtime_error("no such file, or too small");
  capsule::host::FileReader reader = image.OpenFile(*entry);
  std::mt19937_64 chance(1);
  std::array<unsigned char, kPiece> piece;
  std::vector<double> times;
  for (int i = 0; i < reads; ++i) {
    const uint64_t offset = chance() % (entry->Size() - kPiece);
    const Clock::time_point before = Clock::now();
    if (reader.Read(offset, piece) != kPiece) throw std::runtime_error("a piece is cut short");
    times.push_back(Since(before));
  }

  const double first = times.front();
  std::sort(times.begin() + 1, times.end());
  std::printf("{\"open\": %.3f, \"first\": %.3f, \"next\": %.3f, \"longest\": %.3f}\n", opened,
              first, times[(times.size() + 1) / 2], times.back());
}

}  // namespace

int main(int argc, char** argv) {
  const int reads = argc == 4 ? std::atoi(argv[3]) : 0;
  if (reads < 2) {
    std::fputs("usage: range_bench IMAGE PATH READS (two or more)\n", stderr);
    return 2;
  }
  try {
    Run(argv[1], argv[2], reads);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "range_bench: %s\n", error.what());
    return 1;
  }
}
