// The bytes are summed up as they pass. Bytes from any other place than the next one wanted are
// ignored, so after a leap the sum stays incomplete and is never compared.
#include "capsule/host/records/content_check.h"

#include <algorithm>

#include "capsule/container/index_format.h"
#include "capsule/host/file/reason.h"

namespace capsule::host {

ContentCheck::ContentCheck(const FileCheck& check)
    : m_check(check), m_sum(std::make_unique<RunningChecksum>()) {
  Restart();
}

void ContentCheck::Take(uint64_t offset, std::span<const unsigned char> bytes) {
  if (offset != m_next) return;
  if (m_next == m_check.offset) m_sum->Reset();
  const auto count = std::min<uint64_t>(bytes.size(), End() - m_next);
  m_sum->Update(bytes.first(static_cast<size_t>(count)));
  m_next += count;
}

std::string ContentCheck::Judge() const {
  const uint64_t found = m_sum->Value();
  if (found == m_check.value) return {};
  return "check value of the item at " + Hex(m_check.offset) + " is " +
         ChecksumDigits(m_check.value) + ", its " + std::to_string(m_check.length) +
         " bytes give " + ChecksumDigits(found);
}

}  // namespace capsule::host
