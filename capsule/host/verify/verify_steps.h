// VerifySteps takes what a verification is to tell and what it has still to find out, in order. It
// finds out on threads of its own, and tells on the caller's, in that order.
#pragma once

#include <cstdint>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

#include "capsule/host/map/index_verifier.h"
#include "capsule/host/parallel/ordered_work.h"
#include "capsule/host/verify/file_decoding.h"
#include "capsule/host/verify/telling.h"

namespace capsule::host {

class VerifySteps {
 public:
  // `restarts`: those of the image, by record; they and `telling` must outlive the object.
  VerifySteps(const ImageFile& image, const std::vector<RestartPoint>& restarts, Telling& telling,
              const VerifyOptions& options);

  // Halts what is being found out; nothing more is told.
  ~VerifySteps();
  VerifySteps(const VerifySteps&) = delete;
  VerifySteps& operator=(const VerifySteps&) = delete;

  // Each of these only comes after all that were called before it.
  void AddPlace(uint64_t offset, const std::string& path);  // for progress
  void AddFault(uint64_t offset, const std::string& path, std::string reason);
  void AddUnreadFile();                      // it is counted, and no more
  void AddFile(const RecordSource& source);  // to be decoded
  void AddRegion(CheckedRegion region, const std::string& path);

  // Tells what is ready, and waits where too much is under way or the host wants an end. To be
  // called where a host may end the operation. Throws what ends it: Error, or what the host or its
  // source of bytes has thrown.
  void Proceed();

  // Finds out and tells all that is left.
  void Settle();

  // After something was thrown while steps were taken: tells what came before it, which may throw
  // earlier. Does nothing when the telling itself has thrown.
  void SettleBeforeThrowing();

 private:
  struct Step;
  class Batch;

  Step& Add(uint64_t offset, const std::string& path);
  void AddPart(const RecordSource& source, std::optional<size_t> from, uint64_t end);
  void Submit();
  void TellFirst();
  void Tell(Step& step);
  void TellFile(Step& step);
  void TellEvents(Step& step);

  ImageFile m_image;
  const std::vector<RestartPoint>& m_restarts;
  Telling& m_telling;
  std::stop_token m_stop;
  std::stop_source m_halt;
  std::stop_callback<std::function<void()>> m_onStop;
  std::unique_ptr<Batch> m_batch;
  std::unique_ptr<FileDecoding> m_part;  // the part that was told last
  bool m_isTelling = false;
  OrderedWork m_work;
};

}  // namespace capsule::host
