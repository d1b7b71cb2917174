// Running an outside program with a deadline: no shell, its own process group, and nothing of it
// left running afterwards.
//
// Safe to call from any thread; each call waits for its own child only.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace docadmin {

struct TProcessResult {
    bool Started = false;   // false: the program could not be started (see Error)
    bool TimedOut = false;  // the deadline came first and the group was killed
    int ExitCode = -1;      // the exit status; -1 when it ended by a signal or never ran
    std::string Error;      // why it could not be started
};

// Runs AArgv[0] (a path) with the argument vector AArgv in the folder ADir, stdin from /dev/null,
// stdout and stderr into AOutputFile and no other open file of this process. The environment is
// this process's with the "NAME=value" entries of AEnv put over it. The child leads a process group
// of its own; at the deadline the whole group is killed (SIGKILL), and after a normal end too, so
// that nothing the program started stays behind (a helper that leaves the group with setsid escapes
// this).
TProcessResult RunProcess(const std::vector<std::string>& AArgv, const std::string& ADir,
                          const std::vector<std::string>& AEnv, const std::string& AOutputFile,
                          std::chrono::steady_clock::time_point ADeadline);

// The full path of an executable found on PATH (or the name itself when it contains a '/' and is
// executable); empty when there is none.
std::string FindExecutable(const std::string& AName);

}  // namespace docadmin
