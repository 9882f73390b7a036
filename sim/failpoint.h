// Failpoints for crash tests: KELSIM_FAILPOINT=<step> makes the process kill itself
// (SIGKILL) when it reaches that step, so that a test can stop a run at an exact moment.
#pragma once

namespace kelsim {

// The steps a failpoint can name.
namespace failpoint_step {
constexpr const char *kMidWrite = "mid-write";         // blocks written, the transaction still open
constexpr const char *kBeforeCommit = "before-commit"; // every statement done, COMMIT not yet run
constexpr const char *kCommit = "commit";              // COMMIT has written its first database page
} // namespace failpoint_step

// True when KELSIM_FAILPOINT names this step.
bool failpointArmed(const char *step);
// Kills the process with SIGKILL when KELSIM_FAILPOINT names this step.
void failpoint(const char *step);

} // namespace kelsim
