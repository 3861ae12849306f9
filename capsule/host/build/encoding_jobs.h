// The jobs that a draft hands to its workers: many short items, or a span of a long file.
#pragma once

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

#include "capsule/host/build/item_encoder.h"
#include "capsule/host/parallel/ordered_work.h"

namespace capsule::host {

// An encoder for each worker, and one more for the thread that puts things together.
class EncoderPool {
 public:
  EncoderPool(size_t workers, int level, int64_t latest);

  ItemEncoder& Of(size_t worker) { return *m_encoders[worker]; }
  ItemEncoder& Own() { return *m_encoders.back(); }

 private:
  std::vector<std::unique_ptr<ItemEncoder>> m_encoders;
};

// Items that follow each other. Files are encoded by the job and closed; what else there is comes
// as it is to be laid down.
class ItemBatch : public OrderedWork::Job {
 public:
  struct Piece {
    SourceItem item;
    EncodedItem encoded;
  };

  ItemBatch(EncoderPool& encoders, int partition) : m_encoders(encoders), m_partition(partition) {}

  void Add(SourceItem item, EncodedItem encoded);

  // Whether no more should be added: of descriptors, and of bytes.
  bool IsFull() const;
  std::vector<Piece>& Pieces() { return m_pieces; }

  void Run(size_t worker) override;

 private:
  EncoderPool& m_encoders;
  int m_partition;
  uint64_t m_bytes = 0;
  std::vector<Piece> m_pieces;
};

// A span of a long file. Where one has failed, those behind it need not be encoded.
class SpanJob : public OrderedWork::Job {
 public:
  SpanJob(EncoderPool& encoders, std::shared_ptr<LongFile> file, uint64_t begin)
      : m_encoders(encoders), m_file(std::move(file)), m_begin(begin) {}

  LongFile& File() { return *m_file; }
  uint64_t Begin() const { return m_begin; }
  uint64_t End() const { return std::min<uint64_t>(m_begin + kSpan, m_file->item.status.size); }
  bool IsLast() const { return End() == m_file->item.status.size; }
  EncodedSpan& Encoded() { return m_encoded; }

  void Run(size_t worker) override;

 private:
  EncoderPool& m_encoders;
  std::shared_ptr<LongFile> m_file;
  uint64_t m_begin;
  EncodedSpan m_encoded;
};

}  // namespace capsule::host
