// Whether a part that begins in the middle has begun rightly shows only when the part before it has
// ended. Until then nothing that it meets is told, and where it has not, the part before goes on in
// its place, so the faults are those of decoding from the first record to the last.
#include "capsule/host/verify/file_decoding.h"

#include <algorithm>
#include <array>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"

namespace capsule::host {
namespace {

// Bytes of a file in a part, at least.
constexpr uint32_t kPartSize = uint32_t{4} << 20;

size_t FirstFrom(std::span<const RestartPoint> restarts, uint64_t record) {
  const auto first = std::lower_bound(
      restarts.begin(), restarts.end(), record,
      [](const RestartPoint& point, uint64_t wanted) { return point.record < wanted; });
  return static_cast<size_t>(first - restarts.begin());
}

bool EndsAll(const Error& error) {
  return error.Kind() == ErrorKind::Cancelled ||
         dynamic_cast<const ShortageError*>(&error) != nullptr;
}

}  // namespace

FileDecoding::FileDecoding(RecordSource source, std::span<const RestartPoint> restarts,
                           std::optional<size_t> from, uint64_t end)
    : m_source(std::move(source)),
      m_restarts(restarts),
      m_from(from),
      m_end(end),
      m_restart(from ? *from : FirstFrom(restarts, m_source.begin)) {
  if (m_from) m_source.restarts = m_restarts.subspan(*m_from, 1);
  if (m_source.size == 0) m_state = State::Sound;
}

void FileDecoding::Run(size_t mostEvents, const std::stop_token& halt) {
  if (HasStopped()) return;
  try {
    if (!m_hasBegun) Begin();
    while (!HasStopped() && m_events.size() < mostEvents && !halt.stop_requested()) Step();
  } catch (const Error& error) {
    if (EndsAll(error)) throw;
    m_events.push_back(
        {error.Offset().value_or(m_source.begin), WithoutPath(error.Reason(), m_source.entryPath)});
    m_state = State::Damaged;
  }
  if (HasEnded()) m_stream.reset();
}

// A restart point that leads nowhere ends the part where it should begin.
void FileDecoding::Begin() {
  m_stream.emplace(m_source);
  if (m_from) {
    const RestartPoint& point = m_restarts[*m_from];
    m_stream->Seek(point.fileOffset);
    if (m_stream->Position() != point.record || m_stream->ChunkEnd() != point.fileOffset) {
      m_state = State::AtEnd;
      return;
    }
    m_believed.assign(m_stream->History().begin(), m_stream->History().end());
  }
  m_hasBegun = true;
}

// Goes to the next record.
void FileDecoding::Step() {
  if (m_stream->ChunkEnd() >= m_source.size) {
    TellRestartsBefore(m_source.limit);
    m_state = State::Sound;
  } else if (m_end < m_source.limit && m_stream->Position() >= m_end) {
    TellRestartsBefore(m_end);
    m_state = State::AtEnd;
  } else {
    CompareRestarts();
    m_events.push_back({m_stream->Position(), ""});
    m_stream->Advance(m_source.size);
  }
}

// What the index tells of the place where the stream stands.
void FileDecoding::CompareRestarts() {
  const uint64_t here = m_stream->Position();
  TellRestartsBefore(here);
  if (m_restart == m_restarts.size() || m_restarts[m_restart].record > here) return;
  const RestartPoint& point = m_restarts[m_restart++];
  if (point.fileOffset != m_stream->ChunkEnd()) {
    m_events.push_back({here, "restart point is for byte " + std::to_string(point.fileOffset) +
                                  " of the file, byte " + std::to_string(m_stream->ChunkEnd()) +
                                  " is here"});
    return;
  }
  std::array<unsigned char, kMaxHistory> room;
  const auto noted = std::span(room).first(point.historyLength);
  const size_t got = m_source.image.ReadAt(point.history, noted);
  const auto history = m_stream->History();
  if (!std::equal(noted.begin(), noted.begin() + static_cast<ptrdiff_t>(got), history.begin(),
                  history.end())) {
    m_events.push_back({here, "restart point has another history than the file"});
  }
}

// Restart points of the file that no record is at.
void FileDecoding::TellRestartsBefore(uint64_t offset) {
  for (; m_restart < m_restarts.size() && m_restarts[m_restart].record < offset; ++m_restart) {
    m_events.push_back(
        {m_restarts[m_restart].record, "restart point is where no data block begins"});
  }
}

std::vector<FileDecoding::Event> FileDecoding::TakeEvents() { return std::exchange(m_events, {}); }

bool FileDecoding::Continues(const FileDecoding& before) const {
  if (!m_hasBegun || before.m_state != State::AtEnd) return false;
  const RestartPoint& point = m_restarts[*m_from];
  const RecordStream& stream = *before.m_stream;
  const auto history = stream.History();
  return stream.Position() == point.record && stream.ChunkEnd() == point.fileOffset &&
         std::equal(history.begin(), history.end(), m_believed.begin(), m_believed.end());
}

void FileDecoding::ExtendTo(uint64_t end) {
  m_end = end;
  if (m_state == State::AtEnd) m_state = State::Going;
}

// Of several points at one record, the first is the one that decoding compares.
std::vector<size_t> SeamsOf(const RecordSource& source, std::span<const RestartPoint> restarts) {
  std::vector<size_t> seams;
  uint64_t part = 0;
  uint64_t record = source.begin;
  for (size_t i = FirstFrom(restarts, source.begin);
       i < restarts.size() && restarts[i].record < source.limit; ++i) {
    const RestartPoint& point = restarts[i];
    const bool isNext = point.record > record && point.fileOffset >= part + kPartSize &&
                        point.fileOffset < source.size;
    if (isNext) {
      seams.push_back(i);
      part = point.fileOffset;
    }
    record = point.record;
  }
  return seams;
}

}  // namespace capsule::host
