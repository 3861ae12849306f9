// A step that throws in the middle leaves the build marked as broken, and every later step refuses:
// an image that lacks something without saying so must not be finished.
#include "capsule/host/image_builder.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include "capsule/container/header_format.h"
#include "capsule/host/build/image_draft.h"
#include "capsule/host/build/item_tree.h"
#include "capsule/host/build/source_walk.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/file/watch.h"
#include "capsule/host/index/image_header.h"
#include "capsule/host/index/partition_label.h"
#include "capsule/host/parallel/workers.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/ascii.h"
#include "capsule/platform/dos_time.h"
#include "capsule/platform/glob.h"
#include "capsule/platform/host_files.h"
#include "capsule/platform/scoped_descriptor.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTimeVariable = "SOURCE_DATE_EPOCH";
constexpr int kMaxLinks = 40;  // one behind the other, as systems have it

// The version text: readers know the layout of the header by its first word.
std::string VersionText(const fs::path& image, const std::string& label) {
  std::string version = label;
  const std::string_view beginning = std::string_view(label).substr(0, kSignature.size());
  if (!platform::EqualIgnoringCase(beginning, kSignature)) {
    version = std::string(kSignature) + (label.empty() ? "" : " ") + label;
  }
  if (version.size() >= kVersionSize) {
    throw Error(ErrorKind::Misuse, image.string(),
                "label is " + std::to_string(version.size()) + " bytes, " +
                    std::to_string(kVersionSize - 1) + " are possible");
  }
  if (version.find('\0') != std::string::npos) {
    throw Error(ErrorKind::Misuse, image.string(), "label has a zero byte");
  }
  return version;
}

int CheckedLevel(const fs::path& image, int level) {
  if (level >= 0 && level <= 9) return level;
  throw Error(ErrorKind::Misuse, image.string(),
              "level is " + std::to_string(level) + ", 0 to 9 are possible");
}

// Where a link leads, so that the link stays, also when nothing is there yet.
fs::path BehindLinks(const fs::path& image, fs::path target) {
  std::error_code error;
  for (int links = 0; fs::is_symlink(fs::symlink_status(target, error)); ++links) {
    if (links == kMaxLinks) ThrowSystemError(image.string(), "", ELOOP);
    const fs::path next = fs::read_symlink(target, error);
    if (error) ThrowSystemError(image.string(), "", error.value());
    target = target.parent_path() / next;
  }
  return target;
}

// Refuses a file with bytes in it that is not an image.
void RequireReplaceable(const std::string& target, const std::string& name) {
  const auto old = platform::Status(target);
  if (!old || old->kind != platform::FileKind::Regular || old->size == 0) return;
  const platform::ScopedDescriptor file(platform::OpenForReading(target.c_str()));
  if (!file) ThrowSystemError(name, "cannot be read", errno);
  try {
    ReadImageHeader(ImageFile(file.Get(), name));
  } catch (const Error& error) {
    throw Error(ErrorKind::Exists, name, error.Reason() + "; only --force replaces it");
  }
}

// The file that a build replaces.
std::string Target(const fs::path& image, bool force) {
  std::error_code error;
  const fs::path absolute = fs::absolute(image, error);
  if (error) ThrowSystemError(image.string(), "", error.value());
  std::string target = BehindLinks(image, absolute).string();
  if (!force) RequireReplaceable(target, image.string());
  return target;
}

// The latest time to write, by the environment if that names one.
int64_t LatestTime() {
  const char* text = std::getenv(kTimeVariable);
  if (text == nullptr || *text == '\0') return std::numeric_limits<int64_t>::max();
  const std::string_view digits(text);
  int64_t seconds = 0;
  const auto [end, error] = std::from_chars(digits.begin(), digits.end(), seconds);
  if (error != std::errc() || end != digits.end()) {
    throw Error(ErrorKind::Misuse, kTimeVariable,
                "'" + std::string(digits) + "' is not a number of seconds");
  }
  return seconds;
}

bool IsExcluded(const std::vector<std::string>& globs, const std::string& name,
                const std::string& relative) {
  return std::any_of(globs.begin(), globs.end(), [&](const std::string& glob) {
    if (glob.find('/') == std::string::npos) return platform::MatchesGlob(glob, name, false);
    return platform::MatchesGlob(glob.front() == '/' ? glob.substr(1) : glob, relative, true);
  });
}

// The name of a folder, "." and the like resolved; nothing where it cannot be a label.
std::string LabelFor(const fs::path& folder) {
  fs::path name = folder.has_filename() ? folder.filename() : folder.parent_path().filename();
  if (name.empty() || name == "." || name == "..") {
    std::error_code error;
    name = fs::canonical(folder, error).filename();
  }
  return JudgeLabel(name.string()).empty() ? name.string() : "";
}

// Whether a time of modification comes out as it was, but for the second that is rounded off.
bool IsTimeKept(int64_t seconds) {
  const auto stored = platform::ToDosDateTime(platform::FileTimeFromUnix(seconds, 0));
  const int64_t kept = platform::ToUnixSeconds(stored);
  return seconds == kept || seconds == kept + 1;
}

