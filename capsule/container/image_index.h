// ImageIndex hands out, in index order, the offsets of the partition sections and of the records
// of an image. There is one current index in a library state at a time; reading an image replaces
// it. One thread uses it.
//
//   CapsuleFile indexed("disk.cap");
//   indexed.ReadImage(1);  // header and index alone; with 0 the partitions take the offsets
//   ImageIndex* index = ImageIndex::GetCurrentIndexInstance();
//   while (index->PeekNextPartitionOffset() != -1) Use(index->GetNextPartitionOffset());
//   indexed.CloseImageFileHandle();
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capsule/export.h"

namespace capsule {

struct IndexRecord;
struct LibraryState;

class CAPSULE_API ImageIndex {
 public:
  // The current index, built on `header` (the raw image header of 7560 bytes, not owned, which must
  // live until ReadIndex is done) and `path` when there is none yet; arguments are ignored when
  // there is one.
  static ImageIndex* Instance(const char* header, const char* path);

  // The current index, or null. It lives until DeleteCurrentInstance, which reading an image calls.
  static ImageIndex* GetCurrentIndexInstance();
  static void DeleteCurrentInstance();

  // Walks the index, once. Throws the int 0 when the file cannot be opened or read. An index that
  // lies behind the end of the file is empty.
  void ReadIndex();

  // The next offset, -1 at the end and from then on.
  int GetNextPartitionOffset();
  int PeekNextPartitionOffset();
  int GetNextFileOffset();
  int PeekNextFileOffset();

  // The raw image header that Instance was given.
  const char* GetImageFilePath();

 protected:
  ImageIndex(const char* header, const char* path);
  virtual ~ImageIndex();

 private:
  friend struct LibraryState;  // destroys its current index

  void _SetOffsetToImageIndex();
  void _FillOffsetVects();
  void TakeRecord(const IndexRecord& record);
  uint32_t _OffsetToIndex() const;

  uint64_t _walk_end = 0;  // offset + length of the last record with a body
  const char* _image_header;
  int _index_file;             // a descriptor of its own
  int64_t _read_position = 0;  // where the first record lies
  uint32_t _partition_cursor = 0;
  uint32_t _file_cursor = 0;
  std::vector<int32_t> _file_offsets;
  std::vector<int32_t> _partition_offsets;
};

}  // namespace capsule
