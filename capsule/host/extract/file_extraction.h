// FileExtraction writes the contents of single files of an image into open folders. Many threads
// may use one.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "capsule/host/extract/output_file.h"
#include "capsule/host/extract/read_ahead.h"
#include "capsule/host/extract_options.h"
#include "capsule/host/image.h"
#include "capsule/host/records/record_source.h"

namespace capsule::host {

struct ExtractedFile {
  uint64_t bytes = 0;
  bool isDamaged = false;  // and all that is lost of it was told
};

// What one worker uses again and again.
struct Workspace {
  std::shared_ptr<ReadAhead> ahead;
  ImageFile image;  // read through `ahead`
  std::vector<unsigned char> piece;
};

class FileExtraction {
 public:
  // Both must outlive it.
  FileExtraction(const Image& image, const ExtractOptions& options)
      : m_image(image), m_options(options) {}

  const ExtractOptions& Options() const { return m_options; }
  RecordSource SourceOf(const Entry& file) const { return m_image.SourceOf(file); }

  // Extracts a file in one go, as the options want it when it is damaged. It appears under its name
  // when it is complete, or when the options take what is left of it, or not at all; an existing
  // one is replaced only with `force`. `onBytes` learns how much of it is there; what it throws
  // ends it. Throws Error.
  ExtractedFile Extract(const Entry& file, const TargetFolder& folder,
                        const std::function<void(uint64_t bytes)>& onBytes) const;

  // Extracts a short file that must be whole, and sets `*written` to what is there of it as it
  // grows. `source`: that of the file, which may be read through something faster. Throws Error.
  void ExtractShort(RecordSource source, const Entry& file, const TargetFolder& folder,
                    Workspace& workspace, uint64_t* written) const;

 private:
  const Image& m_image;
  const ExtractOptions& m_options;
};

}  // namespace capsule::host
