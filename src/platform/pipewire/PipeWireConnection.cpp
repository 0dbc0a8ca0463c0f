#include "platform/pipewire/PipeWireConnection.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>

namespace tarn {

namespace {

PipeWireProperties toMap(const spa_dict* dict) {
    PipeWireProperties out;
    if (!dict) return out;
    const spa_dict_item* item;
    spa_dict_for_each(item, dict) {
        if (item->key && item->value) out[item->key] = item->value;
    }
    return out;
}

std::string dictValue(const spa_dict* dict, const char* key) {
    if (!dict) return {};
    const char* value = spa_dict_lookup(dict, key);
    return value ? value : "";
}

uint32_t parseU32(const std::string& text) {
    if (text.empty()) return 0;
    try {
        return static_cast<uint32_t>(std::stoul(text));
    } catch (...) {
        return 0;
    }
}

} // namespace

std::string PipeWireNodeRecord::prop(const std::string& key) const {
    auto it = props.find(key);
    return it == props.end() ? std::string{} : it->second;
}

const PipeWireNodeRecord* PipeWireGraph::node(uint32_t id) const {
    for (const auto& n : nodes)
        if (n.id == id) return &n;
    return nullptr;
}

const PipeWireNodeRecord* PipeWireGraph::nodeNamed(const std::string& nodeName) const {
    for (const auto& n : nodes)
        if (n.prop("node.name") == nodeName) return &n;
    return nullptr;
}

const PipeWireClientRecord* PipeWireGraph::client(uint32_t id) const {
    auto it = clients.find(id);
    return it == clients.end() ? nullptr : &it->second;
}

struct PipeWireConnection::Impl {
    PipeWireConnection* owner = nullptr;
    spa_hook coreListener{};
    spa_hook registryListener{};

    struct BoundNode {
        Impl* impl = nullptr;
        PipeWireNodeRecord record;
        pw_proxy* proxy = nullptr;
        spa_hook listener{};
    };
    struct BoundClient {
        Impl* impl = nullptr;
        PipeWireClientRecord record;
        pw_proxy* proxy = nullptr;
        spa_hook listener{};
    };
    // A port that feeds its node from the graph (not a sink's monitor).
    static bool isGraphInput(const PipeWirePortRecord& port) { return !port.isOutput && !port.isMonitor; }
    struct BoundMetadata {
        Impl* impl = nullptr;
        std::string name;
        uint32_t id = 0;
        uint32_t permissions = 0;
        pw_proxy* proxy = nullptr;
        spa_hook listener{};
        std::map<std::pair<uint32_t, std::string>, std::string> entries;
    };

    std::map<uint32_t, std::unique_ptr<BoundNode>> nodes;
    std::map<uint32_t, std::unique_ptr<BoundClient>> clients;
    std::map<uint32_t, PipeWirePortRecord> ports;
    std::map<uint32_t, std::string> factories;
    std::unique_ptr<BoundMetadata> metadata; // the session manager's "default"
    std::unique_ptr<BoundMetadata> settings; // the daemon's "settings" (clock rate and quanta)
    int lastDoneSeq = 0;
    bool anyDone = false;
    int error = 0;
    int nextListener = 1;
    std::map<int, std::function<void()>> listeners;

    void notify() { owner->notifyLocked(); }

    static void onCoreDone(void* data, uint32_t id, int seq) {
        auto* self = static_cast<Impl*>(data);
        if (id != PW_ID_CORE) return;
        self->lastDoneSeq = seq;
        self->anyDone = true;
        pw_thread_loop_signal(self->owner->loop_, false);
    }

    static void onCoreError(void* data, uint32_t id, int seq, int res, const char* message) {
        auto* self = static_cast<Impl*>(data);
        // Errors about single objects reach their own proxies; only a core error ends the connection.
        if (id == PW_ID_CORE && res == -EPIPE) {
            self->error = res;
            self->notify();
        }
    }

