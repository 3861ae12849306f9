// What the commands share: how they are declared, and how they end.
#pragma once

#include <memory>

#include "cli/command_line.h"
#include "cli/talk.h"

namespace capsule::cli {

// Exit codes; failures to do the job at all arrive as exceptions.
inline constexpr int kDone = 0;
inline constexpr int kProblems = 1;
inline constexpr int kFailed = 2;

// Each declares one command.
void DeclareCreate(CommandLine& line);
void DeclareList(CommandLine& line);
void DeclareExtract(CommandLine& line);
void DeclareCat(CommandLine& line);
void DeclareInfo(CommandLine& line);
void DeclareIndex(CommandLine& line);
void DeclareInspect(CommandLine& line);
void DeclareVerify(CommandLine& line);

}  // namespace capsule::cli
