// Extractor writes entries of an image into a folder, and nothing outside of it.
//
//   host::Extractor extractor(image, "restored");
//   extractor.Add(*image.Find("0:/2024"));
//   host::ExtractReport report = extractor.Run();
//
// An entry goes to its whole path below the target, so its folders are made too; the partitions of
// an image with several go to folders named by their numbers. The target must exist and must not
// be a link (a path that ends in '/' is the folder behind the link). No link found on the way is
// followed, whatever it leads to.
//
// A file is written under a temporary name (.capsule-tmp-*) and gets its own when it is complete.
// What a killed run left under such a name in a folder that is entered is removed.
// What exists stays: a file is replaced, in one step, only with `force`; folders are entered, and
// keep their times unless `force`. Files get the stored modification time, and no permission to
// write when they are read-only.
//
// What cannot be written is listed in the report, and the rest goes on: names that are no names of
// a file system ("", ".", "..", any with '/', '\' or NUL), existing files, damaged contents,
// second entries of the same name, folders nested deeper than kMaxExtractDepth.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "capsule/export.h"
#include "capsule/host/extract_options.h"
#include "capsule/host/image.h"
#include "capsule/host/impl_pointer.h"

namespace capsule::host {

inline constexpr int kMaxExtractDepth = 2048;

struct ExtractProblem {
  std::string path;  // the entry, "N:/folder/file"
  std::string reason;
};

struct ExtractReport {
  uint64_t files = 0;
  uint64_t directories = 0;  // made, not only entered
  uint64_t bytes = 0;
  uint64_t damagedFiles = 0;  // of `files`: those that something is lost of
  std::vector<ExtractProblem> problems;
};

class CAPSULE_API Extractor {
 public:
  // The image must outlive the extractor. Throws Error when the target cannot be opened.
  Extractor(const Image& image, std::filesystem::path target, ExtractOptions options = {});
  ~Extractor();
  Extractor(Extractor&&) noexcept;
  Extractor& operator=(Extractor&&) noexcept;

  // Chooses an entry, with all below it. Without any, Run extracts everything.
  void Add(const Entry& entry);

  // Throws Error when it is cancelled, or the target folder is taken away or moved meanwhile, and
  // ShortageError when memory or descriptors run out: what is complete by then stays.
  [[nodiscard]] ExtractReport Run();

 private:
  struct Impl;
  ImplPointer<Impl> m_impl;
};

}  // namespace capsule::host
