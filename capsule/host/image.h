// Image is an image file open for reading.
//
//   host::Image image("photos.cap");
//   if (auto entry = image.Find("0:/2024/beach.jpg")) {
//     host::FileReader reader = image.OpenFile(*entry);
//     Show(reader.Size());
//   }
//
// Opening reads the header, the index and the tree, and throws host::Error when the file is not an
// image, is cut short, or has no index or a damaged one (then Opening::Salvage looks for what is
// left). Contents are read when they are asked for, strictly: a record that does not decode to
// exactly what it states is an error, never a guess.
//
// Const operations may be used from many threads. Entries and readers must not outlive the Image,
// so none come from one that is about to end: Image("photos.cap").Root(0) does not compile. They
// stay valid when it is moved; the one that it was moved from throws host::Error
// (ErrorKind::Misuse).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "capsule/export.h"
#include "capsule/host/byte_source.h"
#include "capsule/host/damaged_file.h"
#include "capsule/host/entry.h"
#include "capsule/host/error.h"
#include "capsule/host/file_reader.h"
#include "capsule/host/image_problem.h"
#include "capsule/host/impl_pointer.h"

namespace capsule::host {

struct RecordSource;

struct PartitionInfo {
  uint8_t systemId = 0;      // in the numbering of PC partition tables
  uint32_t offset = 0;       // of the section in the image
  uint32_t sectorCount = 0;  // as the header states it
  uint64_t files = 0;
  uint64_t directories = 0;
  uint64_t bytes = 0;  // sizes of the files, summed up
  std::string label;   // that the index has for it, any bytes; may be empty
};

struct ImageInfo {
  std::string label;        // the version text of the header
  bool compressed = false;  // files are compressed unless they are known not to shrink
  bool checked = false;     // the index has a check value, and it holds
  uint64_t imageBytes = 0;
  uint64_t indexOffset = 0;
  std::string scanReason;  // why the image was scanned; empty when it was read by its index
  std::vector<PartitionInfo> partitions;
};

// What to do when the index is missing or damaged, or the tree cannot be read through it.
enum class Opening {
  Strict,   // throw
  Salvage,  // find what is left by scanning the sections; Info().scanReason then tells why
};

class CAPSULE_API Image {
 public:
  explicit Image(const std::filesystem::path& path, Opening opening = Opening::Strict);

  // The image whose bytes `source` has: an open file, memory, or whatever a host has
  // (byte_source.h). `name`: what errors call it.
  explicit Image(std::shared_ptr<const ByteSource> source, std::string name,
                 Opening opening = Opening::Strict);

  ~Image();
  Image(Image&&) noexcept;
  Image& operator=(Image&&) noexcept;

  const std::string& Path() const;
  const ImageInfo& Info() const&;
  const ImageInfo& Info() const&& = delete;

  // What opening found to be damaged. An entry whose long name is damaged goes by its short name; a
  // FILE record of an NTFS partition that no folder has a place for is left out.
  const std::vector<ImageProblem>& Problems() const&;
  const std::vector<ImageProblem>& Problems() const&& = delete;

  // Whether opening found nothing wrong: there are no problems, and the index, if the header tells
  // of one, leads to everything. Contents of files are not looked at.
  bool IsWhole() const;

  int Partitions() const;

  // The root of partition `n`; its children are the top level of the tree. Throws when there is no
  // such partition.
  Entry Root(int n) const&;
  Entry Root(int n) const&& = delete;

  // Looks up "N:/folder/file". Partition 0 when "N:" is left out; `/` and `\` both separate, empty
  // segments count for nothing. A segment is a long or a short name: an exact match comes first,
  // then one that ignores the case of ASCII letters.
  std::optional<Entry> Find(std::string_view path) const&;
  std::optional<Entry> Find(std::string_view path) const&& = delete;

  // Throws for a directory, and for an entry of another image.
  FileReader OpenFile(const Entry& entry) const&;
  FileReader OpenFile(const Entry& entry) const&& = delete;

  // What is left of a file whose records may be damaged: the pieces of `length` bytes from `offset`
  // on, in order; fewer at the end of the file. A file without damage is a single stretch of data;
  // one that is damaged has lost pieces, or is uncertain as a whole. The file is decoded once
  // before the first piece. Throws for a directory, or when the image cannot be read at all.
  //
  // A check value covers a file as a whole: when some of a file is lost, nothing but the rules of
  // the records speaks for the rest.
  void ReadDamaged(const Entry& entry, uint64_t offset, uint64_t length,
                   const TakePiece& take) const;

  // Writes out the part of a file that ReadDamaged tells of, as `onDamage` wants it: strictly, or
  // what is left of it, with zeros for the rest or nothing. `onLost`, if there is one, gets every
  // part that is not there as it was, before what follows it. Throws as FileReader::CopyTo does
  // when `onDamage` is Stop, else as ReadDamaged.
  void CopyLeft(const Entry& entry, uint64_t offset, uint64_t length, OnDamage onDamage,
                const TakeLeft& take, const std::function<void(const LostRange&)>& onLost) const;

  // OpenFile and one Read, which decodes from the file's first record on: for many ranges of one
  // file keep a reader.
  size_t Read(const Entry& entry, uint64_t offset, std::span<unsigned char> out) const;

 private:
  friend class FileExtraction;
  RecordSource SourceOf(const Entry& entry) const;

  struct Impl;
  ImplPointer<Impl> m_impl;
};

}  // namespace capsule::host
