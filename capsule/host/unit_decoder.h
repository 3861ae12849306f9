// UnitDecoder decodes the compressed units of a file one after the other, with their history.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace capsule::host {

class UnitDecoder {
 public:
  UnitDecoder();

  // As before the first unit of a file.
  void Reset();

  // As behind units that ended in bytes of this one value: what a unit takes from before itself is
  // then this value, and every reference back is one that can be followed.
  void Pretend(unsigned char value);

  // Decodes one unit, which must fill `out` exactly and be followed by nothing but zeros. What is
  // wrong with it, or nothing; the history is then of no use until it is prepared again.
  std::string Decode(std::span<const unsigned char> payload, std::span<unsigned char> out);

 private:
  std::vector<unsigned char> m_History;
};

}  // namespace capsule::host
