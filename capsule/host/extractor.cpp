// Walks the tree of an image and the folders of the target side by side.
//
// 1. One folder of the target is open at a time, reached from the target one component at a time
//    without following links. Going up takes "..", which must be the very folder (device and inode)
//    that the walk came from: so depth costs no descriptors, and a folder that is moved away
//    meanwhile ends the extraction instead of leading it elsewhere.
// 2. A name is judged as it will be used and is not changed afterwards.
// 3. A folder's times are set when the walk leaves it, after its contents.
#include "capsule/host/extractor.h"

#include <algorithm>
#include <cerrno>
#include <unordered_map>

#include "capsule/host/extract/file_extraction.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/file/watch.h"
#include "capsule/platform/folder.h"
#include "capsule/platform/scoped_descriptor.h"
#include "capsule/platform/unfinished_file.h"

namespace capsule::host {
namespace {

// Reason why a file of this name must not be made, or null.
const char* JudgeName(std::string_view name) {
  if (name.empty()) return "name is empty";
  if (name == "." || name == "..") return "name stands for a folder of the file system";
  if (name.find_first_of(std::string_view("/\\\0", 3)) != std::string::npos) {
    return "name contains a separator or a zero byte";
  }
  return nullptr;
}

}  // namespace

struct Extractor::Impl {
  // A folder that the walk is in, and how to leave it.
  struct Level {
    Entry folder;
    EntryRange::Iterator next;
    bool isWanted = false;  // everything below is
    bool isNew = false;
    platform::FileIdentity identity;
  };

  Impl(const Image& source, std::filesystem::path path, ExtractOptions settings)
      : image(source),
        target(std::move(path)),
        options(std::move(settings)),
        watch(target.string(), options.onProgress, options.stop) {}

  void OpenTarget();
  void Walk(const Entry& root);
  void Visit(const Entry& entry);
  bool Enter(const Entry& folder, std::string_view name, bool isWanted);
  void Leave();
  void ExtractFile(const Entry& file);
  bool OpenOrMake(const std::string& name, const Entry& folder, bool* isNew);
  platform::FileIdentity IdentityOf(const platform::ScopedDescriptor& folder) const;
  void Problem(const Entry& entry, std::string reason);
  void Tell(const Entry& entry);
  uint64_t BytesToExtract() const;

