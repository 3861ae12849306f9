// FileDecoding decodes the records of a file that a map has passed, or those of a part of it, and
// keeps what is to be told of them until somebody takes it.
//
// A part that begins at a restart point believes the history that the index has for it. What the
// part has met counts only when the part before has come to that place with that history.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <vector>

#include "capsule/host/records/record_stream.h"

namespace capsule::host {

class FileDecoding {
 public:
  struct Event {
    uint64_t offset = 0;  // of a record that decoding came to, or of the fault
    std::string fault;    // empty: none
  };

  // `restarts`: those of the image, by record; they must outlive the object. `from`: the number of
  // the one where the part begins, none for the first part. `end`: the record where it ends.
  FileDecoding(RecordSource source, std::span<const RestartPoint> restarts,
               std::optional<size_t> from, uint64_t end);

  const RecordSource& Source() const { return m_source; }
  bool IsFirst() const { return !m_from; }
  uint64_t End() const { return m_end; }

  // Decodes until the end, or until so many events wait, or until it is halted. Throws only what
  // ends the whole operation: an Error that says so, or whatever the source of the bytes has
  // thrown.
  void Run(size_t mostEvents, const std::stop_token& halt = {});

  // What was met since the last call, in order.
  std::vector<Event> TakeEvents();

  // Whether there is nothing more to decode up to End().
  bool HasStopped() const { return m_state != State::Going; }

  // Whether there is nothing more to decode in the file: all of it is sound, or damage ends it.
  bool HasEnded() const { return m_state == State::Sound || m_state == State::Damaged; }
  bool IsSound() const { return m_state == State::Sound; }

  // Whether `before`, which has stopped, came to where this part begins, as this part believes.
  bool Continues(const FileDecoding& before) const;

  // Goes on behind End().
  void ExtendTo(uint64_t end);

 private:
  enum class State { Going, AtEnd, Sound, Damaged };

  void Begin();
  void Step();
  void CompareRestarts();
  void TellRestartsBefore(uint64_t offset);

  RecordSource m_source;
  std::span<const RestartPoint> m_restarts;
  std::optional<size_t> m_from;
  uint64_t m_end;
  size_t m_restart;  // the next
  State m_state = State::Going;
  std::optional<RecordStream> m_stream;
  bool m_hasBegun = false;
  std::vector<unsigned char> m_believed;  // the history at the beginning of the part
  std::vector<Event> m_events;
};

// The numbers of the restart points at which the records of a long file are parted; none where the
// file is too short to be worth it.
std::vector<size_t> SeamsOf(const RecordSource& source, std::span<const RestartPoint> restarts);

}  // namespace capsule::host
