// Every folder and file is opened from the descriptor of the folder above it, if the listing calls
// it one: so devices are not opened, and nothing needs to be looked at before. Below 32 levels the
// descriptors of outer folders are closed; the way back is "..", which must be the same folder, so
// depth costs no descriptors.
#include "capsule/host/build/source_walk.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/partition/record_format.h"
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
void SortForTaking(std::vector<platform::ListedItem>* items) {
  std::sort(items->begin(), items->end(),
            [](const auto& a, const auto& b) { return a.name > b.name; });
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

// The names that decide aliases: files that come and go do not.
std::vector<std::string> LastingNames(const std::vector<platform::ListedItem>& items) {
  std::vector<std::string> names;
  names.reserve(items.size());
  for (const platform::ListedItem& item : items) {
    const bool comesAndGoes =
        item.kind == platform::FileKind::Regular && platform::IsUnfinishedName(item.name);
    if (!comesAndGoes) names.push_back(item.name);
  }
  return names;
}

static_assert(kMaxLongNamePieces * kPieceUnits == 819);

}  // namespace

const char* NameProblem(std::string_view name) {
  if (name.size() > kMaxLongNamePieces * kPieceUnits) {
    return "an image cannot hold a name of more than 819 bytes";
  }
  if (name.find('\\') != std::string_view::npos) return "an image cannot hold a name with a '\\'";
  if (name.ends_with('.')) return "an image cannot hold a name that ends with a '.'";
  if (name.ends_with('?')) return "an image cannot hold a name that ends with a '?'";
  if (!name.empty() && platform::IsAsciiSpace(name.back())) {
    return "an image cannot hold a name that ends with white space";
  }
  return nullptr;
}

SourceWalk::SourceWalk(std::string root, Filter filter, Relief relief)
    : m_root(std::move(root)), m_filter(std::move(filter)), m_relief(std::move(relief)) {
  auto folder = WithRelief(m_relief, [&] {
    return platform::ScopedDescriptor(platform::OpenFolderBehind(m_root.c_str()));
  });
  const auto status = folder ? platform::StatusOf(folder.Get()) : std::nullopt;
  if (!status || !Push(std::move(folder), *status)) ThrowSystemError(m_root, "", errno);
}

bool SourceWalk::Next(SourceItem* item) {
  while (!m_frames.empty() && m_frames.back().items.empty()) Leave();
  if (m_frames.empty()) return false;
  const platform::ListedItem listed = std::move(m_frames.back().items.back());
  m_frames.back().items.pop_back();
  Examine(listed, item);
  if (item->kind == SourceItem::Kind::File) OpenFile(listed.name, item);
  if (item->kind == SourceItem::Kind::Folder) Enter(listed.name, item);
  return true;
}

void SourceWalk::Examine(const platform::ListedItem& listed, SourceItem* item) {
  const Frame& frame = m_frames.back();
  const std::string& name = listed.name;
  *item = SourceItem();
  item->relative = m_relative.empty() ? name : m_relative + '/' + name;
  item->path = m_root.ends_with('/') ? m_root + item->relative : m_root + '/' + item->relative;
  item->folder = frame.status;
  if (m_filter && m_filter(name, item->relative)) {
    item->kind = SourceItem::Kind::Excluded;
    return;
  }
  item->kind = KindOf(listed.kind.value_or(platform::FileKind::Other));
  if (item->kind == SourceItem::Kind::Special) return;
  if (item->kind == SourceItem::Kind::File && platform::IsUnfinishedName(name)) {
    Look(name, item);
    item->kind = SourceItem::Kind::Unfinished;
    return;
  }
  if (!frame.folder) return LeaveOut(name, kChanged, item);
  if (const char* problem = NameProblem(name)) return LeaveOut(name, problem, item);
  const auto alias = frame.aliases.find(name);
  if (alias == frame.aliases.end()) return LeaveOut(name, "has no 8.3 name left to it", item);
  item->alias = alias->second;
}

