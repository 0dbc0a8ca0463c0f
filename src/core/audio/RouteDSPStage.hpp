#pragma once

namespace tarn {

// Where a route's DSP chain runs: in the capture callback, before the ring buffer (every
// application route), or in the render callback, after it (renderers fed by other producers,
// such as the local file player).
enum class RouteDSPStage { capture, render };

} // namespace tarn
