// ImageDraft is an image in the making: a temporary file beside the target, and the classes that
// write into it with a library state of their own.
//
// Calling order: the constructor, then BeginPartition and Insert as often as wanted, then Complete.
// A draft that is not completed leaves nothing behind. Failures throw Error about the target. One
// thread uses a draft.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "capsule/blocks/insert_observer.h"
#include "capsule/container/capsule_file.h"
#include "capsule/host/build/source_walk.h"
#include "capsule/host/indexing/restart_collector.h"
#include "capsule/platform/file.h"
#include "capsule/platform/temporary_file.h"
#include "capsule/state/library_state.h"

namespace capsule::host {

class ImageDraft {
 public:
  // `target`: absolute. `name`: what errors call it. `level`: 0 to 9. `version`: up to 255 bytes.
  // Once `*cancel` is true, Insert and Complete throw soon; the flag must outlive the draft.
  ImageDraft(std::string target, std::string name, int level, const std::string& version,
             const std::atomic<bool>* cancel);
  ~ImageDraft();
  ImageDraft(const ImageDraft&) = delete;
  ImageDraft& operator=(const ImageDraft&) = delete;

  // No time is written that is later than this many seconds after 1970.
  void CapTimes(int64_t unixSeconds);

  // What is inserted from now on goes to the next partition.
  void BeginPartition();

  // Adds a file or a folder as the walk has opened it. None when it is in the image, else why it
  // was left out: the image is as it was. Throws when the image cannot take it, or when memory or
  // descriptors run out.
  std::optional<std::string> Insert(const SourceItem& item);

  // Whether this is the file in whose place the draft is to come; or that one or the draft itself.
  bool IsOldImage(const platform::FileIdentity& identity) const { return identity == m_Old; }
  bool IsOwnFile(const platform::FileIdentity& identity) const;

  // Completes the image and puts it in the place of the target. Its size in bytes. `*syncProblem`
  // is 0, or the errno that leaves open whether the image is on disk under its name.
  uint64_t Complete(int* syncProblem);

 private:
  // Notes restart points, and ends an insertion that is cancelled.
  struct Observer : InsertObserver {
    explicit Observer(const std::atomic<bool>* cancel) : isCancelled(cancel) {}
    bool OnChunk(const Chunk& next) override;

    const std::atomic<bool>* isCancelled;
    RestartCollector restarts;
  };

  int InsertOpened(const SourceItem& item);
  [[noreturn]] void Fail(const std::string& reason) const;
  void ThrowIfFull(int error, uint64_t size);
  void CloseImage();
  void ThrowIfCancelled() const;

  std::string m_strTarget;
  std::string m_strName;
  platform::TemporaryFile m_Temporary;
  std::optional<platform::FileIdentity> m_Own;
  std::optional<platform::FileIdentity> m_Old;
  LibraryState m_State;
  CapsuleFile m_Image;
  Observer m_observer;
  bool m_bOpen = false;  // m_Image has the file open
  int m_nPartition = -1;
};

}  // namespace capsule::host
