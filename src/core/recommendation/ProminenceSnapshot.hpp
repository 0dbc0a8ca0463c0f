#pragma once

#include <vector>

namespace tarn {

// What the band prominence analyser last published: each band's level relative to the song's
// median band, in dB (band order 31 Hz … 16 kHz; empty before anything was analysed).
struct ProminenceSnapshot {
    std::vector<double> prominenceDb;
    bool isConfident = false;
    double analyzedSeconds = 0.0;

    static ProminenceSnapshot empty() { return {}; }

    bool operator==(const ProminenceSnapshot&) const = default;
};

} // namespace tarn
