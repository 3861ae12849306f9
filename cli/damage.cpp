#include "cli/damage.h"

#include <nlohmann/json.hpp>

#include "cli/text.h"

namespace capsule::cli {
namespace {

nlohmann::ordered_json ForPath(const std::string& path, const char* state) {
  nlohmann::ordered_json json;
  json["path"] = ToUtf8(path);
  if (!IsUtf8(path)) json["path_hex"] = ToHex(path);
  json["state"] = state;
  return json;
}

}  // namespace

void AddDamageOption(CLI::App& command, std::string& choice) {
  command
      .add_option("--on-damage", choice,
                  "Damaged files: stop leaves them out; skip leaves out what is lost of them, and "
                  "zero puts zeros in its place")
      ->type_name("stop|skip|zero")
      ->check(CLI::IsMember({"stop", "skip", "zero"}).description(""))
      ->capture_default_str();
}

host::OnDamage DamageChoice(const std::string& choice) {
  if (choice == "skip") return host::OnDamage::Skip;
  return choice == "zero" ? host::OnDamage::Zero : host::OnDamage::Stop;
}

std::string LostText(const std::string& path, const host::LostRange& lost) {
  return path + ": bytes " + std::to_string(lost.offset) + " to " +
         std::to_string(lost.offset + lost.length) +
         (lost.isUncertain ? " uncertain: " : " lost: ") + lost.reason;
}

std::string LostJson(const std::string& path, const host::LostRange& lost) {
  nlohmann::ordered_json json = ForPath(path, lost.isUncertain ? "uncertain" : "lost");
  json["offset"] = lost.offset;
  json["length"] = lost.length;
  json["reason"] = ToUtf8(lost.reason);
  return json.dump() + "\n";
}

std::string FailedJson(const std::string& path, const std::string& reason) {
  nlohmann::ordered_json json = ForPath(path, "failed");
  json["reason"] = ToUtf8(reason);
  return json.dump() + "\n";
}

}  // namespace capsule::cli
