// A survey goes through the sections of a damaged image as SectionScanner does, over damage as
// well: what is lost is told, what is left is handed out. This is what every survey finds.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "capsule/host/sections/section_scanner.h"

namespace capsule::host {

// What a survey finds, in file order. The path of an item is not used: folders above it may be
// lost.
struct SurveyItem {
  SectionItem item;
  bool isPlaceholder = false;  // a folder whose own records are lost; what lies in it is not
  bool isGap = false;          // bytes that cannot be told; they are nothing
  bool hasData = false;        // of a gap: it has data block records
  uint64_t lost = 0;           // bytes at its end that may hide the records of other items
  std::string damage;          // of a file: what is wrong with its data
};

struct SurveyVisitor {
  std::function<void(const SurveyItem&)> onItem;
  std::function<void(uint64_t offset, const std::string& reason)> onDamage;
  std::function<void(uint64_t offset, const std::string& reason)>
      onFileDamage;                              // to its data alone
  std::function<void(uint64_t offset)> onStray;  // an NTFS entry whose folder is not there
};

// One of `kind` of which nothing is known but where it begins.
inline SurveyItem PlainItem(SectionItem::Kind kind, uint64_t offset) {
  SurveyItem found;
  found.item.kind = kind;
  found.item.offset = offset;
  return found;
}

}  // namespace capsule::host
