#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>

namespace tarn {

// Keeps the session-manager metadata this process sets from outliving it.
//
// A route moves an application's streams by writing `target.object` entries into the "default"
// metadata, which belongs to the session manager, not to us: if this process dies, nothing would
// remove them. The guard is a small watchdog process in its own session (so a Ctrl-C aimed at us
// does not reach it) that is told every entry we set and clear. When its connection to us closes
// without a clean `finish()` (we crashed or were killed), it removes the entries that still hold
// the value we wrote, with the stock `pw-metadata` tool, and exits.
class MetadataGuard {
public:
    // Throws std::runtime_error when the watchdog cannot be started.
    static std::unique_ptr<MetadataGuard> launch();
    ~MetadataGuard();
    MetadataGuard(const MetadataGuard&) = delete;
    MetadataGuard& operator=(const MetadataGuard&) = delete;

    void set(uint32_t subject, const std::string& key, const std::string& value);
    void clear(uint32_t subject, const std::string& key);
    // Everything was cleared by us: the watchdog exits without touching anything.
    void finish();
    // We could not clear our entries (the daemon stopped answering): let the watchdog do it.
    void abandon();

    pid_t pid() const { return pid_; }

private:
    MetadataGuard(int socket, pid_t pid) : socket_(socket), pid_(pid) {}
    void send(const std::string& line);

    int socket_ = -1;
    pid_t pid_ = 0;
};

} // namespace tarn
