// Units of one entry share a history; every entry begins afresh.
#include "capsule/host/records/ntfs_entry.h"

#include <algorithm>
#include <array>

#include "capsule/blocks/data_record.h"
#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/partition/ntfs_file.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

constexpr std::array<unsigned char, 4> kFileMagic{'F', 'I', 'L', 'E'};
constexpr std::array<unsigned char, 4> kIndexMagic{'I', 'N', 'D', 'X'};
constexpr int kMostOthers = 1024;  // records of unknown types in a row

bool BeginsWith(std::span<const unsigned char> bytes, const std::array<unsigned char, 4>& mark) {
  return bytes.size() >= mark.size() && std::equal(mark.begin(), mark.end(), bytes.begin());
}

// One or more: those behind the first must say that they are.
bool AreFileRecords(std::span<const unsigned char> bytes) {
  if (bytes.empty() || bytes.size() % kFileRecordSize != 0) return false;
  for (size_t at = kFileRecordSize; at < bytes.size(); at += kFileRecordSize) {
    if (!BeginsWith(bytes.subspan(at), kFileMagic)) return false;
  }
  return true;
}

// Whether the record holds what only records of known types do.
bool HoldsKnownBytes(FileWindow& window, uint64_t offset, const _NTFSMiniHeader& header,
                     bool compressed, UnitDecoder decoder) {
  if (header.UncompressedLength > kMaxExpansion * header.Length) return false;
  std::vector<unsigned char> bytes;
  const auto payload = window.At(offset + kNtfsHeaderSize, header.Length);
  if (!DecodeNtfsPayload(header, payload, compressed, decoder, &bytes)) return false;
  return BeginsWith(bytes, kFileMagic) || BeginsWith(bytes, kIndexMagic);
}

// The header at `offset` when its type is not known and its record fits.
std::optional<_NTFSMiniHeader> OtherNtfsRecordAt(FileWindow& window, uint64_t offset,
                                                 uint64_t limit) {
  if (offset + kNtfsHeaderSize > limit) return std::nullopt;
  const auto bytes = window.At(offset, kNtfsHeaderSize);
  const auto isZero = [](unsigned char b) { return b == 0; };
  if (bytes.size() < kNtfsHeaderSize || std::all_of(bytes.begin(), bytes.end(), isZero)) {
    return std::nullopt;
  }
  const _NTFSMiniHeader header = DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>());
  const bool fits = offset + NtfsRecordSize(header) <= limit;
  const bool isSection = bytes[0] == 0xAB && bytes[1] == 0xCD;
  if (!fits || isSection || IsNtfsType(header.RecordType)) return std::nullopt;
  return header;
}

class NtfsEntryReader {
 public:
  NtfsEntryReader(FileWindow& window, uint64_t limit, bool compressed, bool frontOnly)
      : m_window(window), m_limit(limit), m_compressed(compressed), m_frontOnly(frontOnly) {}

  // One that ends where it begins when its first record is damaged.
  NtfsEntry Read(uint64_t offset) {
    m_found.end = offset;
    const auto first = NtfsRecordAt(m_window, offset, m_limit);
    m_found.isDirectory = first && first->RecordType == kNtfsDirectoryRecord;
    const std::string problem = first ? TakeRecord(*first, offset) : "no record of an NTFS section";
    NoteProblem(problem, offset);
    if (problem.empty()) {
      m_found.dataOffset = offset + NtfsRecordSize(*first);
      m_found.end = TakeRecordsBehind(m_found.dataOffset);
    }
    Finish();
    return std::move(m_found);
  }

 private:
  // Where they end.
  uint64_t TakeRecordsBehind(uint64_t at) {
    while (at < m_limit) {
      const auto header = NtfsRecordAt(m_window, at, m_limit);
      const bool isCompanion = header && IsNtfsCompanion(header->RecordType);
      if (m_frontOnly && !m_found.isDirectory && !(isCompanion && m_file.HasAttributeList())) break;
      if (!header) {
        const uint64_t next = EndOfOtherNtfsRecords(m_window, at, m_limit, m_compressed, m_decoder);
        if (next == at) break;
        at = next;
        continue;
      }
      if (BeginsNtfsEntry(header->RecordType)) break;
      NoteProblem(TakeRecord(*header, at), at);
      at += NtfsRecordSize(*header);
    }
    return at;
  }

  void NoteProblem(const std::string& problem, uint64_t at) {
    if (!m_found.problem.empty() || problem.empty()) return;
    m_found.problem = "record at " + Hex(at) + ": " + problem;
  }