// What can be told of an item without opening it.
void SourceWalk::Look(const std::string& name, SourceItem* item) const {
  const auto& folder = m_frames.back().folder;
  const auto status = folder ? platform::StatusIn(folder.Get(), name) : std::nullopt;
  if (status) item->status = *status;
}

void SourceWalk::LeaveOut(const std::string& name, std::string reason, SourceItem* item) const {
  Look(name, item);
  item->kind = SourceItem::Kind::Unreadable;
  item->reason = std::move(reason);
}

// `error` is what a call said about the item.
void SourceWalk::LeaveOutFailed(const std::string& name, int error, SourceItem* item) const {
  ThrowIfShort(item->path, "cannot be read", error);
  // A link, or something else, in the place of what was listed.
  const bool isOther = error == ELOOP || error == ENOTDIR || error == EISDIR;
  LeaveOut(name, isOther ? kChanged : SystemReason(error), item);
}

platform::ScopedDescriptor SourceWalk::OpenFolder(const platform::ScopedDescriptor& from,
                                                  const char* name) const {
  return WithRelief(m_relief, [&] {
    return platform::ScopedDescriptor(platform::OpenFolderIn(from.Get(), name));
  });
}

void SourceWalk::OpenFile(const std::string& name, SourceItem* item) {
  const int folder = m_frames.back().folder.Get();
  item->file = WithRelief(m_relief, [&] {
    return platform::ScopedDescriptor(platform::OpenFileIn(folder, name.c_str()));
  });
  const auto status = item->file ? platform::StatusOf(item->file.Get()) : std::nullopt;
  if (!status) return LeaveOutFailed(name, errno, item);
  if (status->kind != platform::FileKind::Regular) return LeaveOut(name, kChanged, item);
  item->status = *status;
  item->stamp = platform::StampOf(*status);
}

void SourceWalk::Enter(const std::string& name, SourceItem* item) {
  platform::ScopedDescriptor folder = OpenFolder(m_frames.back().folder, name.c_str());
  const auto status = folder ? platform::StatusOf(folder.Get()) : std::nullopt;
  if (!status) return LeaveOutFailed(name, errno, item);
  item->status = *status;
  if (!Push(std::move(folder), *status)) return LeaveOutFailed(name, errno, item);
  m_relative = item->relative;
  if (m_frames.size() > kKeptFolders) CloseAbove();
}

// Closes the folder above the current one, where there is a way back to it.
void SourceWalk::CloseAbove() {
  Frame& above = m_frames[m_frames.size() - 2];
  const platform::ScopedDescriptor back = OpenFolder(m_frames.back().folder, "..");
  if (IsAbove(back, above)) above.folder.Close();
}

// Lists the folder, which becomes the current one; false with errno when it cannot.
bool SourceWalk::Push(platform::ScopedDescriptor folder, const platform::FileStatus& status) {
  auto items = WithRelief(m_relief, [&] { return platform::ListItems(folder.Get()); });
  if (!items) return false;
  for (platform::ListedItem& item : *items) {
    if (item.kind) continue;
    const auto found = platform::StatusIn(folder.Get(), item.name);
    item.kind = found ? found->kind : platform::FileKind::Regular;  // opening tells what is wrong
  }
  auto aliases = platform::MakeAliases(LastingNames(*items), platform::AliasPolicy::Exact);
  SortForTaking(&*items);
  m_frames.push_back(
      {std::move(folder), status, std::move(*items), std::move(aliases), m_relative.size()});
  return true;
}

void SourceWalk::Leave() {
  const Frame left = std::move(m_frames.back());
  m_frames.pop_back();
  m_relative.resize(left.pathLength);
  if (m_frames.empty() || m_frames.back().folder) return;
  platform::ScopedDescriptor above = OpenFolder(left.folder, "..");
  if (!above) ThrowIfShort(m_root, "cannot be read", errno);
  if (IsAbove(above, m_frames.back())) m_frames.back().folder = std::move(above);
}

bool SourceWalk::IsAbove(const platform::ScopedDescriptor& above, const Frame& frame) const {
  return above && platform::Identify(above.Get()) == frame.status.identity;
}

}  // namespace capsule::host
