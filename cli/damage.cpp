#include "cli/damage.h"

#include "cli/json_object.h"

namespace capsule::cli {
void AddDamageOption(Arguments& command, std::string& choice) {
  command.Word("--on-damage", choice, {"stop", "skip", "zero"},
               "Damaged files: stop leaves them out; skip leaves out what is lost of them, and "
               "zero puts zeros in its place");
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
  return JsonObject()
      .Path(path)
      .Text("state", lost.isUncertain ? "uncertain" : "lost")
      .Number("offset", lost.offset)
      .Number("length", lost.length)
      .Text("reason", lost.reason)
      .Line();
}

std::string FailedJson(const std::string& path, const std::string& reason) {
  return JsonObject().Path(path).Text("state", "failed").Text("reason", reason).Line();
}

}  // namespace capsule::cli