    static void onNodeInfo(void* data, const pw_node_info* info) {
        auto* bound = static_cast<BoundNode*>(data);
        if (info->change_mask & PW_NODE_CHANGE_MASK_PROPS) {
            // Merged over the registry's properties, which the info may omit (the serial, say).
            for (auto& [k, v] : toMap(info->props)) bound->record.props[k] = v;
            if (auto c = parseU32(bound->record.prop("client.id"))) bound->record.clientID = c;
        }
        if (info->change_mask & PW_NODE_CHANGE_MASK_STATE) bound->record.state = pw_node_state_as_string(info->state);
        bound->record.hasInfo = true;
        bound->impl->notify();
    }

    static void onClientInfo(void* data, const pw_client_info* info) {
        auto* bound = static_cast<BoundClient*>(data);
        if (info->change_mask & PW_CLIENT_CHANGE_MASK_PROPS) {
            for (auto& [k, v] : toMap(info->props)) bound->record.props[k] = v;
        }
        bound->record.hasInfo = true;
        bound->impl->notify();
    }

    static int onMetadataProperty(void* data, uint32_t subject, const char* key, const char* type, const char* value) {
        auto* md = static_cast<BoundMetadata*>(data);
        if (!key) {
            for (auto it = md->entries.begin(); it != md->entries.end();)
                it = it->first.first == subject ? md->entries.erase(it) : std::next(it);
        } else if (!value) {
            md->entries.erase({subject, key});
        } else {
            md->entries[{subject, key}] = value;
        }
        md->impl->notify();
        return 0;
    }

    static void onGlobal(void* data, uint32_t id, uint32_t permissions, const char* type, uint32_t version,
                         const spa_dict* props) {
        auto* self = static_cast<Impl*>(data);
        pw_registry* registry = self->owner->registry_;
        if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
            auto bound = std::make_unique<BoundNode>();
            bound->impl = self;
            bound->record.id = id;
            bound->record.props = toMap(props);
            bound->record.serial = std::strtoull(dictValue(props, PW_KEY_OBJECT_SERIAL).c_str(), nullptr, 10);
            bound->record.clientID = parseU32(dictValue(props, PW_KEY_CLIENT_ID));
            bound->record.state = "creating";
            bound->proxy = static_cast<pw_proxy*>(
                pw_registry_bind(registry, id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
            if (bound->proxy) {
                static const pw_node_events events = [] {
                    pw_node_events e{};
                    e.version = PW_VERSION_NODE_EVENTS;
                    e.info = &onNodeInfo;
                    return e;
                }();
                pw_proxy_add_object_listener(bound->proxy, &bound->listener, &events, bound.get());
            }
            // Ports seen before their node (rare) are counted now.
            for (auto& [portID, port] : self->ports)
                if (port.nodeID == id && isGraphInput(port)) {
                    bound->record.inputPortCount++;
                    bound->record.inputPortChannels.push_back(port.channel);
                }
            self->nodes[id] = std::move(bound);
            self->notify();
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
            auto bound = std::make_unique<BoundClient>();
            bound->impl = self;
            bound->record.id = id;
            bound->record.props = toMap(props);
            bound->proxy = static_cast<pw_proxy*>(
                pw_registry_bind(registry, id, PW_TYPE_INTERFACE_Client, PW_VERSION_CLIENT, 0));
            if (bound->proxy) {
                static const pw_client_events events = [] {
                    pw_client_events e{};
                    e.version = PW_VERSION_CLIENT_EVENTS;
                    e.info = &onClientInfo;
                    return e;
                }();
                pw_proxy_add_object_listener(bound->proxy, &bound->listener, &events, bound.get());
            }
            self->clients[id] = std::move(bound);
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Port) == 0) {
            PipeWirePortRecord port;
            port.id = id;
            port.nodeID = parseU32(dictValue(props, PW_KEY_NODE_ID));
            port.index = parseU32(dictValue(props, PW_KEY_PORT_ID));
            port.isOutput = dictValue(props, PW_KEY_PORT_DIRECTION) == "out";
            port.isMonitor = dictValue(props, PW_KEY_PORT_MONITOR) == "true";
            port.channel = dictValue(props, PW_KEY_AUDIO_CHANNEL);
            self->ports[id] = port;
            // Someone may be waiting for a node's ports before linking them.
            pw_thread_loop_signal(self->owner->loop_, false);
            if (isGraphInput(port)) {
                if (auto it = self->nodes.find(port.nodeID); it != self->nodes.end()) {
                    it->second->record.inputPortCount++;
                    it->second->record.inputPortChannels.push_back(port.channel);
                }
            }
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Factory) == 0) {
            self->factories[id] = dictValue(props, PW_KEY_FACTORY_NAME);
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0) {
            auto name = dictValue(props, PW_KEY_METADATA_NAME);
            auto& slot = name == "default" ? self->metadata : self->settings;
            if ((name != "default" && name != "settings") || slot) return;
            auto md = std::make_unique<BoundMetadata>();
            md->impl = self;
            md->name = name;
            md->id = id;
            md->permissions = permissions;
            md->proxy = static_cast<pw_proxy*>(
                pw_registry_bind(registry, id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA, 0));
            if (md->proxy) {
                static const pw_metadata_events events = {.version = PW_VERSION_METADATA_EVENTS,
                                                          .property = &onMetadataProperty};
                pw_proxy_add_object_listener(md->proxy, &md->listener, &events, md.get());
            }
            slot = std::move(md);
            self->notify();
        }
    }