// Whether permissions are those that any new file or folder gets, with or without the right to
// write.
bool IsUsualMode(const SourceItem& item) {
  const uint32_t usual = item.kind == SourceItem::Kind::Folder ? 0755 : 0644;
  return item.status.mode == usual || item.status.mode == (usual & 0555);
}

}  // namespace

struct ImageBuilder::Impl {
  Impl(const fs::path& path, BuildOptions given)
      : name(path.string()),
        options(std::move(given)),
        watch(name, options.onProgress, canceller.get_token()),
        latest(LatestTime()),
        draft(Target(path, options.force), name, Settings(path)),
        onStop(options.stop, Canceller{canceller}) {}

  DraftSettings Settings(const fs::path& path);
  bool IsLeftOut(const SourceItem& item);
  void Count(const SourceItem& item, const std::string& problem);
  void AddPartition(const std::string& label, ItemWalk&& walk);
  void RequireLabel(const std::string& label) const;
  void RefuseEleventh(const std::string& source) const;
  SourceWalk::Filter Filter() const;
  Relief Relieving();
  SourceWalk Walk(const std::string& folder);
  void CountInserted(const SourceItem& item);
  void Complete();
  void ThrowIfUnusable() const;
  void AddToTotal(ItemWalk&& walk);
  std::string PathOf(const SourceItem& item) const;

  struct Canceller {
    std::stop_source source;
    void operator()() { source.request_stop(); }
  };

  std::string name;
  BuildOptions options;
  std::stop_source canceller;
  Watch watch;
  int64_t latest;
  BuildReport report;
  int partitions = 0;
  int counted = 0;        // partitions that are in the total before they are added
  bool isBroken = false;  // thrown in the middle of something
  bool isFinished = false;
  ImageDraft draft;
  std::stop_callback<Canceller> onStop;
};

DraftSettings ImageBuilder::Impl::Settings(const fs::path& path) {
  DraftSettings settings;
  settings.level = CheckedLevel(path, options.level);
  settings.version = VersionText(path, options.label);
  settings.latest = latest;
  settings.workers = WorkersFor(options.jobs);
  settings.stop = canceller.get_token();
  settings.onItem = [this](const SourceItem& item, const std::string& problem) {
    Count(item, problem);
  };
  settings.onBytes = [this](const SourceItem& item, uint64_t bytes) {
    watch.TellWithin(report.sourceBytes + bytes, watch.IsHeard() ? PathOf(item) : "");
  };
  return settings;
}

std::string ImageBuilder::Impl::PathOf(const SourceItem& item) const {
  return std::to_string(partitions - 1) + ":/" + item.relative;
}

// Files that are the image itself, before or in the making.
bool ImageBuilder::Impl::IsLeftOut(const SourceItem& item) {
  const bool isFile = item.kind == SourceItem::Kind::File;
  const bool isSeen = isFile || item.kind == SourceItem::Kind::Unfinished ||
                      item.kind == SourceItem::Kind::Unreadable;
  if (!isSeen || !draft.IsOwnFile(item.status.identity)) return false;
  if (isFile && draft.IsOldImage(item.status.identity)) {
    report.oldImages.push_back({item.path, "left out: it is the file that the image replaces"});
  }
  return true;
}

// Takes note of an item that is in the image, or left out.
void ImageBuilder::Impl::Count(const SourceItem& item, const std::string& problem) {
  switch (item.kind) {
    case SourceItem::Kind::Special:
      ++report.skipped;
      break;
    case SourceItem::Kind::Excluded:
      ++report.excluded;
      break;
    case SourceItem::Kind::Unfinished:
      report.unfinished.push_back({item.path, "never completed, left out"});
      break;
    case SourceItem::Kind::Unreadable:
      report.problems.push_back({item.path, item.reason});
      break;
    default:
      if (problem.empty()) return CountInserted(item);
      report.problems.push_back({item.path, problem});
  }
}

void ImageBuilder::Impl::CountInserted(const SourceItem& item) {
  const bool isFolder = item.kind == SourceItem::Kind::Folder;
  ++(isFolder ? report.directories : report.files);
  report.sourceBytes += item.status.size;
  if (!IsTimeKept(std::min(item.status.modification.seconds, latest))) ++report.timesChanged;
  if (!IsUsualMode(item)) ++report.modesDropped;
  if (!isFolder && item.status.links > 1) ++report.hardLinks;
  watch.Now().files = report.files;
  watch.Now().directories = report.directories;
  watch.Tell(report.sourceBytes, watch.IsHeard() ? PathOf(item) : "");
}

SourceWalk::Filter ImageBuilder::Impl::Filter() const {
  return [this](const std::string& item, const std::string& relative) {
    return IsExcluded(options.excludes, item, relative) ||
           (options.leavesOut && options.leavesOut(relative));
  };
}

// Where descriptors run out, those of files that are under way are given back first.
Relief ImageBuilder::Impl::Relieving() {
  return [this] { return draft.Settle(); };
}

SourceWalk ImageBuilder::Impl::Walk(const std::string& folder) {
  return SourceWalk(folder, Filter(), Relieving());
}

