#include "tests/support/lzs_writer.h"

#include <algorithm>

namespace capsule::test {
namespace {

constexpr size_t kReach = 2047;

class BitWriter {
 public:
  void Put(unsigned value, int width) {
    for (int bit = width - 1; bit >= 0; --bit) {
      if (m_nBits % 8 == 0) m_Bytes.push_back(0);
      const unsigned one = (value >> bit) & 1U;
      m_Bytes.back() = static_cast<unsigned char>(m_Bytes.back() | one << (7 - m_nBits++ % 8));
    }
  }
  Bytes Take() { return std::move(m_Bytes); }

 private:
  Bytes m_Bytes;
  int m_nBits = 0;
};

void PutLength(BitWriter& bits, size_t length) {
  if (length < 5) return bits.Put(static_cast<unsigned>(length - 2), 2);
  size_t rest = length + 7;  // the first four bits say 5, 6, 7 or more
  for (; rest >= 15; rest -= 15) bits.Put(0xF, 4);
  bits.Put(static_cast<unsigned>(rest), 4);
}

void PutMatch(BitWriter& bits, size_t offset, size_t length) {
  const bool near = offset < 128;
  bits.Put(static_cast<unsigned>((near ? 0x180 : 0x1000) | offset), near ? 9 : 13);
  PutLength(bits, length);
}

}  // namespace

LzsWriter::Match LzsWriter::Search(size_t at) const {
  if (at + 1 >= m_Text.size()) return {};
  const size_t from = m_LastOfPair[static_cast<size_t>(m_Text[at] << 8 | m_Text[at + 1])];
  if (from == kNever || at - from > kReach) return {};
  size_t length = 0;
  while (at + length < m_Text.size() && m_Text[from + length] == m_Text[at + length]) ++length;
  return {at - from, length};
}

void LzsWriter::Index(size_t at) {
  if (at + 1 >= m_Text.size()) return;
  m_LastOfPair[static_cast<size_t>(m_Text[at] << 8 | m_Text[at + 1])] = at;
}

Bytes LzsWriter::Unit(std::span<const unsigned char> chunk) {
  size_t at = m_Text.size();
  m_Text.insert(m_Text.end(), chunk.begin(), chunk.end());
  BitWriter bits;
  while (at < m_Text.size()) {
    const Match match = Search(at);
    match.length >= 2 ? PutMatch(bits, match.offset, match.length) : bits.Put(m_Text[at], 9);
    const size_t end = at + std::max<size_t>(match.length, 1);
    for (; at < end; ++at) Index(at);
  }
  bits.Put(0x180, 9);
  return bits.Take();
}

}  // namespace capsule::test
