// Bytes go out as they are decoded. Zeros for what is lost are written in pieces, so their memory
// does not depend on what an entry claims.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "cli/command.h"
#include "cli/damage.h"
#include "cli/opening.h"
#include "cli/output.h"

namespace capsule::cli {
namespace {

constexpr size_t kPiece = size_t{128} * 1024;

struct CatArguments {
  std::string image;
  std::string path;
  uint64_t offset = 0;
  uint64_t length = std::numeric_limits<uint64_t>::max();
  std::string onDamage = "stop";
  bool json = false;
};

void WriteZeros(uint64_t count, Output& output) {
  const std::vector<unsigned char> zeros(kPiece);
  for (; count != 0; count -= std::min<uint64_t>(count, zeros.size())) {
    output.Write(std::span(zeros).first(static_cast<size_t>(std::min<uint64_t>(count, kPiece))));
  }
}

int Cat(const CatArguments& arguments, Talk& talk) {
  const host::Image image = OpenImage(arguments.image);
  const host::Entry entry = FindOrFail(image, arguments.path);
  if (arguments.offset > entry.Size()) {
    throw host::Error(host::ErrorKind::Misuse, image.Path(),
                      entry.Path() + ": offset is " + std::to_string(arguments.offset) +
                          ", the file has " + std::to_string(entry.Size()) + " bytes");
  }
  int result = ComplainAboutProblems(image, talk);
  Output output;
  const auto write = [&](std::span<const unsigned char> bytes, uint64_t zeros) {
    zeros == 0 ? output.Write(bytes) : WriteZeros(zeros, output);
  };
  const auto tell = [&](const host::LostRange& lost) {
    result = std::max<int>(result, kProblems);
    if (arguments.json) {
      talk.WriteLine(LostJson(entry.Path(), lost));
    } else {
      talk.Complain(image.Path(), LostText(entry.Path(), lost));
    }
  };
  image.CopyLeft(entry, arguments.offset, arguments.length, DamageChoice(arguments.onDamage), write,
                 tell);
  return result;
}

}  // namespace

void DeclareCat(CommandLine& line) {
  auto arguments = std::make_shared<CatArguments>();
  Arguments command = line.Add("cat", "Write a file of an image to standard output",
                               [arguments](Talk& talk) { return Cat(*arguments, talk); });
  command.Required("IMAGE", arguments->image, "The image file");
  command.Required("PATH", arguments->path, "The file in it");
  command.Number("--offset", arguments->offset, "First byte to write");
  command.Number("--length", arguments->length, "How many bytes at most");
  AddDamageOption(command, arguments->onDamage);
  command.Flag("--json", arguments->json, "What is lost on standard error, one JSON object a line");
}

}  // namespace capsule::cli
