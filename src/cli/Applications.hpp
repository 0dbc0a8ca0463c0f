#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/ProcessTree.hpp"
#include "core/audio/ProcessDiscoveryService.hpp"

namespace tarn::cli {

// The applications as the commands show them and as APP arguments name them: process
// discovery's entries, so that `tarn apps` prints exactly the names `tarn tap` accepts.
namespace Applications {

// The entries an APP argument names: all digits is a pid (the playing process's, else that of
// a process whose helpers play); anything else is an identity or a display name, compared whole
// and without regard to case. An empty APP names nothing.
std::vector<ProcessDiscoveryService::Entry> matching(const std::vector<ProcessDiscoveryService::Entry>& entries,
                                                     std::string_view app,
                                                     const ProcessTree& tree = ProcessTree::system());

// What kind of application this is, for people and scripts choosing what to route: "video",
// "musicWebApp", "videoWebApp", "webApp", "browser", "entertainment" or "other". It is what
// decides the buffer size a route asks for.
std::string category(const ProcessDiscoveryService::Entry& entry);

} // namespace Applications
} // namespace tarn::cli