  // What is wrong with the record, or nothing.
  std::string TakeRecord(const _NTFSMiniHeader& header, uint64_t at) {
    const bool isData = IsNtfsData(header.RecordType);
    if (isData && !m_found.isDirectory) return {};
    if (!BeginsNtfsEntry(header.RecordType) && !isData && !m_found.isDirectory &&
        !m_file.HasAttributeList()) {
      return {};
    }
    std::vector<unsigned char> bytes;
    const auto payload = m_window.At(at + kNtfsHeaderSize, header.Length);
    if (!DecodeNtfsPayload(header, payload, m_compressed, m_decoder, &bytes)) {
      return "does not decode to what its header states";
    }
    if (isData) {
      m_file.TakeIndexBlocks(bytes);
      return {};
    }
    if (!AreFileRecords(bytes)) {
      return "FILE records of " + std::to_string(bytes.size()) + " bytes, or what is none";
    }
    m_file.TakeRecords(bytes, m_found.isDirectory, &m_found.entry);
    return {};
  }

  void Finish() {
    if (m_found.isDirectory) m_found.entry.Attribute |= kDirectoryAttribute;
    m_found.name = Utf16ToUtf8(m_file.Name());
    m_found.shortName = m_file.HasShortName() ? ShortNameToBytes(m_found.entry) : m_found.name;
    m_found.parents = m_file.Parents();
    m_found.number = m_file.Number();
    m_found.children = m_file.ChildCount();
  }

  FileWindow& m_window;
  uint64_t m_limit;
  bool m_compressed;
  bool m_frontOnly;
  UnitDecoder m_decoder;
  NtfsFile m_file;
  NtfsEntry m_found;
};

}  // namespace

NtfsEntry ReadNtfsEntry(FileWindow& window, uint64_t offset, uint64_t limit, bool compressed,
                        const std::string& image) {
  NtfsEntry entry = NtfsEntryReader(window, limit, compressed, false).Read(offset);
  if (entry.end == offset) throw Error(image, entry.problem, offset);
  return entry;
}

NtfsEntry ReadNtfsEntryFront(FileWindow& window, uint64_t offset, uint64_t limit, bool compressed) {
  return NtfsEntryReader(window, limit, compressed, true).Read(offset);
}

std::optional<_NTFSMiniHeader> NtfsRecordAt(FileWindow& window, uint64_t offset, uint64_t limit) {
  if (offset + kNtfsHeaderSize > limit) return std::nullopt;
  const auto bytes = window.At(offset, kNtfsHeaderSize);
  if (bytes.size() < kNtfsHeaderSize) return std::nullopt;
  const _NTFSMiniHeader header = DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>());
  if (!IsNtfsType(header.RecordType) || offset + NtfsRecordSize(header) > limit)
    return std::nullopt;
  return header;
}

uint64_t EndOfOtherNtfsRecords(FileWindow& window, uint64_t offset, uint64_t limit, bool compressed,
                               const UnitDecoder& decoder) {
  uint64_t end = offset;
  for (int count = 0; count < kMostOthers; ++count) {
    const auto other = OtherNtfsRecordAt(window, end, limit);
    if (!other) break;
    end += NtfsRecordSize(*other);
  }
  if (end != limit && !NtfsRecordAt(window, end, limit)) return offset;
  for (uint64_t at = offset; at < end;) {
    const auto other = OtherNtfsRecordAt(window, at, limit);
    if (!other || HoldsKnownBytes(window, at, *other, compressed, decoder)) return at;
    at += NtfsRecordSize(*other);
  }
  return end;
}

uint64_t SkipNtfsCompanions(FileWindow& window, uint64_t offset, uint64_t limit) {
  for (auto header = NtfsRecordAt(window, offset, limit);
       header && IsNtfsCompanion(header->RecordType);
       header = NtfsRecordAt(window, offset, limit)) {
    offset += NtfsRecordSize(*header);
  }
  return offset;
}

bool DecodeNtfsPayload(const _NTFSMiniHeader& header, std::span<const unsigned char> payload,
                       bool compressed, UnitDecoder& decoder, std::vector<unsigned char>* out) {
  const _MiniHeader plain = ToMiniHeader(header);
  if (!IsCompressedPayload(plain, compressed)) {
    out->assign(payload.begin(), payload.end());
    return payload.size() == header.Length;
  }
  out->assign(UncompressedLength(plain, compressed), 0);
  return decoder.Decode(payload, *out).empty();
}

}  // namespace capsule::host
