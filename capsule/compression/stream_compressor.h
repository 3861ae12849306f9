// StreamCompressor turns one buffer into one complete LZS unit, whatever its length.
//
//   StreamCompressor compressor(16384, LzsKeepHistory, 0);
//   compressor.ResetCompressionHistory();
//   compressor.SetMediumCompression();
//   compressor.CompressBuffer(bytes, sizeof bytes, nullptr, 0);
//   Use(compressor.GetResult(), compressor.GetCompressedSize());
//
// Units compressed one after the other share a history until ResetCompressionHistory, which must
// be called before the first. One thread uses an object at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "capsule/compression/compressor_state.h"
#include "capsule/export.h"

namespace capsule {

class CAPSULE_API StreamCompressor {
 public:
  // `pieceSize`: how many input bytes (1 to 16384) each call of the codec gets; part of what the
  // output is for longer sources. `flags` and `effort` as for LzsCompress.
  StreamCompressor(uint32_t pieceSize, uint16_t flags, uint16_t effort);
  virtual ~StreamCompressor();
  StreamCompressor(const StreamCompressor&) = delete;
  StreamCompressor& operator=(const StreamCompressor&) = delete;

  // Compresses `length` bytes into one unit. With a null destination or a capacity of 0 the unit
  // goes to the result buffer of 65535 bytes. Always 0; GetCompressedSize tells the unit's size,
  // and of a unit longer than the destination only the bytes that fit are stored.
  int CompressBuffer(const unsigned char* source, uint32_t length, unsigned char* destination,
                     uint32_t capacity);

  // Bytes of the last unit, stored or not; 0 when the codec refused (history never reset) or there
  // was no source.
  uint32_t GetCompressedSize() const;

  // The result buffer: holds the last unit that was compressed without a destination.
  const unsigned char* GetResult() const;

  // Starts a fresh history; the area, which stays the object's own.
  void* ResetCompressionHistory();

  // What the next unit may depend on besides its own bytes, flags, effort and piece size; a copy
  // of it stays as it is when the compressor goes on. Between units.
  const CompressorState& State() const;
  // Lets the next unit go on from there; flags, effort and piece size stay this object's own.
  void SetState(const CompressorState& state);

  int SetFastCompression();     // effort 0, matches not indexed
  int SetMediumCompression();   // effort 7, match ends indexed
  int SetMaximumCompression();  // effort 255, match bodies indexed

 private:
  bool Pass();

  std::vector<unsigned char> m_input;
  std::vector<unsigned char> m_output;
  uint32_t m_pieceSize;
  CompressorState m_history;
  const unsigned char* m_source = nullptr;
  uint32_t m_sourceCount = 0;
  const unsigned char* m_callerNext = nullptr;
  uint32_t m_callerLeft = 0;
  unsigned char* m_destNext = nullptr;
  uint32_t m_destLeft = 0;
  unsigned char* m_out = nullptr;
  uint32_t m_totalOut = 0;
  uint32_t m_outCount = 0;
  uint16_t m_resultFlags = 0;
  uint16_t m_callFlags;
  uint16_t m_flags;
  uint16_t m_effort;
  std::vector<unsigned char> m_result;
};

}  // namespace capsule