  const Image& image;
  std::filesystem::path target;
  ExtractOptions options;
  Watch watch;
  uint64_t passed = 0;                        // bytes of files that are done, or left out
  std::unordered_map<uint32_t, bool> chosen;  // by node: true: wanted; false: leads to a wanted one
  platform::ScopedDescriptor current;
  std::vector<Level> levels;
  ExtractReport report;
};

void Extractor::Impl::OpenTarget() {
  current = platform::ScopedDescriptor(platform::OpenFolder(target.c_str()));
  if (current) return platform::RemoveLeftOvers(current.Get());
  const int reason = errno;
  const bool isLink = reason == ELOOP || (reason == ENOTDIR && std::filesystem::is_symlink(target));
  if (!isLink) ThrowSystemError(target.string(), "cannot open", reason);
  throw Error(ErrorKind::Unsupported, target.string(),
              "is a link; name the folder it leads to, or end it with '/'");
}

platform::FileIdentity Extractor::Impl::IdentityOf(const platform::ScopedDescriptor& folder) const {
  const auto identity = platform::Identify(folder.Get());
  if (!identity) ThrowSystemError(target.string(), "cannot look at a folder", errno);
  return *identity;
}

void Extractor::Impl::Problem(const Entry& entry, std::string reason) {
  report.problems.push_back({entry.Path(), std::move(reason)});
}

void Extractor::Impl::Tell(const Entry& entry) {
  watch.Now().files = report.files;
  watch.Now().directories = report.directories;
  watch.Tell(passed, watch.IsHeard() ? entry.Path() : "");
}

// The sizes of the files that are wanted.
uint64_t Extractor::Impl::BytesToExtract() const {
  uint64_t bytes = 0;
  std::vector<std::pair<Entry, bool>> left;
  left.reserve(static_cast<size_t>(image.Partitions()));
  for (int n = 0; n < image.Partitions(); ++n) left.emplace_back(image.Root(n), chosen.empty());
  while (!left.empty()) {
    const auto [entry, isBelowWanted] = left.back();
    left.pop_back();
    const auto mark = chosen.find(entry.m_id);
    const bool isWanted = isBelowWanted || (mark != chosen.end() && mark->second);
    if (!isWanted && mark == chosen.end()) continue;
    bytes += entry.Size();
    for (const Entry& child : entry.Children()) left.emplace_back(child, isWanted);
  }
  return bytes;
}

// Opens the folder `name` of the current one, made if there is none; it becomes the current one.
bool Extractor::Impl::OpenOrMake(const std::string& name, const Entry& folder, bool* isNew) {
  *isNew = platform::MakeFolderIn(current.Get(), name.c_str());
  if (!*isNew && errno != EEXIST) {
    ThrowIfShort(folder.Path(), "cannot make the folder", errno);
    Problem(folder, "cannot make the folder: " + SystemReason(errno));
    return false;
  }
  platform::ScopedDescriptor opened(platform::OpenFolderIn(current.Get(), name.c_str()));
  if (!opened) {
    const int reason = errno;
    ThrowIfShort(folder.Path(), "cannot enter the folder", reason);
    Problem(folder, platform::LookIn(current.Get(), name.c_str()) == platform::Presence::Folder
                        ? "cannot enter the folder: " + SystemReason(reason)
                        : "something that is not a folder is in the way");
    return false;
  }
  current = std::move(opened);
  if (!*isNew) platform::RemoveLeftOvers(current.Get());
  return true;
}

bool Extractor::Impl::Enter(const Entry& folder, std::string_view name, bool isWanted) {
  bool isNew = false;
  if (!OpenOrMake(std::string(name), folder, &isNew)) return false;
  levels.push_back({folder, folder.Children().begin(), isWanted, isNew, IdentityOf(current)});
  if (isNew) ++report.directories;
  Tell(folder);
  return true;
}

void Extractor::Impl::Leave() {
  const Level level = levels.back();
  levels.pop_back();
  // The way up is opened first: a folder that loses its permissions may not be asked any more.
  platform::ScopedDescriptor above(platform::OpenFolderIn(current.Get(), ".."));
  if (!above) ThrowSystemError(target.string(), "cannot go back up", errno);
  if (IdentityOf(above) != levels.back().identity) {
    throw Error(ErrorKind::System, target.string(), "a folder in it was moved while extracting");
  }
  if ((level.isNew || options.force) && !level.folder.IsRoot()) {
    const auto time = level.folder.ModifiedTime();
    const bool done = (!time || platform::SetTimes(current.Get(), *time)) &&
                      (!level.folder.IsReadOnly() || platform::MakeReadOnly(current.Get()));
    if (!done) Problem(level.folder, "cannot set times or permissions: " + SystemReason(errno));
  }
  current = std::move(above);
}

void Extractor::Impl::ExtractFile(const Entry& file) {
  try {
    const std::string path = watch.IsHeard() ? file.Path() : "";
    const auto onBytes = [&](uint64_t bytes) { watch.TellWithin(passed + bytes, path); };
    const ExtractedFile done = host::ExtractFile(image, file, current.Get(), options, onBytes);
    report.bytes += done.bytes;
    if (done.isDamaged) ++report.damagedFiles;
    ++report.files;
    passed += file.Size();
    Tell(file);
  } catch (const Error& error) {
    if (watch.IsEnd(error)) throw;
    passed += file.Size();
    // The reader names the entry, and so does the report.
    Problem(file, WithoutPath(error.Reason(), file.Path()));
  }
}

void Extractor::Impl::Visit(const Entry& entry) {
  const auto mark = chosen.find(entry.m_id);
  const bool isWanted = levels.back().isWanted || (mark != chosen.end() && mark->second);
  if (!isWanted && mark == chosen.end()) return;
  const char* objection = JudgeName(entry.Name());
  if (objection == nullptr && entry.IsDuplicate()) {
    objection = "an earlier entry has the same name";
  }
  if (objection == nullptr && entry.IsDirectory() && levels.size() > kMaxExtractDepth) {
    objection = "folders are nested too deep";
  }
  if (objection != nullptr) {
    Problem(entry, objection);
  } else if (entry.IsDirectory()) {
    Enter(entry, entry.Name(), isWanted);
  } else {
    ExtractFile(entry);
  }
}

void Extractor::Impl::Walk(const Entry& root) {
  const auto mark = chosen.find(root.m_id);
  if (!chosen.empty() && mark == chosen.end()) return;
  const bool isWanted = chosen.empty() || mark->second;
  OpenTarget();
  levels.clear();
  levels.push_back({root, root.Children().end(), false, false, IdentityOf(current)});
  if (image.Partitions() == 1) {
    levels.back().next = root.Children().begin();
    levels.back().isWanted = isWanted;
  } else if (!Enter(root, std::to_string(root.Partition()), isWanted)) {
    return;
  }
  while (true) {
    Level& level = levels.back();
    if (level.next != level.folder.Children().end()) {
      Visit(*level.next++);
    } else if (levels.size() > 1) {
      Leave();
    } else {
      return;
    }
  }
}

Extractor::Extractor(const Image& image, std::filesystem::path target, ExtractOptions options)
    : m_impl(std::make_unique<Impl>(image, std::move(target), std::move(options))) {
  m_impl->OpenTarget();
}

Extractor::~Extractor() = default;
Extractor::Extractor(Extractor&&) noexcept = default;
Extractor& Extractor::operator=(Extractor&&) noexcept = default;

void Extractor::Add(const Entry& entry) {
  m_impl->chosen[entry.m_id] = true;
  for (Entry at = entry; !at.IsRoot();) {
    at = at.Parent();
    if (!m_impl->chosen.try_emplace(at.m_id, false).second) return;
  }
}

ExtractReport Extractor::Run() {
  m_impl->report = {};
  m_impl->passed = 0;
  m_impl->watch.Restart(m_impl->watch.IsHeard() ? m_impl->BytesToExtract() : 0);
  for (int n = 0; n < m_impl->image.Partitions(); ++n) m_impl->Walk(m_impl->image.Root(n));
  return std::move(m_impl->report);
}

}  // namespace capsule::host
