// Walks the tree of an image and the folders of the target side by side.
//
// 1. One folder of the target is open at a time, reached from the target one component at a time
//    without following links. Going up takes "..", which must be the very folder (device and inode)
//    that the walk came from: so depth costs no descriptors, and a folder that is moved away
//    meanwhile ends the extraction instead of leading it elsewhere.
// 2. A name is judged as it will be used and is not changed afterwards.
// 3. What is found on the walk becomes work, which is done, and told, in the order in which it was
//    found: the walk is ahead of it, but not far. A folder's times are set in their turn, after its
//    contents.
// 4. A folder that files under way still hold open is used again when the walk comes back to it.
#include "capsule/host/extractor.h"

#include <algorithm>
#include <cerrno>
#include <unordered_map>

#include "capsule/host/extract/extract_work.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/file/watch.h"
#include "capsule/platform/folder.h"

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
    std::weak_ptr<TargetFolder> open;
  };

  Impl(const Image& source, std::filesystem::path path, ExtractOptions settings)
      : image(source),
        target(std::move(path)),
        options(std::move(settings)),
        watch(target.string(), options.onProgress, options.stop) {}

  SharedFolder OpenTarget() const;
  void Walk(const Entry& root);
  void Visit(const Entry& entry);
  bool Enter(const Entry& folder, std::string_view name, bool isWanted);
  void Leave();
  bool OpenOrMake(const std::string& name, const Entry& folder);
  int OpenSubfolder(const char* name);
  platform::FileIdentity IdentityOf(const TargetFolder& folder) const;
  uint64_t BytesToExtract() const;

  const Image& image;
  std::filesystem::path target;
  ExtractOptions options;
  Watch watch;
  std::unordered_map<uint32_t, bool> chosen;  // by node: true: wanted; false: leads to a wanted one
  SharedFolder current;
  std::vector<Level> levels;
  ExtractWork* work = nullptr;  // of the run
};

SharedFolder Extractor::Impl::OpenTarget() const {
  auto folder = std::make_shared<TargetFolder>();
  folder->descriptor = platform::ScopedDescriptor(platform::OpenFolder(target.c_str()));
  if (folder->descriptor) {
    platform::RemoveLeftOvers(folder->Get());
    return folder;
  }
  const int reason = errno;
  const bool isLink = reason == ELOOP || (reason == ENOTDIR && std::filesystem::is_symlink(target));
  if (!isLink) ThrowSystemError(target.string(), "cannot open", reason);
  throw Error(ErrorKind::Unsupported, target.string(),
              "is a link; name the folder it leads to, or end it with '/'");
}

platform::FileIdentity Extractor::Impl::IdentityOf(const TargetFolder& folder) const {
  const auto identity = platform::Identify(folder.Get());
  if (!identity) ThrowSystemError(target.string(), "cannot look at a folder", errno);
  return *identity;
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

// Where descriptors run out, those of folders that wait for their turn come back first.
int Extractor::Impl::OpenSubfolder(const char* name) {
  const int descriptor = platform::OpenFolderIn(current->Get(), name);
  if (descriptor >= 0 || !IsShortage(errno)) return descriptor;
  work->Finish();
  return platform::OpenFolderIn(current->Get(), name);
}

// Opens the folder `name` of the current one, made if there is none; it becomes the current one.
bool Extractor::Impl::OpenOrMake(const std::string& name, const Entry& folder) {
  const bool isNew = platform::MakeFolderIn(current->Get(), name.c_str());
  if (!isNew && errno != EEXIST) {
    ThrowIfShort(folder.Path(), "cannot make the folder", errno);
    work->Problem(folder, "cannot make the folder: " + SystemReason(errno));
    return false;
  }
  auto opened = std::make_shared<TargetFolder>();
  opened->descriptor = platform::ScopedDescriptor(OpenSubfolder(name.c_str()));
  if (!opened->descriptor) {
    const int reason = errno;
    ThrowIfShort(folder.Path(), "cannot enter the folder", reason);
    const auto found = platform::LookIn(current->Get(), name.c_str());
    work->Problem(folder, found == platform::Presence::Folder
                              ? "cannot enter the folder: " + SystemReason(reason)
                              : "something that is not a folder is in the way");
    return false;
  }
  opened->isNew = isNew;
  current = std::move(opened);
  if (!isNew) platform::RemoveLeftOvers(current->Get());
  return true;
}

bool Extractor::Impl::Enter(const Entry& folder, std::string_view name, bool isWanted) {
  if (!OpenOrMake(std::string(name), folder)) return false;
  levels.push_back(
      {folder, folder.Children().begin(), isWanted, current->isNew, IdentityOf(*current), current});
  work->Entered(folder, current->isNew);
  return true;
}

void Extractor::Impl::Leave() {
  const Level level = levels.back();
  levels.pop_back();
  // The way up is opened first: a folder that loses its permissions may not be asked any more.
  auto above = std::make_shared<TargetFolder>();
  above->descriptor = platform::ScopedDescriptor(OpenSubfolder(".."));
  if (!above->descriptor) ThrowSystemError(target.string(), "cannot go back up", errno);
  if (IdentityOf(*above) != levels.back().identity) {
    throw Error(ErrorKind::System, target.string(), "a folder in it was moved while extracting");
  }
  if ((level.isNew || options.force) && !level.folder.IsRoot()) work->Left(level.folder, current);
  above->isNew = levels.back().isNew;
  const SharedFolder stillOpen = levels.back().open.lock();
  current = stillOpen ? stillOpen : SharedFolder(std::move(above));
  levels.back().open = current;
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
    work->Problem(entry, objection);
  } else if (entry.IsDirectory()) {
    Enter(entry, entry.Name(), isWanted);
  } else {
    work->File(entry, current);
  }
}

void Extractor::Impl::Walk(const Entry& root) {
  const auto mark = chosen.find(root.m_id);
  if (!chosen.empty() && mark == chosen.end()) return;
  const bool isWanted = chosen.empty() || mark->second;
  current = OpenTarget();
  levels.clear();
  levels.push_back({root, root.Children().end(), false, false, IdentityOf(*current), current});
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
  static_cast<void>(m_impl->OpenTarget());
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
  Impl& impl = *m_impl;
  impl.watch.Restart(impl.watch.IsHeard() ? impl.BytesToExtract() : 0);
  ExtractWork work(impl.image, impl.options, impl.watch);
  impl.work = &work;
  for (int n = 0; n < impl.image.Partitions(); ++n) impl.Walk(impl.image.Root(n));
  impl.current.reset();
  work.Finish();
  return work.TakeReport();
}

}  // namespace capsule::host
