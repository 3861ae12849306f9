// InsertObserver watches the insertion of one file, chunk by chunk, and may end it.
//
//   struct Progress : InsertObserver {
//     bool OnChunk(const Chunk& next) override {
//       Show(next.fileOffset);
//       return true;
//     }
//   } progress;
//   CapsuleFile backup;
//   backup.CreateCapsuleFile("backup.cap");
//   backup.WriteImageFileHeader("Capsulate");
//   backup.InsertFile("C:\\2024\\beach.jpg", 0, &progress);
//   backup.CloseImageFile();
#pragma once

#include <cstdint>
#include <span>

#include "capsule/export.h"

namespace capsule {

class CAPSULE_API InsertObserver {
 public:
  // The chunk that is about to be read.
  struct Chunk {
    int64_t record = 0;                     // where its data block record will begin in the image
    uint32_t fileOffset = 0;                // where the chunk begins in the file
    std::span<const unsigned char> before;  // the chunk before it, valid during the call
    bool isCompressed = false;              // whether the records of the file are compressed
  };

  InsertObserver() = default;
  virtual ~InsertObserver() = default;
  InsertObserver(const InsertObserver&) = delete;
  InsertObserver& operator=(const InsertObserver&) = delete;

  // Called in front of every chunk, on the thread that inserts. With false the insertion fails.
  virtual bool OnChunk(const Chunk& next) = 0;
};

}  // namespace capsule
