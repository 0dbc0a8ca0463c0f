#include "platform/pipewire/MetadataGuard.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

extern char** environ;

namespace tarn {

namespace {

// Lines on stdin: "set SUBJECT KEY VALUE", "clear SUBJECT KEY", "done". End of input without
// "done" means the owner is gone: remove what is left, if it still holds the owner's value.
constexpr const char* guardScript = R"(
declare -A entries
while read -r op subject key value; do
  case "$op" in
    set) entries["$subject $key"]="$value" ;;
    clear) unset 'entries["$subject $key"]' ;;
    done) exit 0 ;;
  esac
done
for entry in "${!entries[@]}"; do
  read -r subject key <<<"$entry"
  current=$(pw-metadata -n default "$subject" "$key" 2>/dev/null | sed -n "s/.*key:'$key' value:'\([^']*\)'.*/\1/p")
  if [ "$current" = "${entries[$entry]}" ]; then
    pw-metadata -n default -d "$subject" "$key" >/dev/null 2>&1
  fi
done
)";

} // namespace

std::unique_ptr<MetadataGuard> MetadataGuard::launch() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        throw std::runtime_error(fmt::format("cannot start the metadata guard: {}", std::strerror(errno)));

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setsigmask(&attr, &none);

    const char* argv[] = {"bash", "-c", guardScript, "tarn-metadata-guard", nullptr};
    pid_t pid = 0;
    int rc = posix_spawnp(&pid, "bash", &actions, &attr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        throw std::runtime_error(fmt::format("cannot start the metadata guard: {}", std::strerror(rc)));
    }
    return std::unique_ptr<MetadataGuard>(new MetadataGuard(fds[0], pid));
}

MetadataGuard::~MetadataGuard() { finish(); }

void MetadataGuard::send(const std::string& line) {
    if (socket_ < 0) return;
    size_t done = 0;
    while (done < line.size()) {
        ssize_t n = ::send(socket_, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return; // the guard is gone; nothing more can be done from here
        done += static_cast<size_t>(n);
    }
}

void MetadataGuard::set(uint32_t subject, const std::string& key, const std::string& value) {
    send(fmt::format("set {} {} {}\n", subject, key, value));
}

void MetadataGuard::clear(uint32_t subject, const std::string& key) { send(fmt::format("clear {} {}\n", subject, key)); }

void MetadataGuard::abandon() {
    if (socket_ < 0) return;
    close(socket_);
    socket_ = -1;
}

void MetadataGuard::finish() {
    if (socket_ < 0) return;
    send("done\n");
    close(socket_);
    socket_ = -1;
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
}

} // namespace tarn
