#include "bench/coder.h"

#include <libdeflate.h>
#include <lz4.h>
#include <zlib.h>
#include <zstd.h>

#include <cstring>

#include "capsule/compression/lzs.h"

namespace capsule::bench {
namespace {

class LzsCoder : public Coder {
 public:
  explicit LzsCoder(int effort)
      : m_flags(static_cast<uint16_t>(LzsKeepHistory | (effort == 7     ? LzsIndexMatchEnds
                                                        : effort == 255 ? LzsIndexMatchBodies
                                                                        : 0))),
        m_effort(static_cast<uint16_t>(effort)),
        m_compression(LzsSizeOfCompressionHistory()),
        m_decompression(LzsSizeOfDecompressionHistory()) {}
  void BeginCompress() override { LzsInitCompressionHistory(m_compression.data()); }
  void BeginDecompress() override { LzsInitDecompressionHistory(m_decompression.data()); }
  uint32_t Compress(const unsigned char* chunk, uint32_t size, unsigned char* out) override {
    uint32_t room = kChunkRoom;
    const uint16_t result = LzsCompress(&chunk, &out, &size, &room, m_compression.data(),
                                        m_flags | LzsEndOfInput, m_effort);
    return result == (LzsInputUsedUp | LzsUnitComplete) ? kChunkRoom - room : 0;
  }
  bool Decompress(const unsigned char* coded, uint32_t codedSize, unsigned char* out,
                  uint32_t size) override {
    return LzsDecompress(&coded, &out, &codedSize, &size, m_decompression.data(), LzsKeepHistory) ==
           (LzsInputUsedUp | LzsOutputFull | LzsUnitComplete);
  }

 private:
  uint16_t m_flags;
  uint16_t m_effort;
  std::vector<unsigned char> m_compression;
  std::vector<unsigned char> m_decompression;
};

// Raw deflate, without a check sum.
class ZlibCoder : public Coder {
 public:
  explicit ZlibCoder(int level) {
    deflateInit2(&m_deflate, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    inflateInit2(&m_inflate, -15);
  }
  ~ZlibCoder() override {
    deflateEnd(&m_deflate);
    inflateEnd(&m_inflate);
  }
  uint32_t Compress(const unsigned char* chunk, uint32_t size, unsigned char* out) override {
    deflateReset(&m_deflate);
    m_deflate.next_in = const_cast<unsigned char*>(chunk);
    m_deflate.avail_in = size;
    m_deflate.next_out = out;
    m_deflate.avail_out = kChunkRoom;
    return deflate(&m_deflate, Z_FINISH) == Z_STREAM_END ? kChunkRoom - m_deflate.avail_out : 0;
  }
  bool Decompress(const unsigned char* coded, uint32_t codedSize, unsigned char* out,
                  uint32_t size) override {
    inflateReset(&m_inflate);
    m_inflate.next_in = const_cast<unsigned char*>(coded);
    m_inflate.avail_in = codedSize;
    m_inflate.next_out = out;
    m_inflate.avail_out = size;
    return inflate(&m_inflate, Z_FINISH) == Z_STREAM_END && m_inflate.avail_out == 0;
  }

 private:
  z_stream m_deflate{};
  z_stream m_inflate{};
};

class LibdeflateCoder : public Coder {
 public:
  explicit LibdeflateCoder(int level)
      : m_compressor(libdeflate_alloc_compressor(level), libdeflate_free_compressor),
        m_decompressor(libdeflate_alloc_decompressor(), libdeflate_free_decompressor) {}
  uint32_t Compress(const unsigned char* chunk, uint32_t size, unsigned char* out) override {
    return static_cast<uint32_t>(
        libdeflate_deflate_compress(m_compressor.get(), chunk, size, out, kChunkRoom));
  }
  bool Decompress(const unsigned char* coded, uint32_t codedSize, unsigned char* out,
                  uint32_t size) override {
    return libdeflate_deflate_decompress(m_decompressor.get(), coded, codedSize, out, size,
                                         nullptr) == LIBDEFLATE_SUCCESS;
  }

