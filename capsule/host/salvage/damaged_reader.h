// DamagedReader reads what is left of a file whose records cannot all be decoded.
//
// A unit refers back into what units before it left. Behind damage that is not known, so units are
// decoded twice, with all bytes before them taken to be 0x00 and 0xFF: a byte that comes out the
// same cannot hang on the damage, since decoding only ever copies. The two go on side by side until
// their last 2048 bytes agree; then one is enough.
//
// Restart points divide a file into parts that are read each by itself: what is lost in one has no
// effect on the next, whose place in the file and history are known.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "capsule/host/damaged_file.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/records/record_judge.h"
#include "capsule/host/records/record_source.h"
#include "capsule/host/records/unit_decoder.h"
#include "capsule/host/salvage/record_survey.h"

namespace capsule::host {

class DamagedReader {
 public:
  // `problem`: why the file cannot be read as it should be. The range asked for is `begin` to
  // `end`.
  DamagedReader(RecordSource source, std::string problem, uint64_t begin, uint64_t end,
                const TakePiece& take);

  // Hands out the file's pieces. Throws host::Error when the image cannot be read.
  void Run();

 private:
  void ReadPart(const RecordSource& part);
  void TakeHistory(const RestartPoint& point);
  void ReadRun(const RecordRun& run);
  void ReadRecord(const DataRecord& record, std::span<const unsigned char> payload,
                  const RecordRun& run, uint64_t offset);
  void TakeCompressed(uint64_t offset, bool isPlaced);
  void LoseHistory();
  void Keep(std::span<const unsigned char> bytes, uint64_t offset, bool isPlaced);
  void Lose(uint64_t end, const std::string& reason);
  void EndLoss();

  RecordSource m_source;
  std::string m_problem;
  uint64_t m_begin;
  uint64_t m_end;
  const TakePiece& m_take;
  FileWindow m_window;
  std::array<UnitDecoder, 2> m_decoders;
  std::array<std::vector<unsigned char>, 2> m_chunks;
  bool m_sure = true;       // the first decoder's history is right, and the second is not used
  uint64_t m_agreed = 0;    // bytes at the end of both histories that agree
  uint64_t m_part = 0;      // where the part begins in the file
  uint64_t m_file = 0;      // up to where pieces were handed out
  uint64_t m_lostFrom = 0;  // where the lost part begins that is open; m_file is its end
  std::string m_loss;
  bool m_lost = false;
  bool m_anyLost = false;
};

}  // namespace capsule::host
