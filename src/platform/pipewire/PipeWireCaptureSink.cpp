#include "platform/pipewire/PipeWireCaptureSink.hpp"

#include <cctype>
#include <cerrno>
#include <chrono>

#include <fmt/format.h>
#include <spa/param/audio/raw.h>
#include <unistd.h>

namespace tarn {

namespace {

constexpr auto startTimeout = std::chrono::seconds(3);

std::string joined(const std::vector<std::string>& positions) {
    std::string out;
    for (const auto& p : positions) out += (out.empty() ? "" : ",") + p;
    return out;
}

// Node names must stay readable in pw-cli and unique per capture.
std::string sanitized(const std::string& text) {
    std::string out;
    for (char c : text) out += (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-') ? c : '_';
    return out.empty() ? "app" : out;
}

} // namespace

AudioPlatform::Status PipeWireCaptureSink::create(PipeWireConnection& connection, const PipeWireTap& tap,
                                                  const AudioPlatform::AggregateDeviceDescription& description,
                                                  uint64_t number, std::unique_ptr<PipeWireCaptureSink>& made) {
    auto sink = std::make_unique<PipeWireCaptureSink>(connection);
    sink->pid = tap.pid;
    sink->identity = tap.identity;
    sink->format = tap.format;
    sink->positions = tap.positions;
    sink->nodeName = fmt::format("tarn_capture.{}.{}.{}", sanitized(tap.identity), getpid(), number);
    sink->group = fmt::format("tarn.route.{}.{}", getpid(), number);
    auto* props = pw_properties_new(
        "factory.name", "support.null-audio-sink", PW_KEY_NODE_NAME, sink->nodeName.c_str(), PW_KEY_NODE_DESCRIPTION,
        description.name.c_str(), PW_KEY_MEDIA_CLASS, "Audio/Sink", PW_KEY_NODE_VIRTUAL, "true", PW_KEY_NODE_GROUP,
        sink->group.c_str(), "tarn.role", "capture-sink", "tarn.route.uid", description.uid.c_str(),
        // Never the default output, and never the driver when a real device can drive.
        PW_KEY_PRIORITY_SESSION, "0", PW_KEY_PRIORITY_DRIVER, "1", "monitor.channel-volumes", "true",
        // A session manager that honours it neither restores a volume onto the sink (the route's
        // level would change behind the user's back) nor keeps a record of every route's sink.
        "state.restore-props", "false", nullptr);
    pw_properties_setf(props, PW_KEY_AUDIO_CHANNELS, "%u", tap.format.channelCount);
    pw_properties_set(props, SPA_KEY_AUDIO_POSITION, joined(tap.positions).c_str());
    pw_properties_setf(props, PW_KEY_AUDIO_RATE, "%u", unsigned(tap.format.sampleRate));
    sink->proxy_ = static_cast<pw_proxy*>(
        pw_core_create_object(connection.core(), "adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, &props->dict, 0));
    pw_properties_free(props);
    if (!sink->proxy_) return -errno ? -errno : -ENOMEM;
    static const pw_proxy_events proxyEvents = [] {
        pw_proxy_events e{};
        e.version = PW_VERSION_PROXY_EVENTS;
        e.bound = &onBound;
        e.removed = &onRemoved;
        e.error = &onError;
        return e;
    }();
    pw_proxy_add_listener(sink->proxy_, &sink->proxyListener_, &proxyEvents, sink.get());

    auto* raw = sink.get();
    bool ready = connection.waitLocked(
        [&] {
            if (raw->error || raw->removed) return true;
            if (raw->nodeID == 0) return false;
            auto g = connection.graph();
            auto* node = g.node(raw->nodeID);
            if (node && node->serial) raw->serial = node->serial;
            if (raw->serial == 0) return false;
            // Streams are moved onto the sink only once it can take them: a session manager told
            // to move a stream onto a sink without input ports yet plays it on the default output
            // meanwhile, unprocessed.
            std::size_t inputs = 0;
            for (const auto& port : connection.portsLocked(raw->nodeID)) inputs += port.isOutput ? 0 : 1;
            return inputs >= raw->format.channelCount;
        },
        startTimeout);
    if (raw->error || raw->removed || !ready) return raw->error ? raw->error : raw->removed ? -EIO : -ETIMEDOUT;
    made = std::move(sink);
    return AudioPlatform::noError;
}

PipeWireCaptureSink::~PipeWireCaptureSink() {
    if (proxy_) {
        spa_hook_remove(&proxyListener_);
        pw_proxy_destroy(proxy_);
    }
}

void PipeWireCaptureSink::onBound(void* data, uint32_t globalID) {
    auto* sink = static_cast<PipeWireCaptureSink*>(data);
    sink->nodeID = globalID;
    pw_thread_loop_signal(sink->connection.threadLoop(), false);
}

void PipeWireCaptureSink::onRemoved(void* data) {
    auto* sink = static_cast<PipeWireCaptureSink*>(data);
    sink->removed = true;
    pw_thread_loop_signal(sink->connection.threadLoop(), false);
}

void PipeWireCaptureSink::onError(void* data, int, int res, const char*) {
    auto* sink = static_cast<PipeWireCaptureSink*>(data);
    sink->error = res < 0 ? res : -EIO;
    pw_thread_loop_signal(sink->connection.threadLoop(), false);
}

} // namespace tarn
