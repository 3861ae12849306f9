// What an index says for good about damage that was there when it was made: notes, which readers of
// other makers step over.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "capsule/container/index_format.h"

namespace capsule::host {

struct DamageNote {
  uint32_t offset = 0;  // of what is damaged: an item, a section; 0 for the image as a whole
  uint32_t length = 0;
  std::string reason;  // one line
  bool isCut = false;  // the end of the image was missing
};

// The record that says so: its name is "damaged=" or "cut=" and the reason, which is clipped.
IndexRecord RecordOf(const DamageNote& note);

// What a record says; none when it says something else.
std::optional<DamageNote> DamageNoteOf(const IndexRecord& record);

}  // namespace capsule::host
