// What the classes of the library share by contract, in one place.
//
// A process-wide state, built on first use, serves hosts that use the classes directly. A
// host::ImageBuilder or an opening host::Image makes a state of its own current on its thread for
// the length of a call. One thread uses a state at a time; everything below takes what it needs as
// a parameter.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "capsule/platform/host_view.h"

namespace capsule {

class ImageIndex;
class StreamCompressor;

struct LibraryState {
  LibraryState();
  ~LibraryState();
  LibraryState(const LibraryState&) = delete;
  LibraryState& operator=(const LibraryState&) = delete;

  // Directory part of the path of the previous insertion, over all images.
  // Written and read by CapsuleFile::InsertFile.
  std::string previousInsertDir;

  // Zero entries still to be written in front of the next entry. Set by CapsuleFile::InsertFile,
  // consumed by CapsuleDirectoryEntry::SetZeroDirEntry.
  int32_t dirLevelsToClose = 0;

  // Where the next chunk of the file being chunked begins. CapsuleFileDataBlock::ReadFileData.
  int32_t chunkReadPosition = 0;

  // Compresses all data blocks; reset for every insertion.
  std::unique_ptr<StreamCompressor> compressor;

  // The current index, or null. Written by ImageIndex::Instance and DeleteCurrentInstance, which
  // also say how it is destroyed.
  std::unique_ptr<ImageIndex, void (*)(ImageIndex*)> index{nullptr, nullptr};

  // When it is there and true, the insertion of a file fails soon. Set by host::ImageBuilder, made
  // true on any thread; read between the chunks of a file.
  const std::atomic<bool>* cancel = nullptr;

  // Called, when it is there, in front of every chunk of a file but the first, while that is
  // inserted: where its record will begin in the image, its offset in the file, the chunk before
  // it, and whether both are compressed. Set by host::ImageBuilder.
  std::function<void(int64_t record, uint32_t fileOffset, std::span<const unsigned char> before,
                     bool isCompressed)>
      onChunk;

  // How inserted paths are resolved and described.
  platform::HostView hostView;
};

// The state current on this thread: the innermost ScopedLibraryState's, else the process's.
LibraryState& CurrentLibraryState();

// Makes `state` current on this thread until the end of the scope.
class ScopedLibraryState {
 public:
  explicit ScopedLibraryState(LibraryState& state);
  ~ScopedLibraryState();
  ScopedLibraryState(const ScopedLibraryState&) = delete;
  ScopedLibraryState& operator=(const ScopedLibraryState&) = delete;

 private:
  LibraryState* m_pPrevious;
};

}  // namespace capsule