 private:
  std::unique_ptr<libdeflate_compressor, void (*)(libdeflate_compressor*)> m_compressor;
  std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> m_decompressor;
};

class Lz4Coder : public Coder {
 public:
  explicit Lz4Coder(int acceleration)
      : m_acceleration(acceleration), m_state(static_cast<size_t>(LZ4_sizeofState())) {}
  uint32_t Compress(const unsigned char* chunk, uint32_t size, unsigned char* out) override {
    return static_cast<uint32_t>(LZ4_compress_fast_extState(m_state.data(), Text(chunk), Text(out),
                                                            static_cast<int>(size), kChunkRoom,
                                                            m_acceleration));
  }
  bool Decompress(const unsigned char* coded, uint32_t codedSize, unsigned char* out,
                  uint32_t size) override {
    return LZ4_decompress_safe(Text(coded), Text(out), static_cast<int>(codedSize),
                               static_cast<int>(size)) == static_cast<int>(size);
  }

 private:
  static const char* Text(const unsigned char* p) {
    return static_cast<const char*>(static_cast<const void*>(p));
  }
  static char* Text(unsigned char* p) { return static_cast<char*>(static_cast<void*>(p)); }
  int m_acceleration;
  std::vector<unsigned char> m_state;
};

class ZstdCoder : public Coder {
 public:
  explicit ZstdCoder(int level)
      : m_level(level),
        m_compressor(ZSTD_createCCtx(), ZSTD_freeCCtx),
        m_decompressor(ZSTD_createDCtx(), ZSTD_freeDCtx) {}
  uint32_t Compress(const unsigned char* chunk, uint32_t size, unsigned char* out) override {
    const size_t written =
        ZSTD_compressCCtx(m_compressor.get(), out, kChunkRoom, chunk, size, m_level);
    return ZSTD_isError(written) != 0 ? 0 : static_cast<uint32_t>(written);
  }
  bool Decompress(const unsigned char* coded, uint32_t codedSize, unsigned char* out,
                  uint32_t size) override {
    return ZSTD_decompressDCtx(m_decompressor.get(), out, size, coded, codedSize) == size;
  }

 private:
  int m_level;
  std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> m_compressor;
  std::unique_ptr<ZSTD_DCtx, size_t (*)(ZSTD_DCtx*)> m_decompressor;
};

class CopyCoder : public Coder {
 public:
  explicit CopyCoder(int) {}
  uint32_t Compress(const unsigned char* chunk, uint32_t size, unsigned char* out) override {
    std::memcpy(out, chunk, size);
    return size;
  }
  bool Decompress(const unsigned char* coded, uint32_t codedSize, unsigned char* out,
                  uint32_t) override {
    std::memcpy(out, coded, codedSize);
    return true;
  }
};

template <typename T>
std::unique_ptr<Coder> Make(int level) {
  return std::make_unique<T>(level);
}

}  // namespace

const std::vector<CoderKind>& AllCoders() {
  static const std::vector<CoderKind> coders = {
      {"capsule 0", Make<LzsCoder>, 0, false, true},
      {"capsule 7", Make<LzsCoder>, 7, false, true},
      {"capsule 255", Make<LzsCoder>, 255, false, true},
      {"zlib 1", Make<ZlibCoder>, 1, true, false},
      {"zlib 6", Make<ZlibCoder>, 6, true, true},
      {"zlib 9", Make<ZlibCoder>, 9, true, false},
      {"libdeflate 1", Make<LibdeflateCoder>, 1, true, false},
      {"libdeflate 6", Make<LibdeflateCoder>, 6, true, true},
      {"libdeflate 9", Make<LibdeflateCoder>, 9, true, false},
      {"LZ4 fast", Make<Lz4Coder>, 1, true, true},
      {"zstd 1", Make<ZstdCoder>, 1, true, true},
      {"memcpy", Make<CopyCoder>, 0, true, true},
  };
  return coders;
}

}  // namespace capsule::bench
