// ImageDraft is an image in the making: a temporary file beside the target, and the classes that
// write into it with a library state of their own.
//
// Calling order: the constructor, then BeginPartition and Insert as often as wanted, then Complete.
// A draft that is not completed leaves nothing behind. Failures throw Error about the target. One
// thread uses a draft.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "capsule/blocks/insert_observer.h"
#include "capsule/container/capsule_file.h"
#include "capsule/host/build/source_walk.h"
#include "capsule/host/error.h"
#include "capsule/host/indexing/restart_collector.h"
#include "capsule/platform/file.h"
#include "capsule/platform/temporary_file.h"
#include "capsule/state/library_state.h"

namespace capsule::host {

class ImageDraft {
 public:
  // `target`: absolute. `name`: what errors call it. `level`: 0 to 9. `version`: up to 255 bytes.
  // Once `stop` is requested, Insert and Complete throw soon.
  ImageDraft(std::string target, std::string name, int level, const std::string& version,
             std::stop_token stop);
  ~ImageDraft();
  ImageDraft(const ImageDraft&) = delete;
  ImageDraft& operator=(const ImageDraft&) = delete;

  // `onBytes` learns how many bytes of a file are inserted, in front of every chunk but the first.
  void SetWatch(std::function<void(uint64_t bytes)> onBytes) {
    m_observer.onBytes = std::move(onBytes);
  }

  // No time is written that is later than this many seconds after 1970.
  void CapTimes(int64_t unixSeconds);

  // What is inserted from now on goes to the next partition. `label`: as JudgeLabel wants it.
  void BeginPartition(const std::string& label);

  // Adds a file or a folder as the walk has opened it. Returns nothing when it is in the image,
  // else why it was left out: the image is as it was then. Throws when the image cannot take it, or
  // when memory or descriptors run out.
  std::optional<std::string> Insert(const SourceItem& item);

  // Whether this is the file in whose place the draft is to come. IsOwnFile: whether it is that
  // file or the draft itself.
  bool IsOldImage(const platform::FileIdentity& identity) const { return identity == m_old; }
  bool IsOwnFile(const platform::FileIdentity& identity) const;

  // Completes the image and puts it in the place of the target. Its size in bytes. `*syncProblem`
  // is 0, or the errno that leaves open whether the image is on disk under its name.
  uint64_t Complete(int* syncProblem);

 private:
  // Notes restart points, and ends an insertion that is cancelled.
  struct Observer : InsertObserver {
    explicit Observer(std::stop_token token) : stop(std::move(token)) {}
    bool OnChunk(const Chunk& next) override;

    std::stop_token stop;
    std::function<void(uint64_t)> onBytes;
    std::exception_ptr thrown;  // by the host, during the insertion
    RestartCollector restarts;
  };

  int InsertOpened(const SourceItem& item);
  bool ReadSource(const SourceItem& item, uint64_t offset, std::span<unsigned char> out);
  [[noreturn]] void Fail(ErrorKind kind, const std::string& reason) const;
  [[noreturn]] void FailAs(const char* step, int error) const;
  void ThrowIfFull(int error, uint64_t size);
  void CloseImage();
  void ThrowIfCancelled() const;

  std::string m_target;
  std::string m_name;
  platform::TemporaryFile m_temporary;
  std::optional<platform::FileIdentity> m_own;
  std::optional<platform::FileIdentity> m_old;
  LibraryState m_state;
  CapsuleFile m_image;
  Observer m_observer;
  bool m_open = false;  // m_image has the file open
  int m_partition = -1;
  std::vector<std::string> m_labels;  // of partitions
  std::string m_sourceProblem;        // of bytes of the host
};

}  // namespace capsule::host
