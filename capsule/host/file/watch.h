// Watch stands between a long operation and the host that waits for it: it hands on how far the
// operation has come, and ends it when the host has had enough.
#pragma once

#include <algorithm>
#include <cstdint>
#include <stop_token>
#include <string>
#include <utility>

#include "capsule/host/error.h"
#include "capsule/host/progress.h"

namespace capsule::host {

class Watch {
 public:
  // `name`: what the operation is about, for the error that ends it.
  Watch(std::string name, OnProgress onProgress, std::stop_token stop)
      : m_name(std::move(name)), m_onProgress(std::move(onProgress)), m_stop(std::move(stop)) {}

  // Whether anybody wants to know, so that what only they need can be spared.
  bool IsHeard() const { return m_onProgress != nullptr; }

  // Whether `error` ends the operation: it is cancelled, something ran out, or the host threw it.
  bool IsEnd(const Error& error) const {
    return m_hasThrown || error.Kind() == ErrorKind::Cancelled ||
           dynamic_cast<const ShortageError*>(&error) != nullptr;
  }

  // To be kept up to date by the operation; bytesDone by Tell.
  Progress& Now() { return m_now; }

  // Nothing is done yet, of so many bytes.
  void Restart(uint64_t bytesTotal) {
    m_now = {.bytesTotal = bytesTotal};
    m_hasThrown = false;
  }

  // Throws Error (ErrorKind::Cancelled) when the host wants the operation to end.
  void Check() const {
    if (m_stop.stop_requested()) throw Error(ErrorKind::Cancelled, m_name, "cancelled");
  }

  // The operation has come to `bytesDone`, and is at `path`. Checks, too.
  void Tell(uint64_t bytesDone, const std::string& path) {
    Check();
    if (!m_onProgress) return;
    m_now.path = path;
    m_now.bytesDone = std::max(m_now.bytesDone, bytesDone);
    // What is counted first may grow until it is read.
    if (m_now.bytesTotal != 0) m_now.bytesTotal = std::max(m_now.bytesTotal, m_now.bytesDone);
    m_hasThrown = true;
    m_onProgress(m_now);
    m_hasThrown = false;
    Check();
  }

  // The same within an item, where not every step is worth telling.
  void TellWithin(uint64_t bytesDone, const std::string& path) {
    Check();
    if (bytesDone >= m_now.bytesDone + kStep || path != m_now.path) Tell(bytesDone, path);
  }

 private:
  static constexpr uint64_t kStep = uint64_t{64} << 10;

  std::string m_name;
  OnProgress m_onProgress;
  std::stop_token m_stop;
  Progress m_now;
  bool m_hasThrown = false;  // the host
};

}  // namespace capsule::host
