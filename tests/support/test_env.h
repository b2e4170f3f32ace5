// Shared helpers for the daemon's unit tests.
#pragma once

#include <string>

namespace testsupport {

// A fresh sandbox directory used as the daemon's file root for the lifetime of the object.
class SandboxRoot {
  public:
    SandboxRoot();
    ~SandboxRoot();
    SandboxRoot(const SandboxRoot&) = delete;
    SandboxRoot& operator=(const SandboxRoot&) = delete;

    const std::string& path() const { return path_; }
    // Absolute daemon path ("/dev/x") as it lies on the desktop.
    std::string host(const std::string& abs_path) const { return path_ + abs_path; }

  private:
    std::string path_;
};

// Runs fn with standard output captured; returns what was printed.
template <typename Fn>
std::string capture_stdout(Fn fn);

std::string begin_capture_stdout();
std::string end_capture_stdout();

template <typename Fn>
std::string capture_stdout(Fn fn) {
    begin_capture_stdout();
    fn();
    return end_capture_stdout();
}

}  // namespace testsupport
