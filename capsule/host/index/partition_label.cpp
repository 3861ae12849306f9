#include "capsule/host/index/partition_label.h"

#include "capsule/host/message_text.h"

namespace capsule::host {
namespace {

constexpr std::string_view kName = "name=";

}  // namespace

std::string JudgeLabel(std::string_view label) {
  if (label.size() > kMaxLabelSize) {
    return "label of a partition is " + std::to_string(label.size()) + " bytes, " +
           std::to_string(kMaxLabelSize) + " are possible";
  }
  if (OneLine(label) != label) return "label of a partition has control characters";
  while (!label.empty()) {
    const size_t length = Utf8SequenceLength(label);
    if (length == 0) return "label of a partition is not UTF-8";
    label.remove_prefix(length);
  }
  return {};
}

IndexRecord LabelRecord(const IndexRecord& section, const std::string& label) {
  return {kIndexNote, std::string(kName) + label, section.offset, section.length};
}

std::optional<std::string> LabelOf(const IndexRecord& record) {
  if (record.type != kIndexNote || !record.name.starts_with(kName)) return std::nullopt;
  if (record.name.size() > kName.size() + kMaxLabelSize) return std::nullopt;
  return record.name.substr(kName.size());
}

}  // namespace capsule::host
