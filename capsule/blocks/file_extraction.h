// FileExtraction is what a file block keeps between the extractions of one file.
#pragma once

#include <cstdint>
#include <vector>

namespace capsule {

struct FileExtraction {
  // One data block: where its record lies in the image, where its chunk begins in the file.
  struct Place {
    int32_t record = 0;
    int64_t start = 0;
  };

  // The history with which data block `block` is decoded.
  struct Checkpoint {
    int block = 0;
    std::vector<unsigned char> history;
  };

  static constexpr int kUnknown = -1;  // the history is of no use

  std::vector<Place> places;
  int64_t end = 0;                      // where the last chunk ends
  int historyAt = kUnknown;             // the data block that the history decodes next
  std::vector<Checkpoint> checkpoints;  // ascending
  std::vector<int> decompressed;        // data blocks whose chunks are held
};

}  // namespace capsule
