// Files vcam provides for the daemon (lens data files, device files) live at the daemon's
// absolute paths. On a desktop they go below a sandbox directory named by AFD_ROOT, the same
// root the daemon resolves its paths against, so neither program touches the real /dev or /data.
#pragma once

#include <string>

namespace vcam {

// The sandbox root in force: AFD_ROOT, or "/" when unset or empty.
std::string sandbox_root();

// Host path of an absolute camera path ("/data/curve.dat" -> "$AFD_ROOT/data/curve.dat").
// Returns "" for a relative path. With create_parents, the missing parent directories are made.
std::string sandbox_path(const std::string& abs_path, bool create_parents = false);

}  // namespace vcam
