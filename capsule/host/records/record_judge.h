// Tells data block records from other bytes, where nothing else says what is there.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "capsule/blocks/data_record.h"

namespace capsule::host {

// Whether `bytes` begin with a data record that is whole: its header without fault, its payload
// within `bytes`, and when that is compressed a unit of exactly the stated length, whatever its
// history was. More bytes may follow.
//
// Chance does not make such a header (1 in 2^40) nor such a unit. But a stored record has nothing
// beside its header to tell it from table data that reads alike: judge what follows it as well.
//
// Cheap where there is no such header, else linear in the payload and the chunk.
bool IsWholeDataRecord(std::span<const unsigned char> bytes, const RecordRules& rules);

// What `room` bytes of records can stand for at most; no file is longer than an image can be.
uint64_t MostBytesIn(uint64_t room);

// What is wrong with the size that the entry of a file with this much room states, or nothing.
std::string JudgeSize(uint64_t size, uint64_t room);

}  // namespace capsule::host
