#include "support/ProcessRunner.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tarn::test {
namespace {

std::string slurp(int fd) {
    std::string text;
    ::lseek(fd, 0, SEEK_SET);
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
    return text;
}

int anonymousFile() {
    char name[] = "/tmp/tarn-test-output-XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd >= 0) ::unlink(name);
    return fd;
}

} // namespace

ProcessResult runProcess(const std::vector<std::string>& arguments) {
    ProcessResult result;
    const int out = anonymousFile(), err = anonymousFile();
    if (out < 0 || err < 0) return result;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

    std::vector<char*> argv;
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    result.standardOutput = slurp(out);
    result.standardError = slurp(err);
    ::close(out);
    ::close(err);
    return result;
}

bool hasProgram(const std::string& name) {
    return runProcess({"sh", "-c", "command -v " + name + " >/dev/null 2>&1"}).exitCode == 0;
}

} // namespace tarn::test
