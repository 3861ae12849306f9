// Units of one entry share a history; every entry begins afresh.
#include "capsule/host/records/ntfs_entry.h"

#include <algorithm>
#include <array>

#include "capsule/blocks/data_record.h"
#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/partition/directory_entry.h"
#include "capsule/partition/ntfs_format.h"
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
  const bool fits = offset + kNtfsHeaderSize + header.Length <= limit;
  const bool isSection = bytes[0] == 0xAB && bytes[1] == 0xCD;
  if (!fits || isSection || IsNtfsType(header.RecordType)) return std::nullopt;
  return header;
}

class NtfsEntryReader {
 public:
  NtfsEntryReader(FileWindow& window, uint64_t limit, bool compressed, const std::string& image)
      : m_Window(window), m_nLimit(limit), m_bCompressed(compressed), m_strImage(image) {}

  NtfsEntry Read(uint64_t offset) {
    uint64_t at = offset;
    while (at < m_nLimit) {
      const auto header = NtfsRecordAt(m_Window, at, m_nLimit);
      const bool isFirst = at == offset;
      if (isFirst && !header) Fail(at, "no record of an NTFS section");
      if (!isFirst && !header) {
        const uint64_t next =
            EndOfOtherNtfsRecords(m_Window, at, m_nLimit, m_bCompressed, m_Decoder);
        if (next == at) break;
        at = next;
        continue;
      }
      if (!isFirst && BeginsNtfsEntry(header->RecordType)) break;
      if (isFirst) m_Found.isDirectory = header->RecordType == kNtfsDirectoryRecord;
      const std::string problem = TakeRecord(*header, at);
      if (isFirst && !problem.empty()) Fail(at, problem);
      if (m_Found.problem.empty() && !problem.empty()) {
        m_Found.problem = "record at " + Hex(at) + ": " + problem;
      }
      at += kNtfsHeaderSize + uint64_t{header->Length};
      if (isFirst) m_Found.dataOffset = at;
    }
    m_Found.end = at;
    Finish();
    return std::move(m_Found);
  }

 private:
  // What is wrong with the record, or nothing.
  std::string TakeRecord(const _NTFSMiniHeader& header, uint64_t at) {
    const bool isData = IsNtfsData(header.RecordType);
    if (isData && !m_Found.isDirectory) return {};
    if (!BeginsNtfsEntry(header.RecordType) && !isData && !m_Found.isDirectory &&
        !m_Entry.HasAttributeList()) {
      return {};
    }
    std::vector<unsigned char> bytes;
    const auto payload = m_Window.At(at + kNtfsHeaderSize, header.Length);
    if (!DecodeNtfsPayload(header, payload, m_bCompressed, m_Decoder, &bytes)) {
      return "does not decode to what its header states";
    }
    if (isData) {
      m_Entry.AddIndexBlocks(bytes);
      return {};
    }
    if (!AreFileRecords(bytes)) {
      return "FILE records of " + std::to_string(bytes.size()) + " bytes, or what is none";
    }
    if (BeginsNtfsEntry(header.RecordType)) m_Entry.FillDirHeader(header);
    m_Entry.FileRecordtoDirectoryEntry(bytes.data(), static_cast<long>(bytes.size()));
    NoteReferences(bytes);
    return {};
  }

  // The update sequences are undone by now.
  void NoteReferences(std::span<const unsigned char> records) {
    if (!m_Found.number) m_Found.number = StatedRecordNumber(records.first<kFileRecordSize>());
    while (records.size() >= kFileRecordSize) {
      VisitAttributes(records.first<kFileRecordSize>(), [this](const NtfsAttribute& attribute) {
        NtfsFileName name;
        if (attribute.type == kFileNameType &&
            DecodeFileName(attribute.NamedOffsetValue(), &name)) {
          m_Found.parents.push_back(name.parent);
        }
        return true;
      });
      records = records.subspan(kFileRecordSize);
    }
  }

  void Finish() {
    m_Found.entry = m_Entry.EntryInUse();
    if (m_Found.isDirectory) m_Found.entry.Attribute |= kDirectoryAttribute;
    m_Found.name = Utf16ToUtf8(m_Entry.NtfsFullName());
    m_Found.shortName = m_Entry.HasNtfsShortName() ? ShortNameToBytes(m_Found.entry) : m_Found.name;
    m_Found.children = static_cast<uint64_t>(std::max(m_Entry.GetNumEntries(), 0));
  }

  [[noreturn]] void Fail(uint64_t at, const std::string& what) const {
    throw Error(m_strImage, "record at " + Hex(at) + ": " + what, at);
  }

  FileWindow& m_Window;
  uint64_t m_nLimit;
  bool m_bCompressed;
  const std::string& m_strImage;
  UnitDecoder m_Decoder;
  CapsuleDirectoryEntry m_Entry;
  NtfsEntry m_Found;
};

}  // namespace

NtfsEntry ReadNtfsEntry(FileWindow& window, uint64_t offset, uint64_t limit, bool compressed,
                        const std::string& image) {
  return NtfsEntryReader(window, limit, compressed, image).Read(offset);
}

std::optional<_NTFSMiniHeader> NtfsRecordAt(FileWindow& window, uint64_t offset, uint64_t limit) {
  if (offset + kNtfsHeaderSize > limit) return std::nullopt;
  const auto bytes = window.At(offset, kNtfsHeaderSize);
  if (bytes.size() < kNtfsHeaderSize) return std::nullopt;
  const _NTFSMiniHeader header = DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>());
  if (!IsNtfsType(header.RecordType) || offset + kNtfsHeaderSize + header.Length > limit)
    return std::nullopt;
  return header;
}

uint64_t EndOfOtherNtfsRecords(FileWindow& window, uint64_t offset, uint64_t limit, bool compressed,
                               const UnitDecoder& decoder) {
  uint64_t end = offset;
  for (int count = 0; count < kMostOthers; ++count) {
    const auto other = OtherNtfsRecordAt(window, end, limit);
    if (!other) break;
    end += kNtfsHeaderSize + uint64_t{other->Length};
  }
  if (end != limit && !NtfsRecordAt(window, end, limit)) return offset;
  for (uint64_t at = offset; at < end;) {
    const auto other = OtherNtfsRecordAt(window, at, limit);
    if (!other || HoldsKnownBytes(window, at, *other, compressed, decoder)) return at;
    at += kNtfsHeaderSize + uint64_t{other->Length};
  }
  return end;
}

_MiniHeader ToMiniHeader(const _NTFSMiniHeader& header) {
  return {static_cast<uint8_t>(header.RecordType), header.LastFlag, header.UncompressedLength,
          header.Length};
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
