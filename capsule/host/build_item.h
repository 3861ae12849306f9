// BuildItem is one item of a partition that is put together, instead of a folder as it is.
//
//   const std::string text = "Dear Anna";
//   host::BuildItem letter;
//   letter.path = "letters/to-anna.txt";
//   letter.bytes = host::MemorySource({reinterpret_cast<const unsigned char*>(text.data()), 9});
//   letter.modified = 1714564800;
//   host::BuildItem photos;
//   photos.path = "photos";
//   photos.source = "photos/2024";
//   host::ImageBuilder builder("album.cap");
//   builder.AddItems({letter, photos});
//   const host::BuildReport report = builder.Finish();
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "capsule/host/byte_source.h"

namespace capsule::host {

// An item is a folder unless it has a source or bytes. Bytes are read on threads of the builder,
// and are asked for more than once.
struct BuildItem {
  std::string
      path{};  // in the partition, '/' between segments; folders above it come by themselves
  std::filesystem::path source{};             // a file, or a folder with all that is in it
  std::shared_ptr<const ByteSource> bytes{};  // of a file, instead of a source

  // What is stored instead of what the source tells. Without either, the time is the earliest that
  // an image can hold.
  std::optional<int64_t> modified{};    // seconds after 1970
  std::optional<uint8_t> attributes{};  // 0x01 read-only, 0x02 hidden, 0x04 system, 0x20 archive
};

}  // namespace capsule::host
