// What the commands share: how they are declared, and how they end.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

#include "cli/talk.h"

namespace capsule::cli {

// Exit codes; failures to do the job at all arrive as exceptions.
inline constexpr int kDone = 0;
inline constexpr int kProblems = 1;
inline constexpr int kFailed = 2;

struct Session {
  Talk talk;
  std::function<int()> run;  // the chosen command
};

// Each declares one command; parsing its name sets `session.run`.
void DeclareCreate(CLI::App& app, Session& session);
void DeclareList(CLI::App& app, Session& session);
void DeclareExtract(CLI::App& app, Session& session);
void DeclareCat(CLI::App& app, Session& session);
void DeclareInfo(CLI::App& app, Session& session);
void DeclareIndex(CLI::App& app, Session& session);
void DeclareInspect(CLI::App& app, Session& session);
void DeclareVerify(CLI::App& app, Session& session);

}  // namespace capsule::cli
