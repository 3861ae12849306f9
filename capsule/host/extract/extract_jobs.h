// The jobs that an extraction hands to its workers: many steps, or a span of a long file.
#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capsule/host/extract/file_extraction.h"
#include "capsule/host/parallel/ordered_work.h"
#include "capsule/host/records/content_check.h"

namespace capsule::host {

// Something that is done, or told, in its turn.
struct ExtractStep {
  enum class Kind {
    Made,     // a folder was entered; `isNew`: and made before
    Left,     // everything in the folder is done: it gets its times
    Problem,  // `reason`
    Short,    // a file that the job extracts
    Whole,    // a file that is extracted in its turn
  };
  Kind kind = Kind::Problem;
  Entry entry;
  SharedFolder folder = {};
  std::string reason = {};
  bool isNew = false;

  // Of a short file, when the job is done.
  uint64_t bytes = 0;  // that are there
  std::exception_ptr thrown = {};
};

class ExtractSpan;
class ExtractSteps;

class ExtractJob : public OrderedWork::Job {
 public:
  // Null unless it is such a job.
  virtual ExtractSteps* Steps() { return nullptr; }
  virtual ExtractSpan* Span() { return nullptr; }
};

// What is common to the jobs of an extraction.
struct ExtractContext {
  FileExtraction files;
  std::vector<Workspace> workspaces;  // by worker
  size_t mostFolders = 1;             // that a job has open
};

class ExtractSteps : public ExtractJob {
 public:
  explicit ExtractSteps(ExtractContext& context) : m_context(context) {}

  void Add(ExtractStep step);

  // Whether no more should be added: of steps, of folders and of bytes.
  bool IsFull() const;
  bool IsEmpty() const { return m_steps.empty(); }
  std::vector<ExtractStep>& List() { return m_steps; }

  void Run(size_t worker) override;
  ExtractSteps* Steps() override { return this; }

 private:
  void HoldFrom(size_t first, const std::vector<RecordSource>& sources, Workspace& workspace) const;

  ExtractContext& m_context;
  std::vector<ExtractStep> m_steps;
  size_t m_folders = 0;
  const TargetFolder* m_folder = nullptr;  // of the last step that has one
  uint64_t m_bytes = 0;
};

// A file that is extracted in spans, each of which begins at a restart point. When anything about
// them is wrong it is extracted once more as a whole, and what that finds is what is told.
struct LongTarget {
  LongTarget(const Entry& entry, SharedFolder folder, RecordSource source);

  Entry entry;
  SharedFolder folder;
  RecordSource source;
  std::vector<RestartPoint> points;  // where the spans begin, but for the first
  std::optional<OutputFile> out;
  std::optional<ContentCheck> check;  // of the thread that takes the jobs
  std::atomic<bool> hasFailed = false;
};

class ExtractSpan : public ExtractJob {
 public:
  // The span that begins at point `number` - 1, the first one being number 0.
  ExtractSpan(ExtractContext& context, std::shared_ptr<LongTarget> file, size_t number)
      : m_context(context), m_file(std::move(file)), m_number(number) {}

  LongTarget& File() { return *m_file; }
  bool IsLast() const { return m_number == m_file->points.size(); }
  uint64_t End() const {
    return IsLast() ? m_file->source.size : m_file->points[m_number].fileOffset;
  }

  // Counts the stored bytes, in order; behind the last span whether the file is whole.
  bool Count();

  void Run(size_t worker) override;
  ExtractSpan* Span() override { return this; }

 private:
  bool Extract(Workspace& workspace);
  uint64_t StoredBegin() const;

  ExtractContext& m_context;
  std::shared_ptr<LongTarget> m_file;
  size_t m_number;
  std::shared_ptr<ReadAhead> m_stored;
  uint64_t m_storedEnd = 0;
};

// Whether a file is worth spans, which need restart points.
bool IsForSpans(const RecordSource& source);

// The longest file that a ExtractSteps extracts.
inline constexpr uint64_t kLongestShort = uint64_t{2} << 20;

}  // namespace capsule::host
