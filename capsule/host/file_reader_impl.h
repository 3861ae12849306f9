// What a FileReader holds.
#pragma once

#include "capsule/host/file_reader.h"
#include "capsule/host/record_stream.h"

namespace capsule::host {

struct FileReader::Impl {
  RecordStream records;
  bool hasFailed = false;  // the last read stopped inside a record: start again
};

}  // namespace capsule::host
