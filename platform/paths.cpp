#include "platform/paths.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace platform {
namespace {

char g_root[kPathMax] = "";
bool g_rootLoaded = false;

void load_root() {
    if (g_rootLoaded)
        return;
    g_rootLoaded = true;
    const char* env = std::getenv(kRootEnv);
    set_file_root(env);
}

bool root_is_slash() {
    return g_root[0] == '/' && g_root[1] == '\0';
}

// mkdir -p for every parent component of path (not the last one).
void make_parents(char* path) {
    for (char* p = path + 1; *p != '\0'; ++p) {
        if (*p != '/')
            continue;
        *p = '\0';
        if (mkdir(path, 0777) != 0 && errno != EEXIST) {
            *p = '/';
            return;
        }
        *p = '/';
    }
}

}  // namespace

const char* file_root() {
    load_root();
    return g_root;
}

void set_file_root(const char* root) {
    g_rootLoaded = true;
    if (root == nullptr || root[0] == '\0') {
        std::strcpy(g_root, "/");
        return;
    }
    std::size_t n = std::strlen(root);
    if (n >= kPathMax)
        n = kPathMax - 1;
    std::memcpy(g_root, root, n);
    g_root[n] = '\0';
    // Drop trailing slashes, but keep a lone "/".
    while (n > 1 && g_root[n - 1] == '/')
        g_root[--n] = '\0';
}

int resolve_path(const char* abs_path, char* out, std::size_t out_len) {
    if (out == nullptr || out_len == 0)
        return -1;
    out[0] = '\0';
    if (abs_path == nullptr || abs_path[0] != '/')
        return -1;
    load_root();
    if (root_is_slash()) {
        std::size_t n = std::strlen(abs_path);
        if (n >= out_len)
            return -1;
        std::memcpy(out, abs_path, n + 1);
        return 0;
    }
    std::size_t rn = std::strlen(g_root);
    std::size_t pn = std::strlen(abs_path);
    if (rn + pn >= out_len)
        return -1;
    std::memcpy(out, g_root, rn);
    std::memcpy(out + rn, abs_path, pn + 1);
    make_parents(out);
    return 0;
}

Path::Path(const char* abs_path) {
    if (resolve_path(abs_path, buf_, sizeof buf_) != 0)
        buf_[0] = '\0';
}

}  // namespace platform
