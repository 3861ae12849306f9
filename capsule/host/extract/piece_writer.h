// PieceWriter gathers what records hold into pieces that are worth a write.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "capsule/host/extract/output_file.h"

namespace capsule::host {

class PieceWriter {
 public:
  // Pieces end at multiples of it in the file.
  static constexpr uint64_t kPiece = uint64_t{128} << 10;

  // `piece`: room for one. `offset`: where in the file the first byte goes.
  PieceWriter(OutputFile& out, std::vector<unsigned char>& piece, uint64_t offset)
      : m_out(out), m_piece(piece), m_begin(offset) {
    m_piece.resize(kPiece);
  }

  void Append(std::span<const unsigned char> bytes) {
    while (!bytes.empty()) {
      const auto room = static_cast<size_t>(kPiece - m_begin % kPiece) - m_filled;
      const size_t count = std::min(room, bytes.size());
      std::copy_n(bytes.begin(), count, m_piece.begin() + static_cast<std::ptrdiff_t>(m_filled));
      m_filled += count;
      bytes = bytes.subspan(count);
      if (count == room) Flush();
    }
  }

  void Flush() {
    m_out.Write(m_begin, std::span(m_piece).first(m_filled));
    m_begin += m_filled;
    m_filled = 0;
  }

  // Up to where the file is written.
  uint64_t Written() const { return m_begin; }

 private:
  OutputFile& m_out;
  std::vector<unsigned char>& m_piece;
  uint64_t m_begin;
  size_t m_filled = 0;
};

}  // namespace capsule::host