// Adds the sizes of the files that AddPartition will find to the total.
void ImageBuilder::Impl::AddToTotal(ItemWalk&& walk) {
  for (SourceItem item; walk.Next(&item);) {
    watch.Check();
    const bool isInserted = item.kind == SourceItem::Kind::File &&
                            !draft.IsOwnFile(item.status.identity) &&
                            item.status.size <= static_cast<uint64_t>(kMaxImageSize);
    if (isInserted) watch.Now().bytesTotal += item.status.size;
  }
}

// Nothing may throw once the image is in its place.
void ImageBuilder::Impl::Complete() {
  report.problems.reserve(report.problems.size() + 1);
  BuildProblem doubt{name, "is complete, but sync of its folder failed"};
  int syncProblem = 0;
  report.imageBytes = draft.Complete(&syncProblem);
  report.seams = draft.Seams();
  report.seamsRedone = draft.SeamsRedone();
  if (syncProblem == 0) return;
  try {
    doubt.reason += ": " + SystemReason(syncProblem);
  } catch (const std::bad_alloc&) {
    // It is said without the reason then.
  }
  report.problems.push_back(std::move(doubt));
}

void ImageBuilder::Impl::ThrowIfUnusable() const {
  watch.Check();
  if (isBroken) throw Error(ErrorKind::Misuse, name, "the build has failed before");
  if (isFinished) throw Error(ErrorKind::Misuse, name, "the build is finished");
}

ImageBuilder::ImageBuilder(const fs::path& image, BuildOptions options)
    : m_impl(std::make_unique<Impl>(image, std::move(options))) {}

ImageBuilder::~ImageBuilder() = default;
ImageBuilder::ImageBuilder(ImageBuilder&&) noexcept = default;
ImageBuilder& ImageBuilder::operator=(ImageBuilder&&) noexcept = default;

void ImageBuilder::Impl::RefuseEleventh(const std::string& source) const {
  ThrowIfUnusable();
  if (partitions < kMaxPartitions) return;
  throw Error(ErrorKind::Misuse, source,
              "an image holds " + std::to_string(kMaxPartitions) + " folders at most");
}

void ImageBuilder::Impl::RequireLabel(const std::string& label) const {
  const std::string problem = JudgeLabel(label);
  if (!problem.empty()) throw Error(ErrorKind::Misuse, name, problem);
}

void ImageBuilder::Impl::AddPartition(const std::string& label, ItemWalk&& walk) {
  isBroken = true;
  draft.BeginPartition(label);
  ++partitions;
  for (SourceItem item; walk.Next(&item);) {
    watch.Check();
    if (!IsLeftOut(item)) draft.Add(std::move(item));
  }
  draft.Settle();
  isBroken = false;
}

void ImageBuilder::AddDirectory(const fs::path& directory, const std::string& label) {
  Impl& impl = *m_impl;
  impl.RefuseEleventh(directory.string());
  impl.RequireLabel(label);
  if (impl.options.countFirst && impl.partitions >= impl.counted) {
    impl.AddToTotal(impl.Walk(directory.string()));
  }
  const bool isNamed = label.empty() && impl.options.labelsFolders;
  impl.AddPartition(isNamed ? LabelFor(directory) : label, impl.Walk(directory.string()));
}

void ImageBuilder::AddItems(const std::vector<BuildItem>& items, const std::string& label) {
  m_impl->RefuseEleventh(m_impl->name);
  m_impl->RequireLabel(label);
  const auto walk = [&] {
    return ItemTree(m_impl->name, items, m_impl->Filter(), m_impl->Relieving());
  };
  if (m_impl->options.countFirst) m_impl->AddToTotal(walk());
  m_impl->AddPartition(label, walk());
}

void ImageBuilder::AddDirectories(const std::vector<fs::path>& directories) {
  const size_t count = static_cast<size_t>(m_impl->partitions) + directories.size();
  if (count > static_cast<size_t>(kMaxPartitions)) {
    throw Error(ErrorKind::Misuse, m_impl->name,
                "an image holds " + std::to_string(kMaxPartitions) +
                    " folders at most, these are " + std::to_string(count));
  }
  if (m_impl->options.countFirst) {
    for (const fs::path& directory : directories) {
      m_impl->AddToTotal(m_impl->Walk(directory.string()));
    }
    m_impl->counted = static_cast<int>(count);
  }
  for (const fs::path& directory : directories) AddDirectory(directory);
}

BuildReport ImageBuilder::Finish() {
  m_impl->ThrowIfUnusable();
  if (m_impl->partitions == 0) throw Error(ErrorKind::Misuse, m_impl->name, "no folder was added");
  m_impl->isBroken = true;
  m_impl->Complete();
  m_impl->isBroken = false;
  m_impl->isFinished = true;
  return std::move(m_impl->report);
}

const std::vector<BuildProblem>& ImageBuilder::Problems() const { return m_impl->report.problems; }

void ImageBuilder::Cancel() { m_impl->canceller.request_stop(); }

}  // namespace capsule::host
