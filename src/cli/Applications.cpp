#include "cli/Applications.hpp"

#include <algorithm>
#include <cctype>

#include "core/audio/ProcessCategory.hpp"

namespace tarn::cli::Applications {

namespace {

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

} // namespace

std::vector<ProcessDiscoveryService::Entry> matching(const std::vector<ProcessDiscoveryService::Entry>& entries,
                                                     std::string_view app, const ProcessTree& tree) {
    std::vector<ProcessDiscoveryService::Entry> out;
    // An empty argument would otherwise name every application whose identity is unknown.
    if (app.empty()) return out;
    const bool isPid = app.find_first_not_of("0123456789") == std::string_view::npos;
    for (const auto& entry : entries) {
        bool named = isPid ? std::to_string(entry.pid) == app
                           : equalIgnoringCase(entry.bundleID, app) || equalIgnoringCase(entry.displayName, app);
        if (named) out.push_back(entry);
    }
    if (!out.empty() || !isPid || app.size() > 9) return out;
    // The pid of a main process whose sound comes from a helper of it (browsers do that).
    const auto pid = static_cast<std::int32_t>(std::stol(std::string(app)));
    for (const auto& entry : entries)
        if (tree.isWithin(entry.pid, pid)) out.push_back(entry);
    return out;
}

std::string category(const ProcessDiscoveryService::Entry& entry) {
    return std::string(ProcessCategory::label(ProcessCategory::kindOf(entry.bundleID, entry.displayName)));
}

} // namespace tarn::cli::Applications
