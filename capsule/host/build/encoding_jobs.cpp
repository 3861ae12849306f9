#include "capsule/host/build/encoding_jobs.h"

namespace capsule::host {
namespace {

// So that a batch is worth the change of threads, and neither descriptors nor memory run short.
constexpr size_t kMostItems = 16;
constexpr uint64_t kMostBytes = uint64_t{256} << 10;

}  // namespace

EncoderPool::EncoderPool(size_t workers, int level, int64_t latest) {
  for (size_t i = 0; i <= workers; ++i) {
    m_encoders.push_back(std::make_unique<ItemEncoder>(level, latest));
  }
}

void ItemBatch::Add(SourceItem item, EncodedItem encoded) {
  m_bytes += item.status.size + encoded.bytes.size();
  m_pieces.push_back({std::move(item), std::move(encoded)});
}

bool ItemBatch::IsFull() const { return m_pieces.size() >= kMostItems || m_bytes >= kMostBytes; }

void ItemBatch::Run(size_t worker) {
  for (Piece& piece : m_pieces) {
    const bool isToDo = piece.item.kind == SourceItem::Kind::File && piece.encoded.problem.empty();
    if (!isToDo) continue;
    piece.encoded = m_encoders.Of(worker).Encode(piece.item, m_partition);
    piece.item.file.Close();
  }
}

void SpanJob::Run(size_t worker) {
  uint64_t failedAt = m_file->failedAt;
  if (failedAt < m_begin) return;
  m_encoded = m_encoders.Of(worker).EncodeSpan(*m_file, m_begin);
  if (m_encoded.problem.empty()) return;
  while (m_begin < failedAt && !m_file->failedAt.compare_exchange_weak(failedAt, m_begin)) {
  }
}

}  // namespace capsule::host
