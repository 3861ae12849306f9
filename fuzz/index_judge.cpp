#include "fuzz/index_judge.h"

#include <optional>

#include "capsule/host/error.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/verifier.h"
#include "tests/support/temp_dir.h"

namespace capsule::fuzz {
namespace {

using test::Contents;

// What the commands tell of an image.
struct Told {
  std::string opening;  // the first damage that opening it tells, or nothing
  std::string verify;   // the first fault
  Contents contents;
  bool hasUnread = false;

  bool IsSound() const { return opening.empty() && verify.empty(); }
};

std::string Verify(const std::string& path) {
  std::string first;
  try {
    host::Verifier(path).Run([&](const host::Fault& fault) {
      if (first.empty()) first = fault.path + ": " + fault.reason;
    });
  } catch (const host::Error& error) {
    first = error.Reason();
  }
  return first;
}

Told Ask(const std::string& path) {
  Told told;
  try {
    const host::Image image(path, host::Opening::Salvage);
    const bool lacksIndex = image.Info().indexOffset == 0;
    if (!lacksIndex) told.opening = image.Info().scanReason;
    if (!image.Problems().empty()) told.opening = image.Problems().front().reason;
    told.contents = test::ReadContents(image);
  } catch (const host::Error& error) {
    told.opening = error.Reason();
  }
  told.verify = Verify(path);
  return told;
}

// The first file that is not what it was; nothing when all are.
std::string Difference(const Contents& whole, const Contents& found) {
  for (const auto& [path, contents] : whole) {
    const auto at = found.find(path);
    if (at == found.end()) return path + " is gone";
    if (at->second != contents) return path + " is read as something else";
  }
  for (const auto& [path, contents] : found) {
    if (!whole.contains(path)) return path + " has come";
  }
  return {};
}

std::string StrictProblem(const std::string& path) {
  try {
    const host::Image image(path);
    return {};
  } catch (const host::Error& error) {
    return error.Reason();
  }
}

std::string JudgeWritten(const test::DamageSeed& seed, const std::string& path, const Told& before,
                         bool isToldDamaged) {
  const Told after = Ask(path);
  if (!after.IsSound()) {
    if (isToldDamaged) return {};
    return "index finds nothing wrong, then " + (after.verify.empty()
                                                     ? "list tells: " + after.opening
                                                     : "verify tells: " + after.verify);
  }
  const std::string strict = StrictProblem(path);
  if (!strict.empty()) return "does not open strictly after index: " + strict;
  if (isToldDamaged) return "damage that index told is forgotten";
  const std::string difference = Difference(seed.Whole(), after.contents);
  const bool canBeTold = seed.IsChecked() || !before.IsSound();
  return difference.empty() || !canBeTold ? "" : "sound after index, but " + difference;
}

}  // namespace

IndexJudgement JudgeIndexing(const test::DamageSeed& seed, const std::string& path) {
  const std::string bytes = test::ReadFile(path);
  const Told before = Ask(path);
  bool isToldDamaged = false;
  try {
    host::IndexWriter writer(path);
    isToldDamaged = !writer.Write(host::DamagedSections::IndexWhatIsLeft).problems.empty();
  } catch (const host::Error&) {
    return {false, test::ReadFile(path) == bytes ? "" : "index refuses, but changes the image"};
  }
  return {true, JudgeWritten(seed, path, before, isToldDamaged)};
}

}  // namespace capsule::fuzz
