// ImageDraft is an image in the making: a temporary file beside the target, into which items are
// laid in the order in which they come, while workers encode those behind.
//
// Calling order: the constructor, then BeginPartition and Add as often as wanted, then Complete. A
// draft that is not completed leaves nothing behind. Failures throw Error about the target. One
// thread uses a draft, and calls what is the host's, but for ByteSources, which workers read.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "capsule/container/capsule_file.h"
#include "capsule/host/build/encoding_jobs.h"
#include "capsule/host/build/image_output.h"
#include "capsule/host/build/index_draft.h"
#include "capsule/host/build/item_encoder.h"
#include "capsule/host/build/source_walk.h"
#include "capsule/host/error.h"
#include "capsule/host/parallel/ordered_work.h"
#include "capsule/platform/temporary_file.h"
#include "capsule/state/library_state.h"

namespace capsule::host {

struct DraftSettings {
  int level = 5;        // 0 to 9
  std::string version;  // up to 255 bytes
  int64_t latest = 0;   // no time is stored that is later, in seconds after 1970
  size_t workers = 1;
  std::stop_token stop;  // once requested, everything throws soon

  // Learns of every item, in the order in which they came, when it is in the image or is left out.
  // `problem`: why it is, or nothing.
  std::function<void(const SourceItem& item, const std::string& problem)> onItem;

  // Learns how many bytes of a long file are in the image.
  std::function<void(const SourceItem& item, uint64_t bytes)> onBytes;
};

// Where an item lies in a draft.
struct ItemPlace {
  uint64_t begin = 0;  // of the zero entries before it
  int zeroEntries = 0;
  uint64_t offset = 0;  // of its records
};

// A long file that is being laid down.
struct OpenLongFile {
  ItemPlace place;
  RunningChecksum section;  // before it
  uint64_t groupBytes = 0;
  RunningChecksum check;
  std::vector<IndexRecord> restarts;
  std::optional<CompressorState> state;
  std::string problem;
};

class ImageDraft {
 public:
  // `target`: absolute. `name`: what errors call it.
  ImageDraft(std::string target, std::string name, DraftSettings settings);
  ~ImageDraft();
  ImageDraft(const ImageDraft&) = delete;
  ImageDraft& operator=(const ImageDraft&) = delete;

  // What is added from now on goes to the next partition. `label`: as JudgeLabel wants it.
  void BeginPartition(const std::string& label);

  // Adds an item as the walk has opened it; one that is neither a file nor a folder is handed to
  // onItem alone. Throws when the image cannot take an item, or when memory or descriptors run out.
  void Add(SourceItem item);

  // Lays down what is under way, and closes its files. True if that was something.
  bool Settle();

  // Whether this is the file in whose place the draft is to come. IsOwnFile: whether it is that
  // file or the draft itself.
  bool IsOldImage(const platform::FileIdentity& identity) const { return identity == m_old; }
  bool IsOwnFile(const platform::FileIdentity& identity) const;

  // Completes the image and puts it in the place of the target. Its size in bytes. `*syncProblem`
  // is 0, or the errno that leaves open whether the image is on disk under its name.
  uint64_t Complete(int* syncProblem);

  // How often two spans of a long file were put together, and how often the second had to be
  // encoded again for it.
  uint64_t Seams() const { return m_seams; }
  uint64_t SeamsRedone() const { return m_seamsRedone; }

 private:
  void AddLong(SourceItem item);
  void SubmitBatch();
  void MakeRoom();
  void LayFirst();
  void Lay(ItemBatch& batch);
  void Lay(const SourceItem& item, const EncodedItem& encoded);
  void Lay(SpanJob& span);
  void BeginLong(const SourceItem& item);
  void TakeSpan(LongFile& file, uint64_t begin, EncodedSpan& encoded);
  void StoreIfSmaller(LongFile& file);
  void GoBack(const OpenLongFile& file);
  void EndLong(LongFile& file);
  ItemPlace BeginItem(const SourceItem& item);
  void EndItem(const SourceItem& item, const ItemPlace& place);
  void Put(std::span<const unsigned char> bytes);
  void EndSection();
  uint64_t AppendIndex();
  uint64_t IndexBySections();
  [[noreturn]] void Fail(ErrorKind kind, const std::string& reason) const;
  [[noreturn]] void FailAsTooLarge() const;
  [[noreturn]] void FailAs(const char* step, int error) const;
  void CloseImage();
  void Check() const;

  std::string m_target;
  std::string m_name;
  DraftSettings m_settings;
  platform::TemporaryFile m_temporary;
  std::optional<platform::FileIdentity> m_own;
  std::optional<platform::FileIdentity> m_old;
  LibraryState m_state;
  CapsuleFile m_image;
  bool m_open = false;  // m_image has the file open
  ImageOutput m_output;
  IndexDraft m_index;
  int m_partition = -1;
  std::vector<std::string> m_labels;  // of partitions
  EncoderPool m_encoders;
  std::unique_ptr<ItemBatch> m_batch;  // to be pushed when it is full
  std::optional<OpenLongFile> m_long;
  uint64_t m_seams = 0;
  uint64_t m_seamsRedone = 0;
  OrderedWork m_work;  // goes first: its jobs use the encoders
};

}  // namespace capsule::host
