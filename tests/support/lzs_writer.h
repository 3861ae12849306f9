// LzsWriter makes LZS units the plain way, apart from the library's codec: the longest match that a
// short look back finds, else a literal. A unit may refer back into the units before it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace capsule::test {

using Bytes = std::vector<unsigned char>;

class LzsWriter {
 public:
  // One unit with its end marker, filled up to a whole byte.
  Bytes Unit(std::span<const unsigned char> chunk);

 private:
  struct Match {
    size_t offset = 0;
    size_t length = 0;
  };

  Match Search(size_t at) const;
  void Index(size_t at);

  Bytes m_text;  // everything that units were made of
  static constexpr auto kNever = static_cast<size_t>(-1);
  std::vector<size_t> m_lastOfPair = std::vector<size_t>(65536, kNever);  // where it began last
};

}  // namespace capsule::test