    static void onGlobalRemove(void* data, uint32_t id) {
        auto* self = static_cast<Impl*>(data);
        if (auto it = self->nodes.find(id); it != self->nodes.end()) {
            spa_hook_remove(&it->second->listener);
            if (it->second->proxy) pw_proxy_destroy(it->second->proxy);
            self->nodes.erase(it);
            self->notify();
        } else if (auto c = self->clients.find(id); c != self->clients.end()) {
            spa_hook_remove(&c->second->listener);
            if (c->second->proxy) pw_proxy_destroy(c->second->proxy);
            self->clients.erase(c);
        } else if (auto p = self->ports.find(id); p != self->ports.end()) {
            if (isGraphInput(p->second)) {
                if (auto n = self->nodes.find(p->second.nodeID); n != self->nodes.end()) {
                    auto& rec = n->second->record;
                    if (rec.inputPortCount > 0) rec.inputPortCount--;
                    auto ch = std::find(rec.inputPortChannels.begin(), rec.inputPortChannels.end(), p->second.channel);
                    if (ch != rec.inputPortChannels.end()) rec.inputPortChannels.erase(ch);
                }
            }
            self->ports.erase(p);
        } else if (self->factories.erase(id)) {
        } else {
            for (auto* slot : {&self->metadata, &self->settings}) {
                if (*slot && (*slot)->id == id) {
                    spa_hook_remove(&(*slot)->listener);
                    if ((*slot)->proxy) pw_proxy_destroy((*slot)->proxy);
                    slot->reset();
                    self->notify();
                }
            }
        }
    }

    void destroyProxies() {
        for (auto& [id, n] : nodes) {
            spa_hook_remove(&n->listener);
            if (n->proxy) pw_proxy_destroy(n->proxy);
        }
        nodes.clear();
        for (auto& [id, c] : clients) {
            spa_hook_remove(&c->listener);
            if (c->proxy) pw_proxy_destroy(c->proxy);
        }
        clients.clear();
        for (auto* slot : {&metadata, &settings}) {
            if (*slot) {
                spa_hook_remove(&(*slot)->listener);
                if ((*slot)->proxy) pw_proxy_destroy((*slot)->proxy);
                slot->reset();
            }
        }
    }
};

