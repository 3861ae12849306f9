// Builds an image of one or more folders and tells how far it has come.
// Usage: build_image IMAGE FOLDER...
#include <capsule/host/image_builder.h>

#include <cstdint>
#include <cstdio>
#include <exception>

namespace {

int Build(int count, char** arguments) {
  capsule::host::BuildOptions options;
  options.level = 9;
  options.onProgress = [](const capsule::host::Progress& progress) {
    std::fprintf(stderr, "%9ju bytes  %s\n", static_cast<uintmax_t>(progress.bytesDone),
                 progress.path.c_str());
  };

  capsule::host::ImageBuilder builder(arguments[1], options);
  for (int i = 2; i < count; ++i) builder.AddDirectory(arguments[i]);
  const capsule::host::BuildReport report = builder.Finish();

  for (const capsule::host::BuildProblem& problem : report.problems) {
    std::fprintf(stderr, "left out: %s: %s\n", problem.path.c_str(), problem.reason.c_str());
  }
  std::printf("%ju files, %ju bytes, in an image of %ju bytes\n",
              static_cast<uintmax_t>(report.files), static_cast<uintmax_t>(report.sourceBytes),
              static_cast<uintmax_t>(report.imageBytes));
  return report.problems.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: build_image IMAGE FOLDER...\n", stderr);
    return 2;
  }
  try {
    return Build(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
