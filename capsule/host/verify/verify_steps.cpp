// Steps are put together until finding out is worth the change of threads. What was not found out,
// because it was halted or is too much to be kept, is found out when it is told.
#include "capsule/host/verify/verify_steps.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "capsule/host/parallel/workers.h"

namespace capsule::host {
namespace {

// So that a batch is worth the change of threads, and takes little memory.
constexpr size_t kMostSteps = 256;
constexpr uint64_t kMostBytes = uint64_t{256} << 10;

// What a file may give to tell before it is told; and afterwards, when it is told at once.
constexpr size_t kMostEvents = 4096;

// Bytes of an image that are worth threads.
constexpr uint64_t kWorthThreads = uint64_t{1} << 20;

size_t WorkersForImage(int jobs, uint64_t bytes) {
  return jobs == 0 && bytes < kWorthThreads ? 1 : WorkersFor(jobs);
}

}  // namespace

struct VerifySteps::Step {
  uint64_t offset = 0;
  std::string path;
  std::string reason;  // of a fault
  bool isPlace = false;
  bool isUnreadFile = false;
  std::unique_ptr<FileDecoding> file;
  std::unique_ptr<CheckedRegion> region;  // until it has been compared
  std::exception_ptr thrown;              // instead of being found out

  void FindOut(const ImageFile& image, size_t mostEvents, const std::stop_token& halt) {
    if (file) file->Run(mostEvents, halt);
    if (!region) return;
    FileWindow window(image);
    reason = JudgeRegion(window, *region);
    region.reset();
  }
};

class VerifySteps::Batch : public OrderedWork::Job {
 public:
  Batch(ImageFile image, std::stop_token halt)
      : m_image(std::move(image)), m_halt(std::move(halt)) {}

  std::vector<Step>& Steps() { return m_steps; }
  void AddBytes(uint64_t bytes) { m_bytes += bytes; }
  bool IsFull() const { return m_steps.size() >= kMostSteps || m_bytes >= kMostBytes; }

  void Run(size_t) override {
    for (Step& step : m_steps) {
      if (m_halt.stop_requested()) return;
      try {
        step.FindOut(m_image, kMostEvents, m_halt);
      } catch (...) {
        step.thrown = std::current_exception();
        return;
      }
    }
  }

 private:
  ImageFile m_image;
  std::stop_token m_halt;
  std::vector<Step> m_steps;
  uint64_t m_bytes = 0;
};

VerifySteps::VerifySteps(const ImageFile& image, const std::vector<RestartPoint>& restarts,
                         Telling& telling, const VerifyOptions& options)
    : m_image(image),
      m_restarts(restarts),
      m_telling(telling),
      m_stop(options.stop),
      m_onStop(options.stop, [this] { m_halt.request_stop(); }),
      m_work(WorkersForImage(options.jobs, image.Size())) {}

VerifySteps::~VerifySteps() { m_halt.request_stop(); }

VerifySteps::Step& VerifySteps::Add(uint64_t offset, const std::string& path) {
  if (!m_batch) m_batch = std::make_unique<Batch>(m_image, m_halt.get_token());
  Step& step = m_batch->Steps().emplace_back();
  step.offset = offset;
  step.path = path;
  return step;
}

void VerifySteps::AddPlace(uint64_t offset, const std::string& path) {
  Add(offset, path).isPlace = true;
}

void VerifySteps::AddFault(uint64_t offset, const std::string& path, std::string reason) {
  Add(offset, path).reason = std::move(reason);
}

void VerifySteps::AddUnreadFile() { Add(0, "").isUnreadFile = true; }

void VerifySteps::AddRegion(CheckedRegion region, const std::string& path) {
  Step& step = Add(region.begin, path);
  m_batch->AddBytes(region.end - region.begin);
  step.region = std::make_unique<CheckedRegion>(std::move(region));
}

void VerifySteps::AddFile(const RecordSource& source) {
  std::optional<size_t> from;
  for (const size_t seam : SeamsOf(source, m_restarts)) {
    AddPart(source, from, m_restarts[seam].record);
    Submit();
    from = seam;
    const bool hasEnded = m_part && m_part->HasEnded() && m_part->Source().begin == source.begin;
    if (hasEnded) return;
  }
  AddPart(source, from, source.limit);
}

void VerifySteps::AddPart(const RecordSource& source, std::optional<size_t> from, uint64_t end) {
  Step& step = Add(source.begin, source.entryPath);
  step.file = std::make_unique<FileDecoding>(source, m_restarts, from, end);
  m_batch->AddBytes(end - (from ? m_restarts[*from].record : source.begin));
}

void VerifySteps::Proceed() {
  if (m_stop.stop_requested()) return Settle();
  if (m_batch && m_batch->IsFull()) Submit();
}

void VerifySteps::Submit() {
  while (m_work.IsFull()) TellFirst();
  if (m_batch) m_work.Push(std::move(m_batch));
  while (m_work.IsFirstDone()) TellFirst();
}

void VerifySteps::Settle() {
  Submit();
  while (!m_work.IsEmpty()) TellFirst();
}

void VerifySteps::SettleBeforeThrowing() {
  if (!m_isTelling) Settle();
}

void VerifySteps::TellFirst() {
  const auto job = m_work.TakeFirst();
  m_isTelling = true;
  for (Step& step : dynamic_cast<Batch&>(*job).Steps()) Tell(step);
  m_isTelling = false;
}

void VerifySteps::Tell(Step& step) {
  if (step.file) return TellFile(step);
  if (step.isPlace) m_telling.watch.TellWithin(step.offset, step.path);
  if (step.isUnreadFile) ++m_telling.report.files;
  if (step.thrown) std::rethrow_exception(step.thrown);
  if (step.region) step.FindOut(m_image, 1, {});
  if (!step.reason.empty()) m_telling.Tell(step.offset, step.path, step.reason);
}

void VerifySteps::TellFile(Step& step) {
  Watch& watch = m_telling.watch;
  const bool hasRecords = step.file->Source().begin != step.file->Source().limit;
  if (step.file->IsFirst()) {
    if (hasRecords) watch.Check();
    watch.Now().files = ++m_telling.report.files;
  } else if (m_part->HasEnded()) {
    return;
  } else if (!step.file->Continues(*m_part)) {
    m_part->ExtendTo(step.file->End());
    step.file = std::move(m_part);
    step.thrown = nullptr;
  }
  TellEvents(step);
  if (step.file->IsSound()) m_telling.report.bytes += step.file->Source().size;
  m_part = std::move(step.file);
}

// What decoding has found out, and all that is left to find out.
void VerifySteps::TellEvents(Step& step) {
  const auto tell = [&](const FileDecoding::Event& event) {
    if (!event.fault.empty()) return m_telling.Tell(event.offset, step.path, event.fault);
    m_telling.watch.TellWithin(event.offset, step.path);
  };
  for (;; step.file->Run(1)) {
    for (const FileDecoding::Event& event : step.file->TakeEvents()) tell(event);
    if (step.thrown) std::rethrow_exception(step.thrown);
    if (step.file->HasStopped()) return;
  }
}

}  // namespace capsule::host
