// ExtractWork is what is left to do of an extraction while the walk is ahead. All its operations
// belong to the thread of the walk; what they throw ends the extraction.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "capsule/host/extract/extract_jobs.h"
#include "capsule/host/extractor.h"
#include "capsule/host/file/watch.h"

namespace capsule::host {

class ExtractWork {
 public:
  // All must outlive it.
  ExtractWork(const Image& image, const ExtractOptions& options, Watch& watch);

  // What the walk has come to, in order.
  void Entered(const Entry& folder, bool isNew);
  void File(const Entry& file, const SharedFolder& folder);
  void Left(const Entry& entry, const SharedFolder& folder);
  void Problem(const Entry& entry, std::string reason);

  // Comes to the end of what was given by now.
  void Finish();

  ExtractReport TakeReport() { return std::move(m_report); }

 private:
  void Add(ExtractStep step);
  void AddSpans(const Entry& file, const SharedFolder& folder);
  void Flush();
  void Push(std::unique_ptr<ExtractJob> job);
  void TakeFirst();
  void Settle(ExtractStep& step);
  void SettleShort(const ExtractStep& step);
  void SettleLeft(const ExtractStep& step);
  void Settle(ExtractSpan& span);
  void ExtractWhole(const Entry& file, const TargetFolder& folder);
  void CountDone(const Entry& file, const ExtractedFile& done);
  void CountFailed(const Entry& file, const Error& error);
  void Tell(const Entry& entry);
  std::string PathToTell(const Entry& entry) const;

  const ExtractOptions& m_options;
  Watch& m_watch;
  ExtractReport m_report;
  uint64_t m_passed = 0;  // bytes of files that are done, or left out
  size_t m_folders = 0;   // that are under way
  ExtractContext m_context;
  std::unique_ptr<ExtractSteps> m_steps;  // that are not under way yet
  OrderedWork m_work;                     // goes first, since its jobs use the rest
};

}  // namespace capsule::host
