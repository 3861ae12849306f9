// The label of a partition: a note in the index that readers of other makers step over.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "capsule/container/index_format.h"

namespace capsule::host {

inline constexpr size_t kMaxLabelSize = 255;

// What is wrong with a label to store, or nothing. It is UTF-8 without control characters.
std::string JudgeLabel(std::string_view label);

// The record that labels the section of `section`, its record: its name is "name=" and the label.
IndexRecord LabelRecord(const IndexRecord& section, const std::string& label);

// The label in a record; none when it says something else, or is longer than labels are. It may
// hold any bytes.
std::optional<std::string> LabelOf(const IndexRecord& record);

}  // namespace capsule::host
