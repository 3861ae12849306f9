// IndexWriter completes an image: it finds the items by a SectionScanner, appends an index behind
// the last trailer and stores the index's offset in the header.
//
//   const host::IndexReport report = host::IndexWriter("photos.cap").Write();
//
// An index that is there already is built anew; the same sections always get the same bytes.
// Nothing is changed before the whole image has been scanned and is known to stay
// within 2^31-1 bytes. The header tells of the index only when the index is on disk: an image whose
// completion was interrupted is one without an index and can be completed again.
//
// Index, after "CI1" and the XXH32 (seed 0) of everything behind it:
//   header         type 6: offset 0, length 7560, named by its check value as finally stored
//   each section   type 5: offset, length 2056
//                  type 6: offset, length up to its trailer, named by its check value
//                  type 6: the section's offset and length, named "name=" and its label, if any
//     its items    type 3: the group of a folder, named by its path; "." and ".." groups and zero
//                  entries, without a name
//                  type 2: a file with its data, named by its path; then
//                  type 6: the same offset and length, named by its check value; then
//                  type 6: its restart points, if it is longer than a mebibyte
//                  or, of a damaged one, in place of both, type 6: a note on its damage
//     its end      type 3: the last 40 bytes of the trailer. They read as a zero entry and leave
//                  a reader exactly behind the section.
// Paths have '/' between segments and no partition. A check value is "xxh3=" and 16 hex digits. A
// restart point, about every mebibyte of a file, is where decoding may begin: the offset and length
// of a data block record, named by "seek=", the offset of its first byte in the file (4 bytes) and
// the up to 2047 bytes that it may refer back to.
//
// Memory is bounded by the depth of the tree. One thread uses a writer.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "capsule/export.h"
#include "capsule/host/image_problem.h"
#include "capsule/host/progress.h"

namespace capsule {
struct DamageNote;
}

namespace capsule::host {

class Image;
class ImageFile;
class TrialImage;
class Watch;
enum class SectionTrust;
struct SectionItem;

struct IndexReport {
  uint32_t sections = 0;
  uint64_t directories = 0;
  uint64_t files = 0;
  uint64_t indexOffset = 0;
  uint64_t imageBytes = 0;             // sections, index and all
  std::vector<ImageProblem> problems;  // files that are damaged, and what is left out
};

// How sections are judged that may be damaged, and what becomes of those that are.
enum class DamagedSections {
  // They are known to be sound, having just been written: contents are not read, nor compared with
  // an index that is there. Records that do not follow each other are refused.
  Refuse,

  // An index whose check value holds is compared with all it tells of, and kept; where anything
  // differs, Write throws. Without one everything is decoded. What is damaged is indexed when
  // nothing gets lost by it: there is no index that can be read, and nothing but the data or the
  // long names of files is damaged, or the end of the last section cut off. The new index says what
  // was damaged; damaged files get no check value; it comes behind all there is.
  IndexWhatIsLeft,

  // The same, but an index that can be read does not stand in the way: one whose check value holds
  // is kept with all its check values, and gets a note on all that differs.
  NoteDamage,
};

struct IndexOptions {
  DamagedSections damaged = DamagedSections::Refuse;
  OnProgress onProgress{};  // its bytes are those of the image, which is walked more than once
  std::stop_token stop{};   // ends Write, which then has changed nothing
};

class CAPSULE_API IndexWriter {
 public:
  // Opens the image for reading and writing. Throws Error.
  explicit IndexWriter(const std::filesystem::path& image);

  // Works on an open image whose sections have just been written: Write must refuse damaged ones.
  // The descriptor stays the caller's. `name`: what errors call it.
  IndexWriter(int descriptor, std::string name);

  ~IndexWriter();
  IndexWriter(const IndexWriter&) = delete;
  IndexWriter& operator=(const IndexWriter&) = delete;

  // The labels of the partitions, in their order, instead of those of the index that is there.
  void SetLabels(std::vector<std::string> labels) { m_labels = std::move(labels); }

  // Throws Error when the image cannot be scanned, read or written, or when no index would lead to
  // what it holds; then nothing has been changed, unless writing itself failed.
  [[nodiscard]] IndexReport Write(const IndexOptions& options = {});
  [[nodiscard]] IndexReport Write(DamagedSections damaged) { return Write(IndexOptions{damaged}); }

 private:
  bool IsWithoutPartitions() const;
  void RefuseUnlessEmpty() const;

  struct Plan;
  IndexReport WriteSections(const Image& image, bool force);
  Plan Measure(SectionTrust trust, std::vector<DamageNote> notes);
  void Count(Plan* plan);
  uint64_t Append(const Plan& plan, int output, TrialImage* trial);
  void Complete(const Plan& plan, const std::function<void()>& append);
  void PatchHeader(std::span<const unsigned char> header, size_t offset, size_t count);
  void SyncFile();
  ImageFile Bytes() const;
  void KeepLabels();
  std::string LabelOf(const SectionItem& item, size_t number) const;
  void PutInPlace(const Plan& plan, const TrialImage& trial);
  void Walked(const SectionItem& item, uint64_t before);

  int m_descriptor;
  bool m_owned = false;
  std::string m_name;
  std::optional<std::vector<std::string>> m_labels;
  std::map<uint32_t, std::string> m_oldLabels;  // of the index that is there, by offset
  std::unique_ptr<Watch> m_watch;
};

}  // namespace capsule::host
