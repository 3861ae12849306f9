// What the classes of the library share by contract, in one place.
//
// A process-wide state, built on first use, serves hosts that use the classes directly. A
// host::ImageBuilder or an opening host::Image makes a state of its own current on its thread for
// the length of a call. One thread uses a state at a time; everything below takes what it needs as
// a parameter.
#pragma once

#include <cstdint>
#include <memory>
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
  LibraryState* m_previous;
};

}  // namespace capsule
