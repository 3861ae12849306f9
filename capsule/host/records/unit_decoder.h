// UnitDecoder decodes the compressed units of a file one after the other, with their history.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace capsule::lzs {
struct DecompressHandles;
}

namespace capsule::host {

// How far back a unit may refer.
inline constexpr size_t kMaxHistory = 2047;

// No byte of a unit stands for more: a group of 4 bits for up to 15 bytes.
inline constexpr uint64_t kMaxExpansion = 30;

class UnitDecoder {
 public:
  UnitDecoder();

  // Prepares the history as it is before the first unit of a file.
  void Reset();

  // What the next unit may refer back to, the latest byte last: up to kMaxHistory bytes. Valid
  // until the decoder is used again.
  std::span<const unsigned char> History() const;

  // Prepares the history as it is behind units that ended in `history`, up to kMaxHistory bytes.
  void Restore(std::span<const unsigned char> history);

  // Prepares the history as if all bytes before had this one value: what a unit takes from before
  // itself is then this value, and every reference back is one that can be followed.
  void Pretend(unsigned char value);

  // Decodes one unit, which must fill `out` exactly and be followed by nothing but zeros. What is
  // wrong with it, or nothing. After a unit that is wrong, none decodes until the history is
  // prepared again; in no case is `payload` or `out` used once the call is over.
  std::string Decode(std::span<const unsigned char> payload, std::span<unsigned char> out);

  // A unit, where it goes, and then what is wrong with it.
  struct Unit {
    std::span<const unsigned char> payload;
    std::span<unsigned char> out;
    std::string fault = {};
  };

  // As Decode of each unit of `a` by `first`, in this order, and of `b` by `second`, another
  // decoder, but both side by side, which takes less time than one after the other.
  static void DecodePair(UnitDecoder& first, std::span<Unit> a, UnitDecoder& second,
                         std::span<Unit> b);

 private:
  void Forget();
  lzs::DecompressHandles CallFor(const Unit& unit);
  std::vector<lzs::DecompressHandles> CallsFor(std::span<const Unit> units);
  std::string Judge(const lzs::DecompressHandles& call, const Unit& unit);

  std::vector<unsigned char> m_history;
};

}  // namespace capsule::host
