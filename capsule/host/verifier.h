// Verifier reads everything in an image and names each fault.
//
//   host::VerifyReport report = host::Verifier("photos.cap").Run([](const host::Fault& fault) {
//     Print(fault.offset, fault.path, fault.reason);
//   });
//   if (report.faults == 0) Show("sound");
//
// What is checked: the structure of header, sections and index (image_map.h); ordinals and
// checksums of long names; flags, params and lengths of records; that every unit decodes to exactly
// the length that it states and every file to its size; that the index names what is there, and all
// of it; the check values in the index, where there are any. Whatever opening the image finds wrong
// is a fault too. A fault ends nothing but the reading of the file that it hits. An image without
// an index is verified by what it has.
//
// Files of the file system's own in NTFS partitions ($MFT and the like) may be without data:
// writers leave it out.
//
// Many threads decode and compare, reading the source at once; faults and progress are told on the
// thread that calls Run, and are the same with any number of threads.
//
// Memory: that of the open image, 4 bytes for each file and folder, and some MB a thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>

#include "capsule/export.h"
#include "capsule/host/byte_source.h"
#include "capsule/host/progress.h"

namespace capsule::host {

struct Fault {
  uint64_t offset = 0;  // in the image
  std::string path;     // the file or folder that it hits, "N:/folder/file"; may be empty
  std::string reason;   // one line, lower-case
};

struct VerifyReport {
  uint64_t faults = 0;
  uint64_t files = 0;        // that were read, good or bad
  uint64_t bytes = 0;        // sizes of those that are good, summed up
  uint64_t checkValues = 0;  // that were compared, that of the index included
  bool hasIndex = false;
};

struct VerifyOptions {
  OnProgress onProgress{};  // its bytes are those of the image
  std::stop_token stop{};
  int jobs = 0;  // threads that decode; 0: one a processor, 1: none but the caller's
};

class CAPSULE_API Verifier {
 public:
  explicit Verifier(const std::filesystem::path& image);

  // The image whose bytes `source` has; `name`: what errors call it.
  Verifier(std::shared_ptr<const ByteSource> source, std::string name);

  // Throws host::Error when the file cannot be read, is not an image at all, or it is cancelled.
  [[nodiscard]] VerifyReport Run(const std::function<void(const Fault&)>& take,
                                 const VerifyOptions& options = {}) const;

 private:
  std::shared_ptr<const ByteSource> m_source;
  std::string m_name;
};

}  // namespace capsule::host
