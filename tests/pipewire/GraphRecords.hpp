#pragma once

#include <string>
#include <utility>

#include "platform/pipewire/PipeWireConnection.hpp"

namespace tarn::test {

// A node as the registry reports it once its info has arrived.
inline PipeWireNodeRecord node(uint32_t id, uint32_t client, PipeWireProperties props, std::string state = "running") {
    PipeWireNodeRecord n;
    n.id = id, n.serial = id + 100, n.clientID = client, n.props = std::move(props), n.state = std::move(state);
    n.hasInfo = true;
    return n;
}

} // namespace tarn::test
