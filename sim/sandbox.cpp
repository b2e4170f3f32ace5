#include "sim/sandbox.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace vcam {

std::string sandbox_root() {
    const char* r = std::getenv("AFD_ROOT");
    return (r == nullptr || r[0] == '\0') ? std::string("/") : std::string(r);
}

std::string sandbox_path(const std::string& abs_path, bool create_parents) {
    if (abs_path.empty() || abs_path[0] != '/')
        return "";
    std::string root = sandbox_root();
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    const std::string out = root == "/" ? abs_path : root + abs_path;
    if (create_parents) {
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(out).parent_path(), ec);
    }
    return out;
}

}  // namespace vcam