PipeWireConnection::PipeWireConnection() : impl_(std::make_unique<Impl>()) { impl_->owner = this; }

std::shared_ptr<PipeWireConnection> PipeWireConnection::connect(std::chrono::milliseconds timeout) {
    static std::once_flag initOnce;
    std::call_once(initOnce, [] { pw_init(nullptr, nullptr); });

    std::shared_ptr<PipeWireConnection> self(new PipeWireConnection());
    self->loop_ = pw_thread_loop_new("tarn-pipewire", nullptr);
    if (!self->loop_) throw PipeWireError(-errno, "cannot create the PipeWire thread loop");
    self->context_ = pw_context_new(pw_thread_loop_get_loop(self->loop_),
                                    pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0);
    if (!self->context_) throw PipeWireError(-errno, "cannot create a PipeWire context");
    if (pw_thread_loop_start(self->loop_) < 0) throw PipeWireError(-errno, "cannot start the PipeWire thread loop");

    {
        Lock lock(*self);
        self->core_ = pw_context_connect(
            self->context_, pw_properties_new(PW_KEY_APP_NAME, "Tarn", "tarn.role", "control", nullptr), 0);
        if (!self->core_) {
            int status = -errno;
            throw PipeWireError(status, fmt::format("cannot connect to the PipeWire daemon ({}); is a sound "
                                                    "session running? (XDG_RUNTIME_DIR={})",
                                                    std::strerror(-status),
                                                    getenv("XDG_RUNTIME_DIR") ? getenv("XDG_RUNTIME_DIR") : "unset"));
        }
        static const pw_core_events coreEvents = [] {
            pw_core_events e{};
            e.version = PW_VERSION_CORE_EVENTS;
            e.done = &Impl::onCoreDone;
            e.error = &Impl::onCoreError;
            return e;
        }();
        pw_core_add_listener(self->core_, &self->impl_->coreListener, &coreEvents, self->impl_.get());
        self->registry_ = pw_core_get_registry(self->core_, PW_VERSION_REGISTRY, 0);
        static const pw_registry_events registryEvents = {
            .version = PW_VERSION_REGISTRY_EVENTS, .global = &Impl::onGlobal, .global_remove = &Impl::onGlobalRemove};
        pw_registry_add_listener(self->registry_, &self->impl_->registryListener, &registryEvents, self->impl_.get());
    }
    // Two round trips: the first brings every global, the second the infos of what we bound.
    self->sync(timeout);
    self->sync(timeout);
    return self;
}

