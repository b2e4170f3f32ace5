#include "tests/support/test_env.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "base/dbgout.h"
#include "platform/paths.h"

namespace testsupport {

SandboxRoot::SandboxRoot() {
    char tmpl[] = "/tmp/afd-test-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    path_ = dir != nullptr ? dir : "/tmp/afd-test-fallback";
    platform::set_file_root(path_.c_str());
    dbg_reset_for_testing();
}

SandboxRoot::~SandboxRoot() {
    dbg_reset_for_testing();
    platform::set_file_root(nullptr);
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string begin_capture_stdout() {
    std::fflush(stdout);
    testing::internal::CaptureStdout();
    return {};
}

std::string end_capture_stdout() {
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

}  // namespace testsupport
