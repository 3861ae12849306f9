#include "capsule/host/tree/salvage_tree.h"

#include <algorithm>

#include "capsule/host/error.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/sections/section_survey.h"
#include "capsule/host/sections/sound_item.h"
#include "capsule/host/sections/survey_outline.h"
#include "capsule/host/tree/tree_comparison.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

constexpr size_t kMostPartitions = 255;  // what a header can count

// Collects nodes in file order, and puts them in the order of a Catalog at the end.
class TreeCollector {
 public:
  void Add(const SurveyItem& found) {
    const SectionItem& item = found.item;
    if (item.kind == Kind::Section && m_Roots.size() < kMostPartitions)
      return BeginPartition(item.offset);
    if (m_Roots.empty() && item.kind != Kind::Trailer) BeginPartition(0);
    if (item.isRoot) return;
    if (item.kind == Kind::ZeroEntry && m_Open.size() > 1) m_Open.pop_back();
    if (item.isNtfs && m_Open.size() > item.depth + 1) m_Open.resize(item.depth + 1);
    if (item.kind == Kind::Directory || item.kind == Kind::File)
      AddEntry(item, found.isPlaceholder);
  }

  std::unique_ptr<Catalog> Build() {
    // Children of a folder in file order, by counting.
    std::vector<uint32_t> first(m_Nodes.size() + 1);
    for (uint32_t id = 0; id < m_Nodes.size(); ++id) {
      if (!IsRoot(id)) ++first[m_Nodes[id].parent + 1];
    }
    for (size_t i = 1; i < first.size(); ++i) first[i] += first[i - 1];
    std::vector<uint32_t> children(first.back());
    std::vector<uint32_t> next(first.begin(), first.end() - 1);
    for (uint32_t id = 0; id < m_Nodes.size(); ++id) {
      if (!IsRoot(id)) children[next[m_Nodes[id].parent]++] = id;
    }
    std::vector<uint32_t> order = m_Roots;
    order.reserve(m_Nodes.size());
    std::vector<CatalogNode> sorted;
    sorted.reserve(m_Nodes.size());
    for (uint32_t i = 0; i < m_Roots.size(); ++i) m_Nodes[m_Roots[i]].parent = i;
    for (uint32_t at = 0; at < order.size(); ++at) {
      const uint32_t id = order[at];
      CatalogNode node = std::move(m_Nodes[id]);
      node.firstChild = static_cast<uint32_t>(order.size());
      node.childCount = first[id + 1] - first[id];
      for (uint32_t i = first[id]; i < first[id + 1]; ++i) {
        m_Nodes[children[i]].parent = at;
        order.push_back(children[i]);
      }
      sorted.push_back(std::move(node));
    }
    return std::make_unique<Catalog>(std::move(sorted), static_cast<uint32_t>(m_Roots.size()));
  }

 private:
  bool IsRoot(uint32_t id) const { return std::binary_search(m_Roots.begin(), m_Roots.end(), id); }

  void BeginPartition(uint64_t offset) {
    m_Roots.push_back(static_cast<uint32_t>(m_Nodes.size()));
    CatalogNode root;
    root.isDirectory = true;
    root.attributes = kDirectoryAttribute;
    root.partition = static_cast<uint8_t>(m_Roots.size() - 1);
    root.offset = static_cast<uint32_t>(offset);
    m_Open.assign(1, m_Roots.back());
    m_Nodes.push_back(std::move(root));
  }

  void AddEntry(const SectionItem& item, bool isPlaceholder) {
    CatalogNode node;
    node.isPlaceholder = isPlaceholder;
    node.isDirectory = item.kind == Kind::Directory;
    node.parent = m_Open.back();
    node.partition = static_cast<uint8_t>(m_Roots.size() - 1);
    node.attributes = item.entry.Attribute;
    node.size = node.isDirectory ? 0 : item.entry.FileSize;
    node.modified = {item.entry.WriteDate, item.entry.WriteTime};
    node.name = item.name;
    node.shortName = item.shortName;
    node.offset = static_cast<uint32_t>(item.offset);
    node.dataLimit = static_cast<uint32_t>(item.offset + item.length);
    node.dataOffset = node.isDirectory ? node.dataLimit : static_cast<uint32_t>(item.dataOffset);
    if (node.isDirectory) m_Open.push_back(static_cast<uint32_t>(m_Nodes.size()));
    m_Nodes.push_back(std::move(node));
  }

  std::vector<CatalogNode> m_Nodes;
  std::vector<uint32_t> m_Roots;
  std::vector<uint32_t> m_Open;  // folders, the innermost last
};

std::string ProblemOfName(FileWindow& window, const SurveyItem& found) {
  const SectionItem& item = found.item;
  const bool isEntry = item.kind == Kind::Directory || item.kind == Kind::File;
  if (!isEntry || found.isPlaceholder || item.isNtfs) return {};
  return JudgeLongName(window, item);
}

// Adds an item by its long name when that can be believed. What is wrong with it, or nothing.
std::string AddNamed(FileWindow& window, const SurveyItem& found, TreeCollector* collector) {
  std::string wrong = ProblemOfName(window, found);
  SurveyItem named = found;
  if (!wrong.empty()) named.item.name = found.item.shortName;
  collector->Add(named);
  return wrong;
}

}  // namespace

std::unique_ptr<Catalog> SalvageCatalog(int descriptor, const std::string& path,
                                        const IndexContents& index, uint64_t limit,
                                        std::vector<ImageProblem>* problems) {
  TreeCollector collector;
  FileWindow window(descriptor, path);
  SurveyVisitor visitor;
  visitor.onItem = [&](const SurveyItem& found) {
    const std::string wrong = AddNamed(window, found, &collector);
    if (wrong.empty()) return;
    const uint64_t at = found.item.offset;
    problems->push_back({"long name at " + Hex(at), wrong, false, at});
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
      SurveyByIndex(descriptor, path, index, visitor);
    } else {
      const SurveyOutline outline(index, limit);
      SurveyBySearch(descriptor, path, {limit, index.sections, true, &outline}, visitor);
    }
  } catch (const ShortageError&) {
    throw;
  } catch (const Error& error) {
    problems->push_back({"0:/", error.Reason()});
  }
  return collector.Build();
}

void CheckSections(int descriptor, const std::string& path, const IndexContents& index,
                   const Catalog& indexed, uint64_t limit) {
  SurveyVisitor visitor;
  TreeCollector collector;
  FileWindow window(descriptor, path);
  visitor.onItem = [&](const SurveyItem& found) { AddNamed(window, found, &collector); };
  visitor.onFileDamage = [](uint64_t, const std::string&) {};  // told when the file is read
  visitor.onStray = [](uint64_t) {};  // readers leave such entries out, and say so
  visitor.onDamage = [&](uint64_t offset, const std::string& reason) {
    throw Error(path, "item at " + Hex(offset) + ": " + reason, offset);
  };
  const SurveyOutline outline(index, limit);
  SurveyBySearch(descriptor, path, {limit, {}, false, &outline}, visitor);
  const std::string difference = CompareTrees(indexed, *collector.Build());
  if (!difference.empty()) throw Error(path, difference);
}

}  // namespace capsule::host
