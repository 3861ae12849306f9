#include "fuzz/index_judge.h"

#include <set>

#include "capsule/host/error.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/verifier.h"
#include "tests/support/temp_dir.h"

namespace capsule::fuzz {
namespace {

using test::Contents;

// What the commands tell of an image.
struct Told {
  std::string opening;          // the first damage that opening it tells, or nothing
  std::string verify;           // the first fault
  std::set<std::string> paths;  // of all that is told
  Contents contents;

  bool IsSound() const { return opening.empty() && verify.empty(); }
};

void Verify(const std::string& path, Told* told) {
  try {
    static_cast<void>(host::Verifier(path).Run([&](const host::Fault& fault) {
      if (told->verify.empty()) told->verify = fault.path + ": " + fault.reason;
      told->paths.insert(fault.path);
    }));
  } catch (const host::Error& error) {
    told->verify = error.Reason();
  }
}

Told Ask(const std::string& path) {
  Told told;
  try {
    const host::Image image(path, host::Opening::Salvage);
    const bool lacksIndex = image.Info().indexOffset == 0;
    if (!lacksIndex) told.opening = image.Info().scanReason;
    for (const host::ImageProblem& problem : image.Problems()) {
      told.opening = problem.reason;
      told.paths.insert(problem.path);
    }
    told.contents = test::ReadContents(image);
  } catch (const host::Error& error) {
    told.opening = error.Reason();
  }
  Verify(path, &told);
  return told;
}

// What is read at `path`, if anything.
std::string At(const Contents& contents, const std::string& path) {
  const auto at = contents.find(path);
  return at == contents.end() ? "" : at->second;
}

// The first file that is not what it was, though that can be told: by a check value, or because it
// was told before, or was read otherwise then. Nothing when there is none.
std::string Difference(const test::DamageSeed& seed, const Told& before, const Contents& after) {
  Contents all = seed.Whole();
  all.insert(after.begin(), after.end());
  for (const auto& [path, contents] : all) {
    const std::string now = At(after, path);
    const bool isSame =
        seed.Whole().contains(path) == after.contains(path) && At(seed.Whole(), path) == now;
    const bool canBeTold =
        seed.IsChecked() || before.paths.contains(path) || At(before.contents, path) != now;
    if (!isSame && canBeTold) return path;
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
  const std::string difference = Difference(seed, before, after.contents);
  return difference.empty() ? "" : "sound after index, but not what it was: " + difference;
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
