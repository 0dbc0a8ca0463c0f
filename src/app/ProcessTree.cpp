#include "app/ProcessTree.hpp"

#include <cerrno>
#include <filesystem>
#include <cstdio>
#include <fstream>
#include <string>

#include <signal.h>

namespace tarn {

namespace {

struct Stat {
    char state = 0;
    long ppid = 0;
};

std::optional<Stat> readStat(std::int32_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return std::nullopt;
    // "pid (comm) state ppid ...": comm may hold spaces and parentheses, so look after the last ')'.
    const auto close = line.rfind(')');
    Stat stat;
    if (close == std::string::npos || std::sscanf(line.c_str() + close + 1, " %c %ld", &stat.state, &stat.ppid) != 2)
        return std::nullopt;
    return stat;
}

} // namespace

bool ProcessTree::isAlive(std::int32_t pid) const {
    if (pid <= 0) return false;
    // EPERM means it exists but belongs to someone else.
    if (::kill(pid, 0) != 0 && errno != EPERM) return false;
    // A process that has exited but whose parent has not collected it yet plays nothing any more.
    const auto stat = readStat(pid);
    return !stat || (stat->state != 'Z' && stat->state != 'X');
}

std::optional<std::int32_t> ProcessTree::parent(std::int32_t pid) const {
    if (pid <= 0) return std::nullopt;
    const auto stat = readStat(pid);
    if (!stat || stat->ppid <= 0) return std::nullopt;
    return static_cast<std::int32_t>(stat->ppid);
}

std::optional<std::string> ProcessTree::executable(std::int32_t pid) const {
    if (pid <= 0) return std::nullopt;
    std::error_code ec;
    auto path = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
    if (ec) return std::nullopt;
    return path.string();
}

bool ProcessTree::isWithin(std::int32_t pid, std::int32_t ancestor) const {
    if (pid <= 0 || ancestor <= 0) return false;
    for (int depth = 0; depth < maxDepth; ++depth) {
        if (pid == ancestor) return true;
        auto up = parent(pid);
        if (!up || *up == pid) return false;
        pid = *up;
    }
    return false;
}

std::int32_t ProcessTree::applicationRoot(std::int32_t pid) const {
    const auto exe = executable(pid);
    if (!exe) return pid;
    std::int32_t root = pid;
    for (int depth = 0; depth < maxDepth; ++depth) {
        auto up = parent(root);
        if (!up || *up <= 1 || *up == root || executable(*up) != exe) break;
        root = *up;
    }
    return root;
}

const ProcessTree& ProcessTree::system() {
    static const ProcessTree tree;
    return tree;
}

} // namespace tarn
