// File root: every absolute path the daemon touches (/dev/..., /data/...) goes through here.
// On the board the root is "/" and paths are used as they are. On a desktop, under the virtual
// camera or in tests, AFD_ROOT names a sandbox directory and every path resolves below it, so the
// daemon never writes the real /dev or /data there.
#pragma once

#include <cstddef>

namespace platform {

inline constexpr const char* kRootEnv = "AFD_ROOT";
inline constexpr std::size_t kPathMax = 512;

// Root directory in force ("/" by default). Read from the environment on first use.
const char* file_root();

// Replaces the root (tests, tools). nullptr or "" restores "/". Not thread-safe: call it before
// the daemon's threads start.
void set_file_root(const char* root);

// Resolves an absolute path under the root into out (size out_len, NUL-terminated). Under a
// non-"/" root the missing parent directories of the result are created. Returns 0, or -1 when
// the path is relative or does not fit.
int resolve_path(const char* abs_path, char* out, std::size_t out_len);

// Fixed-size path holder for call sites that want a one-liner:
//   platform::Path p("/data/curve.dat"); fopen(p.c_str(), "rb");
// c_str() is "" when resolution failed, which makes the following open fail as a missing file.
class Path {
  public:
    explicit Path(const char* abs_path);
    const char* c_str() const { return buf_; }
    bool ok() const { return buf_[0] != '\0'; }

  private:
    char buf_[kPathMax];
};

}  // namespace platform
