// Walks over the records of a section: every item lies behind the one before it and inside the
// file, and walks end. First byte: bit 0 NTFS records, bit 1 compressed; then the records.
#include <cstdint>

#include "capsule/host/error.h"
#include "capsule/host/sections/searching_survey.h"
#include "capsule/host/sections/section_scanner.h"
#include "fuzz/check.h"
#include "fuzz/section_image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace capsule;
  using fuzz::Require;
  if (size == 0) return 0;
  fuzz::Bytes image = fuzz::BeginImage((data[0] & 1) != 0 ? 7 : 11, (data[0] & 2) != 0);
  fuzz::Append({data + 1, size - 1}, &image);
  const host::ImageFile bytes(host::MemorySource(image), "fuzz");

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
