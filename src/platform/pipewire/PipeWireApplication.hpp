#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/pipewire/PipeWireConnection.hpp"

namespace tarn {

// One application that plays audio: every output stream of one process forms one entry.
struct PipeWireApplication {
    uint32_t objectID = 0;                 // the lowest node id among its output streams
    int32_t pid = 0;                       // 0 when the client did not say
    std::string identity;                  // Flatpak app id, else application.id, else the binary's name
    std::string name;                      // application.name
    bool isRunningOutput = false;          // one of its streams is running
    std::vector<uint32_t> streamNodeIDs;   // ascending

    bool operator==(const PipeWireApplication&) const = default;

    // The applications of a graph, in the order of their first stream. Nodes made by any Tarn
    // process are never listed.
    static std::vector<PipeWireApplication> list(const PipeWireGraph& graph);
    // The application one of whose streams is that node (a process object is its first stream),
    // or null.
    static const PipeWireApplication* withStream(const std::vector<PipeWireApplication>& applications,
                                                 uint32_t streamNodeID);

    // Identity and pid of the process behind one output stream node.
    static std::string identityOf(const PipeWireNodeRecord& node, const PipeWireClientRecord* client);
    static int32_t pidOf(const PipeWireNodeRecord& node, const PipeWireClientRecord* client);
    // True when that pid is only the one a sandboxed PulseAudio client reported from inside its
    // sandbox: two such applications can share it, so their identity tells them apart.
    static bool pidIsSandboxLocal(const PipeWireNodeRecord& node, const PipeWireClientRecord* client);
    // Output streams that belong to an application (pid when known, else identity and client).
    static bool streamBelongsTo(const PipeWireNodeRecord& node, const PipeWireClientRecord* client, int32_t pid,
                                const std::string& identity);
    static bool isApplicationStream(const PipeWireNodeRecord& node, const PipeWireClientRecord* client);
};

} // namespace tarn
