#include "platform/pipewire/PipeWireApplication.hpp"

#include <algorithm>
#include <map>

namespace tarn {

namespace {

std::string firstOf(std::initializer_list<std::string> values) {
    for (const auto& v : values)
        if (!v.empty()) return v;
    return {};
}

std::string clientProp(const PipeWireClientRecord* client, const std::string& key) {
    if (!client) return {};
    auto it = client->props.find(key);
    return it == client->props.end() ? std::string{} : it->second;
}

// pipewire-pulse speaks for PulseAudio clients: the kernel-checked pid of the connection is its
// own, so only the pid the application reported names the application.
bool viaPulseServer(const PipeWireClientRecord* client) { return clientProp(client, "client.api") == "pipewire-pulse"; }

// A sandboxed application reports its pid inside the sandbox, where every Flatpak's main
// process tends to have the same small number.
bool sandboxed(const PipeWireNodeRecord& node, const PipeWireClientRecord* client) {
    return !clientProp(client, "pipewire.access.portal.app_id").empty() ||
           !node.prop("pipewire.access.portal.app_id").empty() || clientProp(client, "pipewire.access") == "flatpak";
}

} // namespace

std::string PipeWireApplication::identityOf(const PipeWireNodeRecord& node, const PipeWireClientRecord* client) {
    return firstOf({clientProp(client, "pipewire.access.portal.app_id"), node.prop("pipewire.access.portal.app_id"),
                    node.prop("application.id"), clientProp(client, "application.id"),
                    node.prop("application.process.binary"), clientProp(client, "application.process.binary")});
}

int32_t PipeWireApplication::pidOf(const PipeWireNodeRecord& node, const PipeWireClientRecord* client) {
    // The kernel's pid of the connection is in the host's pid namespace and cannot be made up;
    // the reported one is the only one a PulseAudio client has.
    const std::string kernel = clientProp(client, "pipewire.sec.pid");
    const std::string reported = firstOf({node.prop("application.process.id"), clientProp(client, "application.process.id")});
    const std::string text = viaPulseServer(client) ? firstOf({reported, kernel}) : firstOf({kernel, reported});
    try {
        return text.empty() ? 0 : static_cast<int32_t>(std::stol(text));
    } catch (...) {
        return 0;
    }
}

bool PipeWireApplication::pidIsSandboxLocal(const PipeWireNodeRecord& node, const PipeWireClientRecord* client) {
    return viaPulseServer(client) && sandboxed(node, client);
}

bool PipeWireApplication::isApplicationStream(const PipeWireNodeRecord& node, const PipeWireClientRecord* client) {
    if (node.mediaClass() != "Stream/Output/Audio" || node.isTarnNode()) return false;
    // Streams of a Tarn process (the player deck's, say) are not applications to route.
    return clientProp(client, "tarn.role").empty();
}

bool PipeWireApplication::streamBelongsTo(const PipeWireNodeRecord& node, const PipeWireClientRecord* client,
                                          int32_t pid, const std::string& identity) {
    if (!isApplicationStream(node, client)) return false;
    if (pid <= 0) return identityOf(node, client) == identity;
    return pidOf(node, client) == pid && (!pidIsSandboxLocal(node, client) || identityOf(node, client) == identity);
}

std::vector<PipeWireApplication> PipeWireApplication::list(const PipeWireGraph& graph) {
    std::vector<PipeWireApplication> apps;
    std::map<std::string, size_t> byProcess;
    for (const auto& node : graph.nodes) {
        const auto* client = graph.client(node.clientID);
        if (!isApplicationStream(node, client)) continue;
        int32_t pid = pidOf(node, client);
        auto key = pid > 0 ? "pid:" + std::to_string(pid) : "client:" + std::to_string(node.clientID);
        if (pid > 0 && pidIsSandboxLocal(node, client)) key += '/' + identityOf(node, client);
        auto [it, inserted] = byProcess.try_emplace(key, apps.size());
        if (inserted) {
            PipeWireApplication app;
            app.objectID = node.id;
            app.pid = pid;
            app.identity = identityOf(node, client);
            app.name = firstOf({node.prop("application.name"), clientProp(client, "application.name"), app.identity});
            apps.push_back(std::move(app));
        }
        auto& app = apps[it->second];
        app.streamNodeIDs.push_back(node.id);
        app.objectID = std::min(app.objectID, node.id);
        app.isRunningOutput = app.isRunningOutput || node.state == "running";
    }
    return apps;
}

const PipeWireApplication* PipeWireApplication::withStream(const std::vector<PipeWireApplication>& applications,
                                                           uint32_t streamNodeID) {
    for (const auto& app : applications)
        if (std::find(app.streamNodeIDs.begin(), app.streamNodeIDs.end(), streamNodeID) != app.streamNodeIDs.end())
            return &app;
    return nullptr;
}

} // namespace tarn
