// Saves every calibration file of the daemon over and over, for the kill-during-save trials
// (kill_during_save.py): a process that is killed at a random moment is almost always in the
// middle of one of these saves.
//
//   save_storm EXPECTED_DIR
//
// The file root is AFD_ROOT, as for the daemon. It first writes every file in form A and copies
// the result to EXPECTED_DIR/A, then form B to EXPECTED_DIR/B, prints "ready" and from then on
// alternates between the two forms until it is killed. Whenever the process dies, each file must
// hold its A or its B content, completely.
#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/paths.h"
#include "store/lens_data.h"
#include "store/offsets.h"

namespace {

const char* const kFiles[] = {kCurveFilePath, kLensParamPath, kIrisFilePath, kOffsetFilePath,
                              kVersionFilePath};

// Form 0 or 1 of every file; the two differ in every file but the version file, whose content is
// fixed (it is still rewritten, and must never be torn).
bool save_all(int form) {
    uint16_t curve[kCurveEntries];
    for (int i = 0; i < kCurveEntries - 1; ++i)
        curve[i] = static_cast<uint16_t>(6000 - 25 * i + form * 7);
    curve[kCurveEntries - 1] = form == 0 ? kCurveRefPointForm : kCurveFullForm;
    uint16_t params[kLensParamEntries];
    for (int i = 0; i < kLensParamEntries; ++i)
        params[i] = static_cast<uint16_t>(i * 3 + form);
    uint16_t iris[13];
    for (int i = 0; i < 13; ++i)
        iris[i] = static_cast<uint16_t>(1023 - i * (70 + form * 5));
    bool ok = curve_file_write(curve, kCurveEntries) == 1;
    ok = lens_param_write(params, kLensParamEntries) == 1 && ok;
    ok = iris_file_write(iris, 13) == 0 && ok;
    // One key: two keys saved one after the other could be caught between them, a whole file
    // that is neither form.
    offset_save_by_key("FOCUS_OFFSET =", form == 0 ? 4 : 11);
    ok = version_write() == 0 && ok;
    return ok;
}

bool copy_file(const std::string& from, const std::string& to) {
    FILE* in = std::fopen(from.c_str(), "rb");
    FILE* out = std::fopen(to.c_str(), "wb");
    bool ok = in != nullptr && out != nullptr;
    char buf[4096];
    size_t n;
    while (ok && (n = std::fread(buf, 1, sizeof buf, in)) > 0)
        ok = std::fwrite(buf, 1, n, out) == n;
    if (in != nullptr)
        std::fclose(in);
    if (out != nullptr)
        ok = std::fclose(out) == 0 && ok;
    return ok;
}

bool keep_expected(const std::string& dir, const char* form) {
    const std::string d = dir + "/" + form;
    if (mkdir(d.c_str(), 0755) != 0 && errno != EEXIST)
        return false;
    for (const char* f : kFiles) {
        char resolved[512];
        platform::resolve_path(f, resolved, sizeof resolved);
        if (!copy_file(resolved, d + "/" + (std::strrchr(f, '/') + 1)))
            return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: save_storm EXPECTED_DIR (file root from AFD_ROOT)\n");
        return 2;
    }
    if (!save_all(0) || !keep_expected(argv[1], "A") || !save_all(1) ||
        !keep_expected(argv[1], "B")) {
        std::fprintf(stderr, "save_storm: could not write the two forms\n");
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    for (int form = 0;; form ^= 1)
        save_all(form);
}
