#include "_KRProcessRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

extern char** environ;

namespace docadmin {

namespace {

std::vector<std::string> MergedEnvironment(const std::vector<std::string>& AEnv) {
    auto key = [](const std::string& e) { return e.substr(0, e.find('=')); };
    std::vector<std::string> env;
    for (char** e = environ; e && *e; ++e) {
        std::string entry(*e);
        const bool replaced = std::any_of(
            AEnv.begin(), AEnv.end(), [&](const std::string& o) { return key(o) == key(entry); });
        if (!replaced) env.push_back(std::move(entry));
    }
    env.insert(env.end(), AEnv.begin(), AEnv.end());
    return env;
}

std::vector<char*> CStrings(std::vector<std::string>& AItems) {
    std::vector<char*> p;
    for (std::string& s : AItems)
        p.push_back(s.data());
    p.push_back(nullptr);
    return p;
}

}  // namespace

TProcessResult RunProcess(const std::vector<std::string>& AArgv, const std::string& ADir,
                          const std::vector<std::string>& AEnv, const std::string& AOutputFile,
                          std::chrono::steady_clock::time_point ADeadline) {
    TProcessResult r;
    if (AArgv.empty()) {
        r.Error = "no program";
        return r;
    }
    std::vector<std::string> args = AArgv;
    std::vector<std::string> env = MergedEnvironment(AEnv);
    std::vector<char*> argv = CStrings(args);
    std::vector<char*> envp = CStrings(env);

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, AOutputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    // Nothing else of this process (listening sockets, database files) reaches the program, which
    // could otherwise hold them after this process has let go.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (!ADir.empty()) posix_spawn_file_actions_addchdir_np(&actions, ADir.c_str());
    // A group of its own, so that a kill reaches everything the program starts; default signal
    // handling and no blocked signals, whatever this process has set up.
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(
        &attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, argv[0], &actions, &attr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        r.Error = std::string("cannot start ") + args[0] + ": " + std::strerror(rc);
        return r;
    }
    r.Started = true;

    int status = 0;
    bool reaped = false;
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        const pid_t w = waitpid(pid, &status, WNOHANG);
        if (w == pid) {
            reaped = true;
            break;
        }
        if (w < 0 && errno != EINTR) break;
        if (std::chrono::steady_clock::now() >= ADeadline) {
            r.TimedOut = true;
            kill(-pid, SIGKILL);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            break;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(20));
    }
    // Whatever of the group is still there goes too. The group's number cannot be taken by a new
    // process while members of it live, so this reaches no stranger.
    kill(-pid, SIGKILL);
    if (reaped && !r.TimedOut && WIFEXITED(status)) r.ExitCode = WEXITSTATUS(status);
    return r;
}

std::string FindExecutable(const std::string& AName) {
    if (AName.empty()) return {};
    if (AName.find('/') != std::string::npos)
        return access(AName.c_str(), X_OK) == 0 ? AName : std::string();
    const char* path = std::getenv("PATH");
    std::string dirs = path && *path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        const size_t end = std::min(dirs.find(':', start), dirs.size());
        std::string dir = dirs.substr(start, end - start);
        if (dir.empty()) dir = ".";
        const std::string candidate = dir + "/" + AName;
        struct stat st {};
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            access(candidate.c_str(), X_OK) == 0)
            return candidate;
        start = end + 1;
    }
    return {};
}

}  // namespace docadmin
