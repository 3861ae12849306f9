#include "tests/support/lzs_writer.h"

#include <algorithm>

namespace capsule::test {
namespace {

constexpr size_t kReach = 2047;
constexpr size_t kPairs = 65536;

class BitWriter {
 public:
  void Put(unsigned value, int width) {
    for (int bit = width - 1; bit >= 0; --bit) {
      if (m_nFree == 0) {
        m_Bytes.push_back(0);
        m_nFree = 8;
      }
      --m_nFree;
      const unsigned one = (value >> bit) & 1U;
      m_Bytes.back() = static_cast<unsigned char>(m_Bytes.back() | (one << m_nFree));
    }
  }
  Bytes Take() { return std::move(m_Bytes); }

 private:
  Bytes m_Bytes;
  int m_nFree = 0;
};

void PutLength(BitWriter& bits, size_t length) {
  if (length < 5) return bits.Put(static_cast<unsigned>(length - 2), 2);
  if (length < 8) return bits.Put(static_cast<unsigned>(0xC + length - 5), 4);
  bits.Put(0xF, 4);
  size_t rest = length - 8;
  for (; rest >= 15; rest -= 15) bits.Put(0xF, 4);
  bits.Put(static_cast<unsigned>(rest), 4);
}

void PutMatch(BitWriter& bits, size_t offset, size_t length) {
  if (offset < 128) {
    bits.Put(static_cast<unsigned>(0x180 | offset), 9);
  } else {
    bits.Put(static_cast<unsigned>(0x1000 | offset), 13);
  }
  PutLength(bits, length);
}

}  // namespace

LzsWriter::Match LzsWriter::Search(size_t at) const {
  if (at + 1 >= m_Text.size() || m_LastOfPair.empty()) return {};
  const size_t before = m_LastOfPair[static_cast<size_t>(m_Text[at] << 8 | m_Text[at + 1])];
  if (before == 0 || at - (before - 1) > kReach) return {};
  const size_t from = before - 1;
  size_t length = 0;
  while (at + length < m_Text.size() && m_Text[from + length] == m_Text[at + length]) ++length;
  return {at - from, length};
}

void LzsWriter::Index(size_t at) {
  if (at + 1 >= m_Text.size()) return;
  m_LastOfPair.resize(kPairs);
  m_LastOfPair[static_cast<size_t>(m_Text[at] << 8 | m_Text[at + 1])] = at + 1;
}

Bytes LzsWriter::Unit(std::span<const unsigned char> chunk) {
  size_t at = m_Text.size();
  m_Text.insert(m_Text.end(), chunk.begin(), chunk.end());
  BitWriter bits;
  while (at < m_Text.size()) {
    const Match match = Search(at);
    if (match.length >= 2) {
      PutMatch(bits, match.offset, match.length);
    } else {
      bits.Put(m_Text[at], 9);
    }
    const size_t end = at + std::max<size_t>(match.length, 1);
    for (; at < end; ++at) Index(at);
  }
  bits.Put(0x180, 9);
  return bits.Take();
}

}  // namespace capsule::test
