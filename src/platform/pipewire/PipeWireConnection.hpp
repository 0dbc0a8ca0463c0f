#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_registry;

namespace tarn {

// A PipeWire failure with the negative errno that PipeWire reported (or chose for a timeout).
struct PipeWireError : std::runtime_error {
    int status;
    PipeWireError(int statusCode, const std::string& message)
        : std::runtime_error(message), status(statusCode) {}
};

// Key/value properties as PipeWire describes objects.
using PipeWireProperties = std::map<std::string, std::string>;

// What the registry told us about one node, completed by its info events.
struct PipeWireNodeRecord {
    uint32_t id = 0;
    uint64_t serial = 0;
    uint32_t clientID = 0;         // 0 when the daemon itself owns the node
    PipeWireProperties props;      // the node's full properties once its info has arrived
    std::string state;             // "creating", "suspended", "idle", "running" or "error"
    bool hasInfo = false;          // full properties and state are known
    uint32_t inputPortCount = 0;   // ports facing the graph, for sinks without audio.channels
    std::vector<std::string> inputPortChannels;

    std::string prop(const std::string& key) const;
    std::string mediaClass() const { return prop("media.class"); }
    // Created by a Tarn process (its capture sinks and streams).
    bool isTarnNode() const { return props.count("tarn.role") != 0; }
};

// One port of a node, as the registry announced it.
struct PipeWirePortRecord {
    uint32_t id = 0;
    uint32_t nodeID = 0;
    uint32_t index = 0;     // port.id: the port's place among its node's ports of one direction
    bool isOutput = false;
    bool isMonitor = false; // a sink's monitor output
    std::string channel;    // audio.channel, empty when the port has none
};

struct PipeWireClientRecord {
    uint32_t id = 0;
    PipeWireProperties props;
    bool hasInfo = false;
};

// One consistent picture of the graph, copied out under the loop's lock.
struct PipeWireGraph {
    std::vector<PipeWireNodeRecord> nodes; // in registry order (ascending id)
    std::map<uint32_t, PipeWireClientRecord> clients;
    std::string defaultSinkName;           // node.name from "default.audio.sink", empty when unset
    bool hasDefaultMetadata = false;
    uint32_t defaultMetadataPermissions = 0;
    std::vector<std::string> factories;
    // The graph's clock from the daemon's "settings" metadata (PipeWire's defaults when absent).
    uint32_t clockRate = 48000;
    uint32_t quantum = 1024;
    uint32_t minQuantum = 32;
    uint32_t maxQuantum = 2048;

    const PipeWireNodeRecord* node(uint32_t id) const;
    const PipeWireNodeRecord* nodeNamed(const std::string& nodeName) const;
    const PipeWireClientRecord* client(uint32_t id) const;
};

// The one connection of this process to the PipeWire daemon: a thread loop, a context, a core and
// the registry, with a live model of nodes, clients and the session manager's "default" metadata.
// Everything that touches PipeWire objects runs either on the loop thread (events) or under
// `Lock`; the model is only read under the same lock.
class PipeWireConnection {
public:
    // Connects to the daemon named by the environment (PIPEWIRE_REMOTE / XDG_RUNTIME_DIR) and waits
    // until the registry's first round of globals and their infos has arrived.
    // Throws PipeWireError when no daemon answers.
    static std::shared_ptr<PipeWireConnection> connect(std::chrono::milliseconds timeout = std::chrono::seconds(5));

    ~PipeWireConnection();
    PipeWireConnection(const PipeWireConnection&) = delete;
    PipeWireConnection& operator=(const PipeWireConnection&) = delete;

    // Holds the loop's lock: PipeWire calls from the control thread go inside one of these.
    class Lock {
    public:
        explicit Lock(PipeWireConnection& connection);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        PipeWireConnection& connection_;
    };

    PipeWireGraph graph() const;

    // Called on the loop thread after any change of nodes, their state or the default sink.
    // Returns a token for removeListener. Listeners must not block.
    int addListener(std::function<void()> listener);
    void removeListener(int token);

    // Round trip to the daemon so that everything it sent before is processed (loop lock not held).
    void sync(std::chrono::milliseconds timeout = std::chrono::seconds(3));

    // Waits (lock held by the caller through Lock) until `done` is true, re-testing it after every
    // event. Returns false on timeout.
    bool waitLocked(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    // Sets (value present) or removes an entry of the session manager's "default" metadata.
    // Caller holds the lock. Returns a negative errno when there is no such metadata.
    int setDefaultMetadataLocked(uint32_t subject, const std::string& key, const std::optional<std::string>& value,
                                 const std::string& type = "");
    std::optional<std::string> defaultMetadataValueLocked(uint32_t subject, const std::string& key) const;

    // The ports of one node known so far, in announcement order. Caller holds the lock.
    std::vector<PipeWirePortRecord> portsLocked(uint32_t nodeID) const;

    // The last fatal error of the connection (daemon gone), 0 when fine.
    int connectionError() const;

    pw_thread_loop* threadLoop() const { return loop_; }
    pw_core* core() const { return core_; }
    pw_context* context() const { return context_; }

    struct Impl;

private:
    PipeWireConnection();
    void notifyLocked();

    pw_thread_loop* loop_ = nullptr;
    pw_context* context_ = nullptr;
    pw_core* core_ = nullptr;
    pw_registry* registry_ = nullptr;
    std::unique_ptr<Impl> impl_;
};

} // namespace tarn
