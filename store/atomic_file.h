// Crash-safe replacement of a small file.
//
// The calibration files live on flash that can lose power at any moment (the camera is simply
// unplugged). Writing a file in place ("w+" truncates first) leaves a short, torn file after such a
// cut. Instead the new contents go to a temporary file in the same directory, which is flushed and
// fsync'ed, then renamed over the old name (atomic on POSIX file systems), and finally the
// directory is fsync'ed so that the rename itself is durable. A cut at any point leaves either the
// complete old file or the complete new one; at worst a stale temporary, which the next save
// overwrites and no reader ever looks at.
#pragma once

#include <cstddef>

enum AtomicWriteResult {
    kAtomicOk = 0,
    kAtomicOpenFailed = -1,   // the temporary could not be created
    kAtomicWriteFailed = -2,  // writing, syncing or renaming failed; the old file is untouched
};

// abs_path is a daemon path ("/data/curve.dat"); it resolves under the file root.
int atomic_file_write(const char* abs_path, const void* data, std::size_t len);

// Steps of a save, in order. A test can end the process right after one of them to prove that
// every interruption leaves a readable file.
enum AtomicStep {
    kStepTempOpened = 1,
    kStepFirstHalfWritten,
    kStepAllWritten,
    kStepFileSynced,
    kStepClosed,
    kStepRenamed,
    kStepDirSynced,
    kStepCount = kStepDirSynced,
};
// When step is non-zero, the next saves call _exit(exit_code) right after that step.
void atomic_file_exit_after_step_for_testing(int step, int exit_code);
