// Walks over the records of a section: every item lies behind the one before it and inside the
// file, and walks end. What begins at any byte is a data record or not, and a sound one fits a file
// of its chunk. First byte: bit 0 NTFS records, bit 1 compressed; then the records.
#include <cstdint>
#include <span>

#include "capsule/blocks/data_record.h"
#include "capsule/host/error.h"
#include "capsule/host/sections/searching_survey.h"
#include "capsule/host/sections/section_scanner.h"
#include "fuzz/check.h"
#include "tests/support/bytes.h"
#include "tests/support/image_maker.h"

namespace {

void CheckDataRecords(std::span<const uint8_t> bytes, const capsule::RecordRules& rules) {
  using capsule::fuzz::Require;
  for (; !bytes.empty(); bytes = bytes.subspan(1)) {
    const auto record = capsule::DecodeDataRecord(bytes, rules);
    if (!record) continue;
    Require(record->headerSize == rules.HeaderSize(), "a header has one size");
    Require(capsule::JudgeDataRecord(*record).empty(), "what is decoded is sound");
    Require(record->MayGoOn() != record->IsLast(), "it is the last or may go on");
    const uint64_t size = record->IsLast() ? record->chunk : uint64_t{record->chunk} + 1;
    Require(capsule::JudgeCoverage(*record, 0, size, rules).empty(), "it fits its file");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace capsule;
  using fuzz::Require;
  if (size == 0) return 0;
  test::ImageMaker maker((data[0] & 2) != 0);
  maker.BeginSection((data[0] & 1) != 0 ? 7 : 11);
  maker.Append(std::span(data + 1, size - 1));
  const std::string& image = maker.Bytes();
  const host::ImageFile bytes(host::MemorySource({test::Unsigned(image), image.size()}), "fuzz");
  CheckDataRecords({data + 1, size - 1},
                   {(data[0] & 1) != 0 ? RecordKind::Ntfs : RecordKind::Fat, (data[0] & 2) != 0});

  uint64_t end = 0;
  const auto judge = [&](const host::SectionItem& item) {
    Require(item.offset >= end && item.offset + item.length <= image.size(),
            "items follow each other inside the file");
    end = item.offset + item.length;
  };
  try {
    host::SectionScanner scanner(bytes);
    for (host::SectionItem item; scanner.Next(&item);) judge(item);
  } catch (const host::Error&) {
  }

  host::SurveyVisitor visitor;
  visitor.onDamage = [](uint64_t, const std::string&) {};
  visitor.onFileDamage = visitor.onDamage;
  visitor.onStray = [](uint64_t) {};
  visitor.onItem = [&](const host::SurveyItem& found) {
    Require(found.item.offset + found.item.length <= image.size(), "what is left is in the file");
  };
  host::SurveyBySearch(bytes, {image.size()}, visitor);
  return 0;
}