PipeWireConnection::~PipeWireConnection() {
    if (loop_) {
        pw_thread_loop_lock(loop_);
        impl_->destroyProxies();
        if (registry_) {
            spa_hook_remove(&impl_->registryListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
        }
        if (core_) {
            spa_hook_remove(&impl_->coreListener);
            pw_core_disconnect(core_);
        }
        pw_thread_loop_unlock(loop_);
        pw_thread_loop_stop(loop_);
    }
    if (context_) pw_context_destroy(context_);
    if (loop_) pw_thread_loop_destroy(loop_);
}

PipeWireConnection::Lock::Lock(PipeWireConnection& connection) : connection_(connection) {
    pw_thread_loop_lock(connection_.loop_);
}

PipeWireConnection::Lock::~Lock() { pw_thread_loop_unlock(connection_.loop_); }

void PipeWireConnection::notifyLocked() {
    // Copy first: a listener may remove itself.
    auto listeners = impl_->listeners;
    for (auto& [token, fn] : listeners) fn();
    pw_thread_loop_signal(loop_, false);
}

PipeWireGraph PipeWireConnection::graph() const {
    Lock lock(const_cast<PipeWireConnection&>(*this));
    PipeWireGraph g;
    for (auto& [id, n] : impl_->nodes) g.nodes.push_back(n->record);
    for (auto& [id, c] : impl_->clients) g.clients[id] = c->record;
    for (auto& [id, name] : impl_->factories) g.factories.push_back(name);
    if (impl_->metadata) {
        g.hasDefaultMetadata = true;
        g.defaultMetadataPermissions = impl_->metadata->permissions;
        auto it = impl_->metadata->entries.find({0, "default.audio.sink"});
        if (it != impl_->metadata->entries.end()) {
            auto json = nlohmann::json::parse(it->second, nullptr, false);
            if (json.is_object() && json.contains("name") && json["name"].is_string())
                g.defaultSinkName = json["name"].get<std::string>();
            else if (!json.is_discarded() && json.is_string())
                g.defaultSinkName = json.get<std::string>();
        }
    }
    if (impl_->settings) {
        auto number = [&](const char* key, uint32_t fallback) {
            auto it = impl_->settings->entries.find({0, key});
            uint32_t v = it == impl_->settings->entries.end() ? 0 : parseU32(it->second);
            return v ? v : fallback;
        };
        g.clockRate = number("clock.force-rate", number("clock.rate", g.clockRate));
        g.minQuantum = number("clock.min-quantum", g.minQuantum);
        g.maxQuantum = number("clock.max-quantum", g.maxQuantum);
        g.quantum = number("clock.force-quantum", number("clock.quantum", g.quantum));
    }
    return g;
}

int PipeWireConnection::addListener(std::function<void()> listener) {
    Lock lock(*this);
    int token = impl_->nextListener++;
    impl_->listeners[token] = std::move(listener);
    return token;
}

void PipeWireConnection::removeListener(int token) {
    Lock lock(*this);
    impl_->listeners.erase(token);
}

bool PipeWireConnection::waitLocked(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    timespec deadline{};
    pw_thread_loop_get_time(loop_, &deadline, std::chrono::duration_cast<std::chrono::nanoseconds>(timeout).count());
    while (!done()) {
        if (pw_thread_loop_timed_wait_full(loop_, &deadline) == -ETIMEDOUT) return done();
    }
    return true;
}

void PipeWireConnection::sync(std::chrono::milliseconds timeout) {
    Lock lock(*this);
    int seq = pw_core_sync(core_, PW_ID_CORE, 0);
    bool ok = waitLocked(
        [&] { return impl_->error != 0 || (impl_->anyDone && impl_->lastDoneSeq - seq >= 0); }, timeout);
    if (impl_->error) throw PipeWireError(impl_->error, "the PipeWire daemon closed the connection");
    if (!ok) throw PipeWireError(-ETIMEDOUT, "the PipeWire daemon did not answer in time");
}

int PipeWireConnection::setDefaultMetadataLocked(uint32_t subject, const std::string& key,
                                                 const std::optional<std::string>& value, const std::string& type) {
    if (!impl_->metadata || !impl_->metadata->proxy) return -ENOENT;
    auto* md = reinterpret_cast<pw_metadata*>(impl_->metadata->proxy);
    return pw_metadata_set_property(md, subject, key.c_str(), value ? (type.empty() ? nullptr : type.c_str()) : nullptr,
                                    value ? value->c_str() : nullptr);
}

std::vector<PipeWirePortRecord> PipeWireConnection::portsLocked(uint32_t nodeID) const {
    std::vector<PipeWirePortRecord> out;
    for (const auto& [id, port] : impl_->ports)
        if (port.nodeID == nodeID) out.push_back(port);
    return out;
}

std::optional<std::string> PipeWireConnection::defaultMetadataValueLocked(uint32_t subject,
                                                                          const std::string& key) const {
    if (!impl_->metadata) return std::nullopt;
    auto it = impl_->metadata->entries.find({subject, key});
    if (it == impl_->metadata->entries.end()) return std::nullopt;
    return it->second;
}

int PipeWireConnection::connectionError() const {
    Lock lock(const_cast<PipeWireConnection&>(*this));
    return impl_->error;
}

} // namespace tarn
