// Goes over the data records of a damaged file: which are whole, and where in the file they belong.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capsule/host/records/record_source.h"

namespace capsule::host {

// A stretch of the image: whole records of one chunk size, or damage.
struct RecordRun {
  uint64_t begin = 0;
  uint64_t end = 0;
  bool isDamage = false;
  uint32_t chunk = 0;    // of each record; of damage: 0 when its records are not known
  uint64_t records = 0;  // of damage: those whose headers can be followed
  bool isLast = false;   // the last record says that it is the last of the file

  // A single record whose header is damaged, and whose payload shows what it was.
  bool isRepaired = false;
  bool isCompressed = false;  // of a repaired record: its payload is a compressed unit

  bool isPlaced = false;
  uint64_t offset = 0;  // of the first byte in the file, when it is placed

  uint64_t Length() const { return chunk * records; }
};

// The runs from source.begin to the limit, or to the end of the image. Records count as whole as
// IsWholeDataRecord tells; stored ones when a whole record or the end follows. Behind a record that
// is not, the next one is where its header leads, else the first that is found byte by byte.
//
// Linear: what is decoded or passed in search of records is at most some times the room; then, or
// beyond 65536 runs, the rest counts as damage.
std::vector<RecordRun> SurveyRecords(const RecordSource& source);

// Looks whether runs of damage are records that have lost nothing but their header: what lies
// between the whole records around it is then a unit of exactly the usual chunk, or a stored chunk
// in front of which all but one field of the header is as it must be.
void MendRuns(const RecordSource& source, std::vector<RecordRun>& runs);

// The chunk size that most records have; 0 without any.
uint32_t UsualChunk(const std::vector<RecordRun>& runs);

// Tells the runs their places. From the start of the file up to the first damage of unknown length
// they follow from what is in front; behind the last one from the file's end. What lies between
// several is placed when each must be a single record of the size of all others. Damage has no
// place.
void PlaceRuns(const RecordSource& source, std::vector<RecordRun>& runs);

}  // namespace capsule::host
