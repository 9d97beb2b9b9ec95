// What a signal that ends the process removes first.
#pragma once

#include <csignal>
#include <string>

namespace zel::tool {

// SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGXCPU and SIGALRM wait while one of these exists.
class SignalsBlocked {
 public:
  SignalsBlocked();
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked();

 private:
  sigset_t before_;
};

// At most one of each kind is pending. A directory's own entries go with it, folders in it do not.
enum class Pending { File, Directory };

// From now on those signals remove what is at `path` before they end the process; a signal that the caller
// ignores (nohup does that) stays ignored. False when the path is too long. Signals are blocked.
[[nodiscard]] bool removeOnSignal(Pending kind, const std::string& path);

// For commands that write files: that nobody reads what they say is no reason to end halfway. A write to a
// closed pipe fails from now on, and no longer kills.
void ignoreClosedPipes();

// It has been removed, or it stays. Signals are blocked.
void keepOnSignal(Pending kind);

}  // namespace zel::tool
