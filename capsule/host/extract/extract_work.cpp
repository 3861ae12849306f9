// Short files and what else there is to tell go out many at a time, long files in spans. What one
// job cannot do well is done in its turn on this thread: files that may be damaged and are wanted
// all the same, long ones without restart points, and those whose spans have failed.
#include "capsule/host/extract/extract_work.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "capsule/host/extract/piece_writer.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/parallel/workers.h"
#include "capsule/platform/file.h"
#include "capsule/platform/folder.h"

namespace capsule::host {
namespace {

// Below so many descriptors there are no threads, so that none of theirs runs short.
constexpr size_t kFewDescriptors = 64;

// Folders whose times are to be set yet, and which are open till then.
size_t MostLeft() { return platform::MostDescriptors() < kFewDescriptors ? 1 : 64; }

size_t Workers(const ExtractOptions& options) {
  const bool isAlone =
      options.onDamage != OnDamage::Stop || platform::MostDescriptors() < kFewDescriptors;
  return isAlone ? 1 : WorkersFor(options.jobs);
}

// Of the folders that each of the jobs under way has open.
size_t FoldersEach(size_t workers) {
  constexpr size_t kMost = 8;
  const size_t most = platform::MostDescriptors();
  if (most < kFewDescriptors) return 1;
  return std::clamp<size_t>(most / 4 / (3 * workers + 1), 1, kMost);
}

}  // namespace

ExtractWork::ExtractWork(const Image& image, const ExtractOptions& options, Watch& watch)
    : m_options(options),
      m_watch(watch),
      m_context{FileExtraction(image, options), {}},
      m_work(Workers(options)) {
  m_context.workspaces.resize(m_work.Workers());
  m_context.mostFolders = FoldersEach(m_work.Workers());
}

void ExtractWork::Entered(const Entry& folder, bool isNew) {
  Add({.kind = ExtractStep::Kind::Made, .entry = folder, .isNew = isNew});
}

void ExtractWork::Problem(const Entry& entry, std::string reason) {
  Add({.kind = ExtractStep::Kind::Problem, .entry = entry, .reason = std::move(reason)});
}

void ExtractWork::Left(const Entry& entry, const SharedFolder& folder) {
  ++m_folders;
  Add({.kind = ExtractStep::Kind::Left, .entry = entry, .folder = folder});
  while (m_folders > MostLeft() && !m_work.IsEmpty()) TakeFirst();
}

void ExtractWork::File(const Entry& file, const SharedFolder& folder) {
  if (folder->sign == platform::Sign::FileLock && !folder->isAsked) {
    folder->isAsked = true;
    if (platform::ClaimFolder(folder->Get())) folder->sign = platform::Sign::FolderLock;
  }
  const bool isStrict = m_options.onDamage == OnDamage::Stop;
  if (isStrict && file.Size() <= kLongestShort) {
    return Add({.kind = ExtractStep::Kind::Short, .entry = file, .folder = folder});
  }
  if (isStrict && m_work.Workers() > 1 && IsForSpans(m_context.files.SourceOf(file))) {
    return AddSpans(file, folder);
  }
  Add({.kind = ExtractStep::Kind::Whole, .entry = file, .folder = folder});
  Flush();
}

void ExtractWork::AddSpans(const Entry& file, const SharedFolder& folder) {
  Flush();
  std::shared_ptr<LongTarget> spans;
  try {
    RefuseExisting(file, *folder, m_options.force);
    spans = std::make_shared<LongTarget>(file, folder, m_context.files.SourceOf(file));
    spans->out.emplace(*folder, file);
  } catch (const Error&) {
    // What is wrong will be told in its turn.
    return Add({.kind = ExtractStep::Kind::Whole, .entry = file, .folder = folder});
  }
  for (size_t n = 0; n <= spans->points.size(); ++n) {
    Push(std::make_unique<ExtractSpan>(m_context, spans, n));
  }
}

void ExtractWork::Add(ExtractStep step) {
  if (!m_steps) m_steps = std::make_unique<ExtractSteps>(m_context);
  m_steps->Add(std::move(step));
  if (m_steps->IsFull()) Flush();
}

void ExtractWork::Flush() {
  if (m_steps) Push(std::exchange(m_steps, nullptr));
}

void ExtractWork::Push(std::unique_ptr<ExtractJob> job) {
  m_work.Push(std::move(job));
  while (m_work.IsFull() || m_work.IsFirstDone()) TakeFirst();
}

void ExtractWork::Finish() {
  Flush();
  while (!m_work.IsEmpty()) TakeFirst();
}

void ExtractWork::TakeFirst() {
  const std::unique_ptr<OrderedWork::Job> taken = m_work.TakeFirst();
  auto& job = static_cast<ExtractJob&>(*taken);
  if (ExtractSpan* span = job.Span()) return Settle(*span);
  for (ExtractStep& step : job.Steps()->List()) Settle(step);
}

void ExtractWork::Settle(ExtractStep& step) {
  switch (step.kind) {
    case ExtractStep::Kind::Made:
      if (step.isNew) ++m_report.directories;
      return Tell(step.entry);
    case ExtractStep::Kind::Left:
      return SettleLeft(step);
    case ExtractStep::Kind::Problem:
      m_report.problems.push_back({step.entry.Path(), std::move(step.reason)});
      return;
    case ExtractStep::Kind::Short:
      return SettleShort(step);
    case ExtractStep::Kind::Whole:
      return ExtractWhole(step.entry, *step.folder);
  }
}

void ExtractWork::SettleLeft(const ExtractStep& step) {
  --m_folders;
  const auto time = step.entry.ModifiedTime();
  const bool done = (!time || platform::SetTimes(step.folder->Get(), *time)) &&
                    (!step.entry.IsReadOnly() || platform::MakeReadOnly(step.folder->Get()));
  if (done) return;
  m_report.problems.push_back(
      {step.entry.Path(), "cannot set times or permissions: " + SystemReason(errno)});
}

void ExtractWork::SettleShort(const ExtractStep& step) {
  m_watch.Check();
  const std::string path = PathToTell(step.entry);
  for (uint64_t told = 0; told < step.bytes;) {
    told = std::min(step.bytes, told + PieceWriter::kPiece);
    m_watch.TellWithin(m_passed + told, path);
  }
  try {
    if (step.thrown) std::rethrow_exception(step.thrown);
  } catch (const Error& error) {
    return CountFailed(step.entry, error);
  }
  CountDone(step.entry, {step.bytes, false});
}

void ExtractWork::Settle(ExtractSpan& span) {
  LongTarget& file = span.File();
  m_watch.Check();
  if (!span.Count()) file.hasFailed = true;
  if (!file.hasFailed) m_watch.TellWithin(m_passed + span.End(), PathToTell(file.entry));
  if (!span.IsLast()) return;
  if (!file.hasFailed) {
    try {
      file.out->Publish(span.End(), m_options.force);
      return CountDone(file.entry, {span.End(), false});
    } catch (const Error& error) {
      return CountFailed(file.entry, error);
    }
  }
  file.out.reset();
  ExtractWhole(file.entry, *file.folder);
}

void ExtractWork::ExtractWhole(const Entry& file, const TargetFolder& folder) {
  try {
    const std::string path = PathToTell(file);
    const auto onBytes = [&](uint64_t bytes) { m_watch.TellWithin(m_passed + bytes, path); };
    CountDone(file, m_context.files.Extract(file, folder, onBytes));
  } catch (const Error& error) {
    CountFailed(file, error);
  }
}

void ExtractWork::CountDone(const Entry& file, const ExtractedFile& done) {
  m_report.bytes += done.bytes;
  if (done.isDamaged) ++m_report.damagedFiles;
  ++m_report.files;
  m_passed += file.Size();
  Tell(file);
}

void ExtractWork::CountFailed(const Entry& file, const Error& error) {
  if (m_watch.IsEnd(error)) throw;
  m_passed += file.Size();
  // The reader names the entry, and so does the report.
  m_report.problems.push_back({file.Path(), WithoutPath(error.Reason(), file.Path())});
}

void ExtractWork::Tell(const Entry& entry) {
  m_watch.Now().files = m_report.files;
  m_watch.Now().directories = m_report.directories;
  m_watch.Tell(m_passed, PathToTell(entry));
}

std::string ExtractWork::PathToTell(const Entry& entry) const {
  return m_watch.IsHeard() ? entry.Path() : "";
}

}  // namespace capsule::host
