// Index records: whatever is taken, written again and taken again is the same. So is what an index
// begins with, and what notes say.
#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "capsule/container/index_format.h"
#include "capsule/platform/byte_reader.h"
#include "fuzz/check.h"

namespace {

using capsule::IndexRecord;
using capsule::NoteKind;
using capsule::fuzz::Require;

void CheckStart(std::span<const uint8_t> bytes) {
  const capsule::IndexStart start = capsule::DecodeIndexStart(bytes);
  if (!start.checkValue) return;
  const auto again = capsule::EncodeIndexStart(*start.checkValue);
  Require(std::equal(again.begin(), again.end(), bytes.begin()), "a preamble keeps its bytes");
}

// A note is of one kind, and none is taken for what another says.
void CheckNote(const IndexRecord& record) {
  const std::string& name = record.name;
  const auto [kind, value] = capsule::SplitNoteName(name);
  Require(name.ends_with(value), "a name ends with its value");
  Require((kind == NoteKind::Unknown) == (value.size() == name.size()), "and begins with its key");
  if (const auto checksum = capsule::ChecksumOfName(name)) {
    Require(kind == NoteKind::CheckValue, "a check value is one");
    Require(capsule::ChecksumName(*checksum) == name, "a check value keeps its name");
  }
  if (const auto restart = capsule::RestartOfName(name)) {
    Require(kind == NoteKind::Restart, "a restart point is one");
    const std::vector<uint8_t> bytes(name.begin(), name.end());
    const auto history = std::span(bytes).last(restart->historyLength);
    Require(capsule::RestartName(restart->fileOffset, history) == name, "and keeps its name");
  }
  if (const auto damage = capsule::DamageNoteOf(record)) {
    Require(kind == (damage->isCut ? NoteKind::Cut : NoteKind::Damaged), "damage is damage");
    Require(name.starts_with(capsule::RecordOf(*damage).name), "and keeps its name, but for room");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckStart({data, size});
  capsule::platform::ByteReader reader({data, size});
  std::vector<unsigned char> written;
  size_t taken = 0;
  while (reader.Remaining() > 0) {
    const IndexRecord record = capsule::TakeIndexRecord(reader);
    if (!reader.Ok()) break;
    taken = reader.Position();
    CheckNote(record);
    capsule::AppendIndexRecord(record, &written);
  }
  Require(written == std::vector<unsigned char>(data, data + taken), "records keep their bytes");
  return 0;
}
