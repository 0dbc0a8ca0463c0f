#pragma once

namespace tarn {

// Puts the processor in flush-to-zero mode so that decaying filter tails never fall into slow
// denormal arithmetic. Every real-time callback that runs filters calls it first; it only
// touches a control register, so it is safe on the audio thread.
struct DenormalGuard {
    DenormalGuard() = delete;

    // x86: FTZ (bit 15) and DAZ (bit 6) of MXCSR. arm64: FZ (bit 24) of FPCR.
    static void enableFlushToZero();
    static bool isFlushToZeroEnabled();
};

} // namespace tarn
