#include <memory>
#include <nlohmann/json.hpp>

#include "capsule/host/reason.h"
#include "capsule/host/verifier.h"
#include "cli/command.h"
#include "cli/output.h"
#include "cli/text.h"

namespace capsule::cli {
namespace {

struct VerifyArguments {
  std::string image;
  bool json = false;
};

std::string JsonLine(const host::Fault& fault) {
  nlohmann::ordered_json json;
  json["offset"] = fault.offset;
  if (!fault.path.empty()) json["path"] = ToUtf8(fault.path);
  if (!IsUtf8(fault.path)) json["path_hex"] = ToHex(fault.path);
  json["fault"] = ToUtf8(fault.reason);
  return json.dump() + "\n";
}

std::string JsonSummary(const host::VerifyReport& report) {
  nlohmann::ordered_json json;
  json["faults"] = report.faults;
  json["files"] = report.files;
  json["bytes"] = report.bytes;
  json["has_index"] = report.hasIndex;
  json["check_values"] = report.checkValues;
  return json.dump() + "\n";
}

// Faults are what was asked for: they are data.
std::string TextLine(const host::Fault& fault) {
  const std::string path = fault.path.empty() ? "" : ForTerminal(fault.path) + ": ";
  return host::Hex(fault.offset) + ": " + path + ForTerminal(fault.reason) + "\n";
}

int Verify(const VerifyArguments& arguments, Talk& talk) {
  Output output;
  const host::VerifyReport report =
      host::Verifier(arguments.image).Run([&](const host::Fault& fault) {
        output.Write(arguments.json ? JsonLine(fault) : TextLine(fault));
      });
  if (arguments.json) output.Write(JsonSummary(report));
  talk.Summarize(arguments.image + ": " + Counted(report.files, "file", "files") + " read, " +
                 Counted(report.checkValues, "check value", "check values") + " compared" +
                 (report.hasIndex ? "" : ", no index") + ", " +
                 (report.faults == 0 ? "no fault" : Counted(report.faults, "fault", "faults")));
  return report.faults == 0 ? kDone : kProblems;
}

}  // namespace

void DeclareVerify(CLI::App& app, Session& session) {
  auto arguments = std::make_shared<VerifyArguments>();
  CLI::App* command = app.add_subcommand(
      "verify", "Read everything in an image and name each fault: offset, file, what is wrong");
  command->add_option("IMAGE", arguments->image, "The image file")->required();
  command->add_flag("--json", arguments->json, "One JSON object a line, the last one a summary");
  command->callback([arguments, &session] {
    session.run = [arguments, &session] { return Verify(*arguments, session.talk); };
  });
}

}  // namespace capsule::cli
