#include "capsule/host/build/item_encoder.h"

#include <algorithm>
#include <cerrno>

#include "capsule/blocks/record_encoder.h"
#include "capsule/compression/stream_compressor.h"
#include "capsule/container/capsule_file.h"
#include "capsule/host/build/source_content.h"
#include "capsule/host/build/storing.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/records/unit_decoder.h"
#include "capsule/partition/directory_entry.h"
#include "capsule/partition/partition.h"
#include "capsule/platform/opened_item.h"

namespace capsule::host {
namespace {

constexpr auto kEntryType = CapsuleDirectoryEntry::DirTypeFat32;

// Bytes before a span by which its compressor learns what it has to know: with four chunks that is
// practically always all of it.
constexpr uint64_t kWarmUp = uint64_t{4} * kChunkSize;

// The opened item while it is encoded.
class OpenedScope {
 public:
  OpenedScope(platform::HostView& view, const platform::OpenedItem& item) : m_view(view) {
    m_view.SetOpenedItem(&item);
  }
  ~OpenedScope() { m_view.SetOpenedItem(nullptr); }
  OpenedScope(const OpenedScope&) = delete;
  OpenedScope& operator=(const OpenedScope&) = delete;

 private:
  platform::HostView& m_view;
};

}  // namespace

uint64_t StoredSize(uint64_t size) {
  const uint64_t chunks = (size + kChunkSize - 1) / kChunkSize;
  return chunks * kMiniHeaderSize +
         (size + kChunkAlignment - 1) / kChunkAlignment * kChunkAlignment;
}

std::string ItemPath(int partition, const std::string& relative) {
  std::string path = std::to_string(partition) + ":\\" + relative;
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

ItemEncoder::ItemEncoder(int level, int64_t latest) : m_level(level) {
  m_state.hostView.SetTimePolicy(platform::TimePolicy::ModificationOnly);
  m_state.hostView.CapTimes(latest);
}

EncodedItem ItemEncoder::Encode(const SourceItem& item, int partition) {
  EncodedItem out;
  AppendGroups(item, partition, &out);
  if (item.kind == SourceItem::Kind::File) AppendContent(item, &out);
  if (!out.problem.empty()) out.bytes.clear();
  return out;
}

void ItemEncoder::AppendGroups(const SourceItem& item, int partition, EncodedItem* out) {
  const ScopedLibraryState current(m_state);
  const std::string path = ItemPath(partition, item.relative);
  const platform::OpenedItem opened{path,        item.file.Get(), item.status,
                                    item.folder, item.alias,      item.attributes};
  const OpenedScope scope(m_state.hostView, opened);
  CapsuleDirectoryEntry entry;
  const auto append = [&](const std::string& of, uint32_t* length) {
    int zeroEntries = 0;
    if (entry.SetFileDirectory(kEntryType, of.c_str(), -1, 0, &zeroEntries) != 0) return false;
    const auto group = entry.Encode(kEntryType);
    entry.RemoveCPtrArray();
    out->bytes.insert(out->bytes.end(), group.begin(), group.end());
    *length = static_cast<uint32_t>(group.size());
    return true;
  };
  bool isDone = append(path, out->groups.data());
  if (item.kind == SourceItem::Kind::Folder) {
    for (size_t i = 0; i < CapsulePartition::kDotSuffixes.size(); ++i) {
      isDone = isDone &&
               append(path + std::string(CapsulePartition::kDotSuffixes[i]), &out->groups[i + 1]);
    }
  }
  if (!isDone) ThrowSystemError(item.path, "cannot be inserted", ENOMEM);
}

int ItemEncoder::LevelOf(const SourceItem& item) const {
  return CapsuleFile::IsStoredByName(ItemPath(0, item.relative)) ? 0 : m_level;
}

void ItemEncoder::AppendContent(const SourceItem& item, EncodedItem* out) {
  m_content.resize(static_cast<size_t>(item.status.size));
  out->problem = ReadSource(item, 0, m_content);
  if (out->problem.empty()) out->problem = ChangeOf(item);
  if (!out->problem.empty()) return;
  const auto read = [&](uint64_t offset, std::span<unsigned char> bytes) {
    std::copy_n(m_content.begin() + static_cast<std::ptrdiff_t>(offset), bytes.size(),
                bytes.begin());
    return true;
  };
  int level = LevelOf(item);
  if (level != 0 && m_content.size() > kComparedWhole &&
      !SamplesShrink(read, m_content.size(), level, *m_state.compressor)) {
    level = 0;
  }
  const size_t before = out->bytes.size();
  const bool isEncoded = AppendRecords(m_content, level, &out->bytes);
  if (level != 0 && (!isEncoded || out->bytes.size() - before >= StoredSize(m_content.size()))) {
    out->bytes.resize(before);
    AppendRecords(m_content, 0, &out->bytes);
  }
  RunningChecksum checksum;
  checksum.Update(out->bytes);
  out->check = checksum.Value();
}

bool ItemEncoder::AppendRecords(std::span<const unsigned char> content, int level,
                                std::vector<unsigned char>* out) {
  m_state.compressor->ResetCompressionHistory();
  RecordEncoder encoder(*m_state.compressor, level);
  out->reserve(out->size() + static_cast<size_t>(StoredSize(content.size())));
  while (!content.empty()) {
    const size_t length = std::min<size_t>(content.size(), kChunkSize);
    if (!encoder.Append(content.first(length), length == content.size(), out)) return false;
    content = content.subspan(length);
  }
  return true;
}

void ItemEncoder::ChooseLevel(LongFile& file) {
  std::call_once(file.isLevelKnown, [&] {
    const auto read = [&](uint64_t offset, std::span<unsigned char> bytes) {
      return ReadSource(file.item, offset, bytes).empty();
    };
    file.level = LevelOf(file.item);
    if (file.level != 0 &&
        !SamplesShrink(read, file.item.status.size, file.level, *m_state.compressor)) {
      file.level = 0;
    }
  });
}

// Reads a span, and so many bytes before it.
std::string ItemEncoder::ReadSpan(const LongFile& file, uint64_t begin, uint64_t warm) {
  const uint64_t size = file.item.status.size;
  const uint64_t length = std::min<uint64_t>(size - begin, kSpan);
  m_content.resize(static_cast<size_t>(warm + length));
  return ReadSource(file.item, begin - warm, m_content);
}

EncodedSpan ItemEncoder::EncodeSpan(LongFile& file, uint64_t begin) {
  ChooseLevel(file);
  return EncodeRead(file, begin, nullptr);
}

EncodedSpan ItemEncoder::EncodeSpan(LongFile& file, uint64_t begin, const CompressorState& state) {
  return EncodeRead(file, begin, &state);
}

EncodedSpan ItemEncoder::EncodeRead(LongFile& file, uint64_t begin, const CompressorState* state) {
  EncodedSpan out;
  const uint64_t warm = begin == 0 || file.level == 0 ? 0 : kWarmUp;
  out.problem = ReadSpan(file, begin, warm);
  if (begin == 0 && out.problem.empty()) {
    EncodedItem groups;
    AppendGroups(file.item, file.partition, &groups);
    out.bytes = std::move(groups.bytes);
    out.groupBytes = out.bytes.size();
  }
  if (!out.problem.empty()) return out;
  StreamCompressor& compressor = *m_state.compressor;
  compressor.ResetCompressionHistory();
  RecordEncoder encoder(compressor, file.level);
  std::span<const unsigned char> content = m_content;
  std::vector<unsigned char> forgotten;
  for (uint64_t at = 0; at < warm; at += kChunkSize) {
    if (state == nullptr) encoder.Append(content.first(kChunkSize), false, &forgotten);
    out.history.assign(content.begin() + (kChunkSize - kMaxHistory), content.begin() + kChunkSize);
    content = content.subspan(kChunkSize);
  }
  if (state != nullptr) compressor.SetState(*state);
  if (file.level != 0) out.begin = compressor.State();
  const bool isEnd = begin + content.size() == file.item.status.size;
  out.bytes.reserve(out.bytes.size() + static_cast<size_t>(StoredSize(content.size())));
  while (!content.empty()) {
    const size_t length = std::min<size_t>(content.size(), kChunkSize);
    const size_t before = out.bytes.size();
    if (!encoder.Append(content.first(length), isEnd && length == content.size(), &out.bytes)) {
      out.problem = "cannot be compressed";
    }
    if (out.firstRecord == 0) out.firstRecord = static_cast<uint32_t>(out.bytes.size() - before);
    content = content.subspan(length);
  }
  if (file.level != 0) out.end = compressor.State();
  return out;
}

}  // namespace capsule::host
