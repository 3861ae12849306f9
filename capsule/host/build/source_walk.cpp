// Every folder and file is opened from the descriptor of the folder above it and compared with what
// was looked at before. Below 32 levels the descriptors of outer folders are closed; the way back
// is "..", which must be the same folder, so depth costs no descriptors.
#include "capsule/host/build/source_walk.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/platform/ascii.h"
#include "capsule/platform/folder.h"
#include "capsule/platform/short_names.h"
#include "capsule/platform/unfinished_file.h"

namespace capsule::host {
namespace {

constexpr const char* kChanged = "changed while it was read";

// So many folders keep their descriptors while the walk is below them.
constexpr size_t kKeptFolders = 32;

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

// `error` is what a call said about the item.
void MarkFailed(SourceItem* item, int error) {
  ThrowIfShort(item->path, "cannot be read", error);
  // A link, or something else, in the place of what was looked at.
  const bool isOther = error == ELOOP || error == ENOTDIR || error == EISDIR;
  MarkUnreadable(item, isOther ? kChanged : SystemReason(error));
}

// Files that come and go decide no alias of others.
std::vector<std::string> WithoutUnfinished(const platform::ScopedDescriptor& folder,
                                           std::vector<std::string> names) {
  std::erase_if(names, [&](const std::string& name) {
    if (!platform::IsUnfinishedName(name)) return false;
    const auto status = platform::StatusIn(folder.Get(), name);
    return status && status->kind == platform::FileKind::Regular;
  });
  return names;
}

bool IsSame(const platform::FileStatus& a, const platform::FileStatus& b) {
  return a.identity == b.identity && a.kind == b.kind;
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
    : m_root(std::move(root)), m_filter(std::move(filter)) {
  platform::ScopedDescriptor folder(platform::OpenFolderBehind(m_root.c_str()));
  const auto status = folder ? platform::StatusOf(folder.Get()) : std::nullopt;
  if (!status || !Push(std::move(folder), *status)) ThrowSystemError(m_root, "", errno);
}

bool SourceWalk::Next(SourceItem* item) {
  while (!m_frames.empty() && m_frames.back().names.empty()) Leave();
  if (m_frames.empty()) return false;
  const std::string name = std::move(m_frames.back().names.back());
  m_frames.back().names.pop_back();
  Examine(name, item);
  if (item->kind == SourceItem::Kind::File) OpenFile(name, item);
  if (item->kind == SourceItem::Kind::Folder) Enter(name, item);
  return true;
}

void SourceWalk::Examine(const std::string& name, SourceItem* item) {
  const Frame& frame = m_frames.back();
  *item = SourceItem();
  item->relative = m_relative.empty() ? name : m_relative + '/' + name;
  item->path = m_root.ends_with('/') ? m_root + item->relative : m_root + '/' + item->relative;
  item->folder = frame.status;
  if (m_filter && m_filter(name, item->relative)) {
    item->kind = SourceItem::Kind::Excluded;
    return;
  }
  if (!frame.folder) return MarkUnreadable(item, kChanged);
  const auto status = platform::StatusIn(frame.folder.Get(), name);
  if (!status) return MarkFailed(item, errno);
  item->status = *status;
  item->kind = KindOf(status->kind);
  if (item->kind == SourceItem::Kind::Special) return;
  if (item->kind == SourceItem::Kind::File && platform::IsUnfinishedName(name)) {
    item->kind = SourceItem::Kind::Unfinished;
    return;
  }
  if (const char* problem = NameProblem(name)) return MarkUnreadable(item, problem);
  const auto alias = frame.aliases.find(name);
  if (alias == frame.aliases.end()) return MarkUnreadable(item, "has no 8.3 name left to it");
  item->alias = alias->second;
}

void SourceWalk::OpenFile(const std::string& name, SourceItem* item) {
  item->file =
      platform::ScopedDescriptor(platform::OpenFileIn(m_frames.back().folder.Get(), name.c_str()));
  const auto status = item->file ? platform::StatusOf(item->file.Get()) : std::nullopt;
  if (!status) return MarkFailed(item, errno);
  if (!IsSame(*status, item->status)) return MarkUnreadable(item, kChanged);
  item->status = *status;
}

void SourceWalk::Enter(const std::string& name, SourceItem* item) {
  platform::ScopedDescriptor folder(
      platform::OpenFolderIn(m_frames.back().folder.Get(), name.c_str()));
  const auto status = folder ? platform::StatusOf(folder.Get()) : std::nullopt;
  if (!status) return MarkFailed(item, errno);
  if (!IsSame(*status, item->status)) return MarkUnreadable(item, kChanged);
  item->status = *status;
  if (!Push(std::move(folder), *status)) return MarkFailed(item, errno);
  m_relative = item->relative;
  if (m_frames.size() > kKeptFolders) CloseAbove();
}

// Closes the folder above the current one, where there is a way back to it.
void SourceWalk::CloseAbove() {
  Frame& above = m_frames[m_frames.size() - 2];
  const platform::ScopedDescriptor back(platform::OpenFolderIn(m_frames.back().folder.Get(), ".."));
  if (IsAbove(back, above)) above.folder.Close();
}

// Lists the folder, which becomes the current one; false with errno when it cannot.
bool SourceWalk::Push(platform::ScopedDescriptor folder, const platform::FileStatus& status) {
  auto names = platform::ListDirectory(folder.Get());
  if (!names) return false;
  auto aliases =
      platform::MakeAliases(WithoutUnfinished(folder, *names), platform::AliasPolicy::Exact);
  SortForTaking(&*names);
  m_frames.push_back(
      {std::move(folder), status, std::move(*names), std::move(aliases), m_relative.size()});
  return true;
}

void SourceWalk::Leave() {
  const Frame left = std::move(m_frames.back());
  m_frames.pop_back();
  m_relative.resize(left.pathLength);
  if (m_frames.empty() || m_frames.back().folder) return;
  platform::ScopedDescriptor above(platform::OpenFolderIn(left.folder.Get(), ".."));
  if (!above) ThrowIfShort(m_root, "cannot be read", errno);
  if (IsAbove(above, m_frames.back())) m_frames.back().folder = std::move(above);
}

bool SourceWalk::IsAbove(const platform::ScopedDescriptor& above, const Frame& frame) const {
  return above && platform::Identify(above.Get()) == frame.status.identity;
}

void SourceWalk::SkipFolder() { m_frames.back().names.clear(); }

}  // namespace capsule::host
