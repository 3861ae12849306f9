// What is left of a file whose records are damaged, and what to do about the rest.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace capsule::host {

// What to do with a file that cannot be read completely.
enum class OnDamage {
  Stop,  // leave it out
  Skip,  // leave out what is lost; what follows is appended
  Zero,  // zeros for what is lost: everything else is where it was
};

// A part of a file that is not there as it was.
struct LostRange {
  uint64_t offset = 0;  // in the file
  uint64_t length = 0;

  // What came out breaks no rule of a record, but cannot be compared with the file's check value
  // since some is lost; or nothing is lost, but the file as a whole breaks a rule, and which of its
  // bytes are wrong, if any, is not known. Otherwise the bytes are lost.
  bool isUncertain = false;

  std::string reason;  // one line, lower-case
};

// A part of a file, as it is handed out in order. Data, lost and claimed parts cover what
// was asked for, each byte once.
struct FilePiece {
  enum class Kind {
    Data,       // `bytes`, none of which hangs on damaged records
    Lost,       // `length` bytes from `offset` on are not known
    Claimed,    // the same at the end of a file, but nothing in the image can have stood for them:
                // the size that the file's entry states is wrong, and no zeros are put there
    Unplaced,   // `bytes` are whole, but belong anywhere in the lost part that follows; handed
                // out only when the whole file is asked for
    Uncertain,  // said once, at the end: `length` bytes from `offset` on, see LostRange
  };
  Kind kind = Kind::Data;
  uint64_t offset = 0;
  uint64_t length = 0;
  std::span<const unsigned char> bytes;  // valid during the call
  std::string reason;                    // of a lost or uncertain part
};

// The range that a piece tells to be lost or uncertain.
inline std::optional<LostRange> LostIn(const FilePiece& piece) {
  const bool isUncertain = piece.kind == FilePiece::Kind::Uncertain;
  const bool isLost = piece.kind == FilePiece::Kind::Lost || piece.kind == FilePiece::Kind::Claimed;
  if (!isLost && !isUncertain) return std::nullopt;
  return LostRange{piece.offset, piece.length, isUncertain, piece.reason};
}

using TakePiece = std::function<void(const FilePiece&)>;

// The next bytes of a file that is written out: `bytes`, or as many zeros as `zeros` says.
using TakeLeft = std::function<void(std::span<const unsigned char> bytes, uint64_t zeros)>;

}  // namespace capsule::host
