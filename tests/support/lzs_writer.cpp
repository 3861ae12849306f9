#include "tests/support/lzs_writer.h"

#include <algorithm>

namespace capsule::test {
namespace {

constexpr size_t kReach = 2047;

class BitWriter {
 public:
  void Put(unsigned value, int width) {
    for (int bit = width - 1; bit >= 0; --bit) {
      if (m_bits % 8 == 0) m_bytes.push_back(0);
      const unsigned one = (value >> bit) & 1U;
      m_bytes.back() = static_cast<unsigned char>(m_bytes.back() | one << (7 - m_bits++ % 8));
    }
  }
  Bytes Take() { return std::move(m_bytes); }

 private:
  Bytes m_bytes;
  int m_bits = 0;
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
  if (at + 1 >= m_text.size()) return {};
  const size_t from = m_lastOfPair[static_cast<size_t>(m_text[at] << 8 | m_text[at + 1])];
  if (from == kNever || at - from > kReach) return {};
  size_t length = 0;
  while (at + length < m_text.size() && m_text[from + length] == m_text[at + length]) ++length;
  return {at - from, length};
}

void LzsWriter::Index(size_t at) {
  if (at + 1 >= m_text.size()) return;
  m_lastOfPair[static_cast<size_t>(m_text[at] << 8 | m_text[at + 1])] = at;
}

Bytes LzsWriter::Unit(std::span<const unsigned char> chunk) {
  size_t at = m_text.size();
  m_text.insert(m_text.end(), chunk.begin(), chunk.end());
  BitWriter bits;
  while (at < m_text.size()) {
    const Match match = Search(at);
    match.length >= 2 ? PutMatch(bits, match.offset, match.length) : bits.Put(m_text[at], 9);
    const size_t end = at + std::max<size_t>(match.length, 1);
    for (; at < end; ++at) Index(at);
  }
  bits.Put(0x180, 9);
  return bits.Take();
}

}  // namespace capsule::test
