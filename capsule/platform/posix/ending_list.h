// EndingList holds the unfinished files of the process, which go when a signal ends it.
//
// 1. The list changes, and its files come and go, within scopes. A signal that comes meanwhile ends
//    the process when the last scope ends.
// 2. A signal that comes outside of scopes finds the list at rest, and no scope begins any more.
#pragma once

namespace capsule::platform {

class UnfinishedFile;

class EndingList {
 public:
  class Scope {
   public:
    Scope();
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
  };

  // Within a scope, from any thread.
  static void Add(UnfinishedFile& file);
  static void Take(UnfinishedFile& file);

  // The handler of the signals that end the process.
  static void OnSignal(int signal);

 private:
  static void Leave();
  [[noreturn]] static void End(int signal);
};

}  // namespace capsule::platform
