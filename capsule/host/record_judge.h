// Tells data block records from other bytes, where nothing else says what is there.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "capsule/partition/directory_records.h"

namespace capsule::host {

// What is wrong with the flag, param or length of a data block record's header, or nothing.
std::string JudgeDataHeader(const _MiniHeader& header, bool imageIsCompressed);

// Whether `bytes` begin with a data block record that is whole: of type 3, its header without
// fault, its payload within `bytes`, and when that is compressed a unit of exactly the stated
// length, whatever its history was. More bytes may follow.
//
// Chance does not make such a header (1 in 2^40) nor such a unit. But a stored record has nothing
// beside its header to tell it from table data that reads alike: judge what follows it as well.
//
// Cheap where there is no such header, else linear in the payload and the chunk.
bool IsWholeDataRecord(std::span<const unsigned char> bytes, bool imageIsCompressed);

}  // namespace capsule::host
