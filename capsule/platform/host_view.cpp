// While an item is being inserted it has been opened already, and everything is answered from that:
// no path is looked up a second time, so nothing can change in between.
#include "capsule/platform/host_view.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

#include "capsule/platform/alias_cache.h"
#include "capsule/platform/dos_time.h"
#include "capsule/platform/host_files.h"
#include "capsule/platform/host_path.h"
#include "capsule/platform/opened_item.h"
#include "capsule/platform/scoped_descriptor.h"

namespace capsule::platform {
namespace {

FileTime ToFileTime(Instant instant) {
  return FileTimeFromUnix(instant.seconds, instant.nanoseconds);
}

uint32_t Attributes(const FileStatus& status, std::string_view path) {
  uint32_t attributes =
      status.kind == FileKind::Directory ? kAttributeDirectory : kAttributeArchive;
  if (!status.writable) attributes |= kAttributeReadOnly;
  if (IsDotName(path)) attributes |= kAttributeHidden;
  return attributes;
}

}  // namespace

struct HostView::Impl {
  std::unordered_map<char, std::string> roots;
  AliasCache aliases;
  TimePolicy timePolicy = TimePolicy::System;
  Instant latest{std::numeric_limits<int64_t>::max(), 0};

  const OpenedItem* opened = nullptr;

  // What the opened item says of `path`.
  std::optional<FileStatus> OpenedStatus(std::string_view path) const {
    if (!path.starts_with(opened->path)) return std::nullopt;
    const std::string_view rest = path.substr(opened->path.size());
    if (rest.empty() || rest == "\\.") return opened->status;
    return rest == "\\.." ? std::optional(opened->folder) : std::nullopt;
  }

  FileTime Report(Instant instant) const { return ToFileTime(std::min(instant, latest)); }
};

HostView::HostView() : m_impl(std::make_unique<Impl>()) {}
HostView::~HostView() = default;

void HostView::SetRoot(char letter, const std::string& directory) {
  if (directory.empty()) {
    m_impl->roots.erase(letter);
  } else {
    m_impl->roots.insert_or_assign(letter, CanonicalDirectory(directory));
  }
}

void HostView::SetAliasPolicy(AliasPolicy policy) { m_impl->aliases.SetPolicy(policy); }

void HostView::SetTimePolicy(TimePolicy policy) { m_impl->timePolicy = policy; }

void HostView::CapTimes(int64_t unixSeconds) { m_impl->latest = {unixSeconds, 0}; }

void HostView::SetOpenedItem(const OpenedItem* item) { m_impl->opened = item; }

ScopedDescriptor HostView::OpenFile(const char* path) const {
  if (path == nullptr) return ScopedDescriptor();
  if (const OpenedItem* opened = m_impl->opened) {
    return ScopedDescriptor::Borrow(path == opened->path ? opened->descriptor : -1);
  }
  const auto resolved = Resolve(path);
  return ScopedDescriptor(resolved ? OpenForReading(resolved->c_str()) : -1);
}

std::optional<std::string> HostView::Resolve(std::string_view path) const {
  if (path.find('\0') != std::string_view::npos) return std::nullopt;
  const HostPath parts = SplitHostPath(path);
  if (!parts.letter) return WithSlashes(path);
  const auto root = m_impl->roots.find(*parts.letter);
  if (root == m_impl->roots.end()) return std::nullopt;
  return JoinBelowRoot(root->second, path.substr(2));
}

std::optional<FindData> HostView::Find(std::string_view path) const {
  std::optional<FileStatus> status;
  if (m_impl->opened != nullptr) {
    status = m_impl->OpenedStatus(path);
  } else if (const std::optional<std::string> resolved = Resolve(path)) {
    status = Status(*resolved);
  }
  if (!status) return std::nullopt;

  FindData found;
  found.attributes = Attributes(*status, path);
  if (const OpenedItem* opened = m_impl->opened; opened != nullptr && !path.ends_with("\\..")) {
    const uint32_t kind = found.attributes & kAttributeDirectory;
    found.attributes = opened->attributes ? kind | *opened->attributes : found.attributes;
  }
  found.size = status->size;
  found.lastWriteTime = m_impl->Report(status->modification);
  const bool modificationOnly = m_impl->timePolicy == TimePolicy::ModificationOnly;
  found.creationTime = modificationOnly ? found.lastWriteTime : m_impl->Report(status->birth);
  found.lastAccessTime = modificationOnly ? found.lastWriteTime : m_impl->Report(status->access);
  return found;
}

std::optional<std::string> HostView::ShortPath(std::string_view path) {
  const HostPath parts = SplitHostPath(path);
  if (IsDirectoryReference(parts.component)) {
    return Find(path) ? std::optional<std::string>(path) : std::nullopt;
  }
  if (m_impl->opened != nullptr) {
    if (path != m_impl->opened->path) return std::nullopt;
    return std::string(parts.front) + m_impl->opened->alias;
  }
  const std::optional<std::string> directory = Resolve(parts.front);
  if (!directory) return std::nullopt;
  const std::string* alias =
      m_impl->aliases.Find(CanonicalDirectory(*directory), std::string(parts.component));
  if (alias == nullptr) return std::nullopt;
  return std::string(parts.front) + *alias;
}

}  // namespace capsule::platform
