// A span ends where the next begins: at the very record, and with the very history that the restart
// point tells. So spans that all come out well give what decoding from the first record gives.
#include "capsule/host/extract/extract_jobs.h"

#include <algorithm>
#include <array>

#include "capsule/host/error.h"
#include "capsule/host/extract/piece_writer.h"
#include "capsule/host/records/record_stream.h"

namespace capsule::host {
namespace {

// So that a job is worth the change of threads, and neither descriptors nor memory run short.
constexpr size_t kMostSteps = 128;
constexpr uint64_t kMostBytes = uint64_t{1} << 20;

constexpr uint64_t kMostAhead = uint64_t{512} << 10;
constexpr uint64_t kLargestGap = 4096;  // between records that are read in one go

constexpr uint64_t kSpan = uint64_t{2} << 20;
constexpr uint64_t kMostStored = 2 * kSpan;  // of one span

uint64_t StoredBegin(const RecordSource& source) {
  return source.check ? std::min<uint64_t>(source.check->offset, source.begin) : source.begin;
}

}  // namespace

void ExtractSteps::Add(ExtractStep step) {
  if (step.folder && step.folder.get() != m_folder) ++m_folders;
  if (step.folder) m_folder = step.folder.get();
  if (step.kind == ExtractStep::Kind::Short) m_bytes += step.entry.Size();
  m_steps.push_back(std::move(step));
}

bool ExtractSteps::IsFull() const {
  return m_steps.size() >= kMostSteps || m_folders >= m_context.mostFolders ||
         m_bytes >= kMostBytes;
}

// Reads the records of file `first`, and of those that lie behind it, as far as that is one read.
void ExtractSteps::HoldFrom(size_t first, const std::vector<RecordSource>& sources,
                            Workspace& workspace) const {
  const uint64_t begin = StoredBegin(sources[first]);
  uint64_t end = begin;
  for (size_t i = first; i < sources.size(); ++i) {
    const RecordSource& source = sources[i];
    const uint64_t from = StoredBegin(source);
    if (from < end || from > end + kLargestGap || source.limit > begin + kMostAhead) break;
    end = source.limit;
  }
  if (workspace.ahead == nullptr) {
    workspace.ahead = std::make_shared<ReadAhead>(sources[first].image);
    workspace.image = ImageFile(workspace.ahead, sources[first].image.Name());
  }
  if (end > begin) workspace.ahead->Hold(begin, end);
}

void ExtractSteps::Run(size_t worker) {
  Workspace& workspace = m_context.workspaces[worker];
  const std::stop_token& stop = m_context.files.Options().stop;
  std::vector<RecordSource> sources;
  for (const ExtractStep& step : m_steps) {
    if (step.kind == ExtractStep::Kind::Short) {
      sources.push_back(m_context.files.SourceOf(step.entry));
    }
  }
  size_t next = 0;
  for (ExtractStep& step : m_steps) {
    if (step.kind != ExtractStep::Kind::Short) continue;
    if (stop.stop_requested()) return;
    const size_t at = next++;
    RecordSource& source = sources[at];
    if (!workspace.ahead || !workspace.ahead->Holds(StoredBegin(source), source.limit)) {
      HoldFrom(at, sources, workspace);
    }
    try {
      source.image = workspace.image;
      m_context.files.ExtractShort(std::move(source), step.entry, *step.folder, workspace,
                                   &step.bytes);
    } catch (...) {
      step.thrown = std::current_exception();
    }
    step.folder.reset();
  }
}

bool IsForSpans(const RecordSource& source) {
  return source.size >= 2 * kSpan && !source.restarts.empty();
}

LongTarget::LongTarget(const Entry& file, SharedFolder in, RecordSource records)
    : entry(file), folder(std::move(in)), source(std::move(records)) {
  uint64_t last = 0;
  for (const RestartPoint& point : source.restarts) {
    const uint64_t from = points.empty() ? source.begin : points.back().record;
    const bool isInFile = point.record > from && point.fileOffset < source.size;
    if (!isInFile || point.fileOffset < last + kSpan) continue;
    last = point.fileOffset;
    points.push_back(point);
  }
  if (source.check) check.emplace(*source.check);
}

uint64_t ExtractSpan::StoredBegin() const {
  return m_number == 0 ? host::StoredBegin(m_file->source) : m_file->points[m_number - 1].record;
}

void ExtractSpan::Run(size_t worker) {
  if (m_file->hasFailed || m_context.files.Options().stop.stop_requested()) return;
  try {
    if (!Extract(m_context.workspaces[worker])) m_file->hasFailed = true;
  } catch (const Error&) {
    m_file->hasFailed = true;
  }
}

// False when it is not what the restart points tell.
bool ExtractSpan::Extract(Workspace& workspace) {
  RecordSource source = m_file->source;
  const uint64_t storedEnd = IsLast() ? source.limit : m_file->points[m_number].record;
  if (storedEnd < StoredBegin() || storedEnd - StoredBegin() > kMostStored) return false;
  m_stored = std::make_shared<ReadAhead>(source.image);
  m_stored->Hold(StoredBegin(), storedEnd);
  source.image = ImageFile(m_stored, source.image.Name());
  source.check.reset();
  // No other point may lead to the same byte of the file: this one is what the span before
  // compares.
  source.restarts = std::span(m_file->points).subspan(m_number == 0 ? 0 : m_number - 1);
  source.restarts = source.restarts.first(m_number == 0 ? 0 : 1);
  RecordStream records(source);
  const uint64_t begin = m_number == 0 ? 0 : m_file->points[m_number - 1].fileOffset;
  records.Seek(begin);
  if (records.ChunkEnd() != begin) return false;
  PieceWriter pieces(*m_file->out, workspace.piece, begin);
  while (records.ChunkEnd() < End()) {
    records.Advance(records.ChunkEnd());
    const uint64_t count = std::min(source.size, records.ChunkEnd()) - records.ChunkBegin();
    pieces.Append(records.Chunk().first(static_cast<size_t>(count)));
  }
  pieces.Flush();
  m_storedEnd = records.Position();
  if (IsLast()) return true;
  const RestartPoint& next = m_file->points[m_number];
  std::array<unsigned char, kMaxHistory> room;
  const auto told = std::span(room).first(std::min<size_t>(next.historyLength, room.size()));
  const auto history = records.History();
  return records.ChunkEnd() == next.fileOffset && records.Position() == next.record &&
         source.image.ReadAt(next.history, told) == told.size() &&
         std::equal(told.begin(), told.end(), history.begin(), history.end());
}

bool ExtractSpan::Count() {
  if (m_file->hasFailed) return false;
  auto& check = m_file->check;
  if (!check) return true;
  const auto count = static_cast<size_t>(m_storedEnd - StoredBegin());
  if (m_stored->Bytes().size() < count) return false;
  check->Take(StoredBegin(), m_stored->Bytes().first(count));
  if (!IsLast()) return true;
  return check->Next() == check->End() && check->End() == m_storedEnd && check->Judge().empty();
}

}  // namespace capsule::host
