// Damaged files, as `extract` and `cat` treat and tell them.
#pragma once

#include <string>

#include "capsule/host/damaged_file.h"
#include "cli/command_line.h"

namespace capsule::cli {

// Declares --on-damage; `choice` becomes one of its words.
void AddDamageOption(Arguments& command, std::string& choice);
host::OnDamage DamageChoice(const std::string& choice);

// "0:/a.txt: bytes 8192 to 16384 lost: reason"
std::string LostText(const std::string& path, const host::LostRange& lost);

// {"path": …, "state": "lost" or "uncertain", "offset": …, "length": …, "reason": …}, a line.
std::string LostJson(const std::string& path, const host::LostRange& lost);

// The same for a file that was not written: {"path": …, "state": "failed", "reason": …}.
std::string FailedJson(const std::string& path, const std::string& reason);

}  // namespace capsule::cli
