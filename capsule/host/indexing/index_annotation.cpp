// The old index is copied record by record, with notes put behind the items that they are about.
// The part that reaches beyond the old index is written first: if there is no room for it, the
// image is as it was.
#include "capsule/host/indexing/index_annotation.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <span>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/host/error.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/index_check.h"
#include "capsule/host/index/index_reader.h"
#include "capsule/host/verifier.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/file.h"

namespace capsule::host {
namespace {

using Notes = std::map<uint64_t, DamageNote>;  // by offset of what is damaged

IndexReport ReportOn(const ImageInfo& info) {
  IndexReport report;
  report.sections = static_cast<uint32_t>(info.partitions.size());
  for (const PartitionInfo& partition : info.partitions) {
    report.directories += partition.directories;
    report.files += partition.files;
  }
  report.indexOffset = info.indexOffset;
  report.imageBytes = info.imageBytes;
  return report;
}

// The note on the item that holds `offset`, or on the image when none does.
DamageNote NoteAt(const IndexContents& index, uint64_t offset, const std::string& reason) {
  const uint64_t end = index.end;
  const auto next =
      std::upper_bound(index.records.begin(), index.records.end(), offset,
                       [](uint64_t at, const IndexRecord& record) { return at < record.offset; });
  if (next == index.records.begin() || offset >= end) return {0, kHeaderSize, reason, false};
  const IndexRecord& item = *(next - 1);
  // A note that reached the index would end it.
  const auto length = std::min<uint64_t>(item.length, end - item.offset - 1);
  return {item.offset, static_cast<uint32_t>(length), reason, false};
}

// The index with the notes behind all that it tells of their items; the note on the last item comes
// before it, since that ends the index.
std::vector<unsigned char> NotedIndex(const ImageFile& image, uint64_t indexOffset, Notes notes) {
  std::vector<unsigned char> bytes(kIndexPreamble);
  std::vector<DamageNote> waiting;
  const auto await = [&](uint64_t offset) {
    const auto note = notes.extract(offset);
    if (!note.empty()) waiting.push_back(note.mapped());
  };
  const auto put = [&] {
    for (const DamageNote& note : waiting) AppendIndexRecord(RecordOf(note), &bytes);
    waiting.clear();
  };
  await(0);
  IndexReader records(image, indexOffset + kIndexPreamble);
  IndexRecord record;
  for (bool isLast = false; !isLast;) {
    if (!records.TakeRecord(&record)) return {};
    const bool hasBody = HasIndexBody(record.type);
    isLast = hasBody && uint64_t{record.offset} + record.length >= indexOffset;
    if (record.type != kIndexNote) {
      put();
      if (hasBody) await(record.offset);
      if (isLast) put();
    }
    AppendIndexRecord(record, &bytes);
  }
  IndexChecksum checksum;
  checksum.Update(std::span(bytes).subspan(kIndexPreamble));
  const auto start = EncodeIndexStart(checksum.Value());
  std::copy(start.begin(), start.end(), bytes.begin());
  return bytes;
}

// Writes the index over the old one, what is longer first: an image that cannot grow stays as it
// is.
void Replace(int descriptor, const ImageInfo& info, const std::string& name,
             const std::vector<unsigned char>& bytes) {
  const auto write = [&](uint64_t from, uint64_t count) {
    const auto at = static_cast<int64_t>(info.indexOffset + from);
    return platform::WriteAt(descriptor, std::span(bytes).subspan(from, count).data(), count, at) &&
           platform::Sync(descriptor);
  };
  const uint64_t old = std::min<uint64_t>(info.imageBytes - info.indexOffset, bytes.size());
  if (!write(old, bytes.size() - old)) {
    const int reason = errno;
    platform::Truncate(descriptor, static_cast<int64_t>(info.imageBytes));
    ThrowSystemError(name, "write of the index", reason);
  }
  const auto end = static_cast<int64_t>(info.indexOffset + bytes.size());
  if (!write(0, old) || !platform::Truncate(descriptor, end)) {
    ThrowSystemError(name, "write of the index", errno);
  }
}

void RefuseWhatIsNotLedTo(const ImageFile& image) {
  const std::string& name = image.Name();
  try {
    const Image strict(image.Source(), name);
  } catch (const Error& error) {
    throw Error(error.Kind(), name,
                error.Reason() + "; the index tells what stood there, and stays as it is");
  }
}

}  // namespace

IndexReport AnnotateIndex(int descriptor, const Image& image, bool force,
                          const VerifyOptions& options) {
  const ImageInfo& info = image.Info();
  const std::string& name = image.Path();
  const ImageFile file(descriptor, name);
  const IndexContents index = ReadIndex(file, info.indexOffset, true);
  std::set<uint64_t> known;
  for (const DamageNote& note : index.damages) {
    known.insert(note.offset);
    if (note.isCut) known.insert(index.records.back().offset);  // where the image breaks off
  }
  IndexReport report = ReportOn(info);
  Notes notes;
  const auto take = [&](const Fault& fault) {
    report.problems.push_back({fault.path.empty() ? Hex(fault.offset) : fault.path, fault.reason});
    const DamageNote note = NoteAt(index, fault.offset, fault.reason);
    if (!known.contains(note.offset)) notes.emplace(note.offset, note);
  };
  static_cast<void>(Verifier(file.Source(), name).Run(take, options));
  if (notes.empty()) return report;
  if (!force) {
    throw Error(name, report.problems.front().path + ": " + report.problems.front().reason +
                          "; the index vouches for what it was made of, and stays as it is");
  }
  RefuseWhatIsNotLedTo(file);
  const auto bytes = NotedIndex(file, info.indexOffset, std::move(notes));
  report.imageBytes = info.indexOffset + bytes.size();
  if (bytes.empty() || report.imageBytes > static_cast<uint64_t>(kMaxImageSize)) {
    const bool hasChanged = bytes.empty();
    throw Error(hasChanged ? ErrorKind::System : ErrorKind::Unsupported, name,
                hasChanged ? "changed meanwhile" : "has no room for a longer index");
  }
  Replace(descriptor, info, name, bytes);
  return report;
}

}  // namespace capsule::host
