#include "capsule/host/source_walk.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/reason.h"
#include "capsule/platform/ascii.h"

namespace capsule::host {
namespace {

// Names are taken from the end of the list, so the first in byte order stands last.
void SortForTaking(std::vector<std::string>* names) {
  std::sort(names->begin(), names->end(), std::greater<>());
}

SourceItem::Kind KindOf(platform::FileKind kind) {
  switch (kind) {
    case platform::FileKind::Regular:
      return SourceItem::Kind::File;
    case platform::FileKind::Directory:
      return SourceItem::Kind::Folder;
    default:
      return SourceItem::Kind::Special;
  }
}

void MarkUnreadable(SourceItem* item, std::string reason) {
  item->kind = SourceItem::Kind::Unreadable;
  item->reason = std::move(reason);
}

}  // namespace

const char* NameProblem(std::string_view name) {
  if (name.find('\\') != std::string_view::npos) return "an image cannot hold a name with a '\\'";
  if (name.ends_with('.')) return "an image cannot hold a name that ends with a '.'";
  if (name.ends_with('?')) return "an image cannot hold a name that ends with a '?'";
  if (!name.empty() && platform::IsAsciiSpace(name.back())) {
    return "an image cannot hold a name that ends with white space";
  }
  return nullptr;
}

SourceWalk::SourceWalk(std::string root, Filter filter)
    : m_strRoot(std::move(root)), m_Filter(std::move(filter)) {
  auto names = platform::ListDirectory(m_strRoot);
  if (!names) throw Error(m_strRoot, SystemReason(errno));
  SortForTaking(&*names);
  m_Frames.push_back({std::move(*names), 0});
}

bool SourceWalk::Next(SourceItem* item) {
  while (!m_Frames.empty() && m_Frames.back().names.empty()) {
    m_strRelative.resize(m_Frames.back().pathLength);
    m_Frames.pop_back();
  }
  if (m_Frames.empty()) return false;
  const std::string name = std::move(m_Frames.back().names.back());
  m_Frames.back().names.pop_back();
  Examine(name, item);
  if (item->kind == SourceItem::Kind::Folder) Enter(item);
  return true;
}

void SourceWalk::Examine(const std::string& name, SourceItem* item) {
  *item = SourceItem();
  item->relative = m_strRelative.empty() ? name : m_strRelative + '/' + name;
  item->path =
      m_strRoot.ends_with('/') ? m_strRoot + item->relative : m_strRoot + '/' + item->relative;
  if (m_Filter && m_Filter(name, item->relative)) {
    item->kind = SourceItem::Kind::Excluded;
    return;
  }
  const auto status = platform::StatusOfLink(item->path);
  if (!status) {
    MarkUnreadable(item, SystemReason(errno));
    return;
  }
  item->status = *status;
  item->kind = KindOf(status->kind);
  if (item->kind == SourceItem::Kind::Special) return;
  if (const char* problem = NameProblem(name)) MarkUnreadable(item, problem);
}

void SourceWalk::Enter(SourceItem* item) {
  auto names = platform::ListDirectory(item->path);
  if (!names) {
    MarkUnreadable(item, SystemReason(errno));
    return;
  }
  // What was listed must be what was looked at, not where a link put in its place leads.
  const auto now = platform::StatusOfLink(item->path);
  if (!now || !(now->identity == item->status.identity)) {
    MarkUnreadable(item, "changed while it was read");
    return;
  }
  SortForTaking(&*names);
  m_Frames.push_back({std::move(*names), m_strRelative.size()});
  m_strRelative = item->relative;
}

void SourceWalk::SkipFolder() { m_Frames.back().names.clear(); }

}  // namespace capsule::host
