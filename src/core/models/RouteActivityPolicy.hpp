#pragma once

#include "core/models/RouteHealth.hpp"

namespace tarn {

enum class RouteActivityTransition { none, autoPause, autoResume };

// Pauses a running route whose application fell silent and resumes one that the policy
// itself paused once the application plays again. A route the user stopped is never resumed.
struct RouteActivityPolicy {
    // isLive: the store holds a running engine for the route. isRunningOutput: the captured
    // application is producing output right now.
    static RouteActivityTransition transition(RouteHealth currentHealth, bool isLive, bool isRunningOutput);
};

} // namespace tarn
