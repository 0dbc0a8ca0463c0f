#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tarn {

// What the operating system knows of a process beyond the sound server: whether it still runs,
// its parent and its executable. Browsers and many players make their sound in a child process;
// this is how a route tells "the stream closed" from "the application quit", and how the pid a
// user knows (the main window's) finds the child that plays.
//
// Reads /proc; tests substitute their own tree.
class ProcessTree {
public:
    virtual ~ProcessTree() = default;

    virtual bool isAlive(std::int32_t pid) const;
    virtual std::optional<std::int32_t> parent(std::int32_t pid) const;
    // The executable's path, or none when it cannot be read.
    virtual std::optional<std::string> executable(std::int32_t pid) const;

    // True when `ancestor` is `pid` or one of its parents.
    bool isWithin(std::int32_t pid, std::int32_t ancestor) const;
    // The outermost process of the chain of parents that run the same executable as `pid`: the
    // application's main process when a helper of it plays. `pid` itself when nothing is known.
    std::int32_t applicationRoot(std::int32_t pid) const;

    static const ProcessTree& system();

private:
    // Deeper chains than this are not an application's helpers (and guard against a cycle).
    static constexpr int maxDepth = 64;
};

} // namespace tarn
