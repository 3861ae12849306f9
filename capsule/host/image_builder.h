// ImageBuilder makes one image of one to ten folders, all or nothing.
//
//   host::ImageBuilder builder("photos.cap", {.level = 5});
//   builder.AddDirectory("photos");
//   host::BuildReport report = builder.Finish();
//
// Instead of a folder, a partition may be put together of single items (build_item.h).
//
// The image is written under a temporary name beside its own (mode 0600 until done), completed by
// its index, synced and renamed: an existing file stays as it was until then. The same folders give
// the same bytes wherever they lie. Links and special files are skipped and counted. What cannot
// be read, changes meanwhile, or has a name the format cannot hold is left out (a folder with all
// below it) and listed in the report. So is the file that the image replaces, under any name that
// lies in a folder. What the format cannot keep of an item is counted. Running out of memory or
// descriptors ends the build. Items are opened from their folders without following links, and are
// what they were when they were opened.
//
// One thread uses a builder; Cancel may be called from any thread. Failures throw host::Error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <stop_token>
#include <string>
#include <vector>

#include "capsule/export.h"
#include "capsule/host/build_item.h"
#include "capsule/host/error.h"
#include "capsule/host/impl_pointer.h"
#include "capsule/host/progress.h"

namespace capsule::host {

struct BuildOptions {
  // 0 stored, 1-3 fast, 4-6 medium, 7-9 maximum. Files that are compressed by themselves, as their
  // extension tells (.zip, .jpg and the like), are stored at any level; so are those that do not
  // get smaller.
  int level = 5;
  std::string label{};                  // version text; "Capsulate" is put in front unless there
  bool labelsFolders = false;           // give each partition the name of its folder
  std::vector<std::string> excludes{};  // globs: matched against an item's name, or with a '/' in
                                        // them against its path below its DIR
  // Asked for every item of a folder, with its path below DIR: whether to leave it out.
  std::function<bool(const std::string& path)> leavesOut{};

  int jobs = 0;        // threads that compress; 0: one a processor. The image is the same with any
  bool force = false;  // replace an existing file that is not an image, which is refused otherwise

  // Told behind every item, and within long files. The total is known only with `countFirst`,
  // which walks the folders once more before they are read.
  OnProgress onProgress{};
  bool countFirst = false;
  std::stop_token stop{};  // ends the build as Cancel does
};

struct BuildProblem {
  std::string path;  // the source as the system knows it
  std::string reason;
};

struct BuildReport {
  uint64_t files = 0;
  uint64_t directories = 0;
  uint64_t sourceBytes = 0;
  uint64_t skipped = 0;  // links and special files
  uint64_t excluded = 0;
  uint64_t imageBytes = 0;

  // Files of more than a mebibyte are compressed in spans side by side: how often two were put
  // together, and how often the second was compressed once more for the bytes to be the same.
  uint64_t seams = 0;
  uint64_t seamsRedone = 0;

  // What is in the image, but not quite as it was.
  uint64_t timesChanged = 0;  // times of modification outside 1980 to 2107: the nearest is stored
  uint64_t modesDropped = 0;  // permissions other than 644, 755 for folders, or none to write in it
  uint64_t hardLinks = 0;     // names of files that have several: each becomes a file of its own

  std::vector<BuildProblem> problems;
  std::vector<BuildProblem> oldImages;  // names of the file that the image replaces, left out
  std::vector<BuildProblem>
      unfinished;  // files of this library that were never completed, left out
};

class CAPSULE_API ImageBuilder {
 public:
  // Throws when the options are out of range, the folder of `image` does not exist, or `image` is a
  // file that is neither empty nor an image. What a link leads to is replaced, not the link.
  explicit ImageBuilder(const std::filesystem::path& image, BuildOptions options = {});

  // Without Finish the temporary file is removed and the old image left.
  ~ImageBuilder();
  ImageBuilder(ImageBuilder&&) noexcept;
  ImageBuilder& operator=(ImageBuilder&&) noexcept;

  // Inserts everything below `directory` as the next partition. Throws when it cannot be opened
  // or is the eleventh, and when `label` is longer than 255 bytes, not UTF-8 or has control
  // characters. An empty one is none.
  void AddDirectory(const std::filesystem::path& directory, const std::string& label = {});

  // Makes the next partition of single items. Throws when they do not fit together, when a source
  // cannot be opened, or when it is the eleventh partition. Bytes that cannot be read are a problem
  // of the report.
  void AddItems(const std::vector<BuildItem>& items, const std::string& label = {});

  // Calls AddDirectory for each. Throws before the first when there are more than an image holds.
  void AddDirectories(const std::vector<std::filesystem::path>& directories);

  // Completes the image and puts it under its name. When it throws, the old image is as it was.
  // That the image may not be on disk under its name, though it has it, is a problem in the report.
  [[nodiscard]] BuildReport Finish();

  // What is to be told of the folders so far, for when a later step fails. Empty after Finish.
  const std::vector<BuildProblem>& Problems() const;

  // Makes AddDirectory or Finish throw soon, with ErrorKind::Cancelled. The old image stays.
  void Cancel();

 private:
  struct Impl;
  ImplPointer<Impl> m_impl;
};

}  // namespace capsule::host
