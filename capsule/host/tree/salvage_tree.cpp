// The same collector makes a tree of whatever a survey hands out. So checking an index without a
// check value is a survey that ends at the first damage, and a comparison of two trees.
#include "capsule/host/tree/salvage_tree.h"

#include <algorithm>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/sections/indexed_survey.h"
#include "capsule/host/sections/searching_survey.h"
#include "capsule/host/sections/survey_outline.h"
#include "capsule/host/tree/tree_builder.h"
#include "capsule/host/tree/tree_comparison.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

constexpr size_t kMostPartitions = 255;  // what a header can count

// Puts what a survey hands out into a tree.
class TreeCollector {
 public:
  void Add(const SurveyItem& found) {
    const SectionItem& item = found.item;
    const auto offset = static_cast<uint32_t>(item.offset);
    if (item.kind == Kind::Section && m_tree.SoFar().Roots() < kMostPartitions)
      return m_tree.BeginPartition(offset);
    if (!m_tree.HasPartition() && item.kind != Kind::Trailer) m_tree.BeginPartition(0);
    if (item.isRoot) return;
    if (item.kind == Kind::ZeroEntry) m_tree.Leave();
    if (item.isNtfs) m_tree.LeaveTo(item.depth);
    if (item.IsEntry()) AddEntry(item, found.isPlaceholder);
  }

  std::unique_ptr<Catalog> Build() { return m_tree.Build(); }

 private:
  void AddEntry(const SectionItem& item, bool isPlaceholder) {
    CatalogNode node;
    node.isPlaceholder = isPlaceholder;
    node.isDirectory = item.kind != Kind::File;
    node.attributes = item.entry.Attribute;
    node.size = node.isDirectory ? 0 : item.entry.FileSize;
    node.modified = {item.entry.WriteDate, item.entry.WriteTime};
    node.offset = static_cast<uint32_t>(item.offset);
    node.dataLimit = static_cast<uint32_t>(item.offset + item.length);
    node.dataOffset = node.isDirectory ? node.dataLimit : static_cast<uint32_t>(item.dataOffset);
    m_tree.Add({item.Called(), item.shortName, node, item.kind == Kind::DotEntry});
  }

  TreeBuilder m_tree;
};

}  // namespace

std::unique_ptr<Catalog> SalvageCatalog(const ImageFile& image, const IndexContents& index,
                                        uint64_t limit, std::vector<ImageProblem>* problems) {
  TreeCollector collector;
  SurveyVisitor visitor;
  visitor.onItem = [&](const SurveyItem& found) {
    collector.Add(found);
    const SectionItem& item = found.item;
    if (item.nameProblem.empty()) return;
    problems->push_back({"long name at " + Hex(item.offset), item.nameProblem, false, item.offset});
  };
  visitor.onDamage = [&](uint64_t offset, const std::string& reason) {
    problems->push_back({"item at " + Hex(offset), reason, false, offset});
  };
  visitor.onFileDamage = visitor.onDamage;
  visitor.onStray = [&](uint64_t offset) {
    problems->push_back({"item at " + Hex(offset), "its folder is lost", false, offset});
  };
  try {
    if (index.isChecked && !index.records.empty()) {
      SurveyByIndex(image, index, visitor);
    } else {
      const SurveyOutline outline(index, limit);
      SurveyBySearch(image, {limit, index.sections, true, &outline}, visitor);
    }
  } catch (const ShortageError&) {
    throw;
  } catch (const Error& error) {
    problems->push_back({"0:/", error.Reason()});
  }
  return collector.Build();
}

void RequireSameSections(const ImageFile& image, const IndexContents& index, const Catalog& indexed,
                         uint64_t limit) {
  SurveyVisitor visitor;
  TreeCollector collector;
  visitor.onItem = [&](const SurveyItem& found) { collector.Add(found); };
  visitor.onFileDamage = [](uint64_t, const std::string&) {};  // told when the file is read
  visitor.onStray = [](uint64_t) {};  // readers leave such entries out, and say so
  visitor.onDamage = [&](uint64_t offset, const std::string& reason) {
    throw Error(image.Name(), "item at " + Hex(offset) + ": " + reason, offset);
  };
  const SurveyOutline outline(index, limit);
  SurveyBySearch(image, {limit, {}, false, &outline}, visitor);
  const std::string difference = CompareTrees(indexed, *collector.Build());
  if (!difference.empty()) throw Error(image.Name(), difference);
}

}  // namespace capsule::host
