#pragma once

#include <span>

#include "core/dsp/BiquadFilter.hpp"

namespace tarn {

// Runs a cascade of biquad sections over one or two channels of an interleaved block with the
// channels and the sections side by side in SIMD lanes. Lane (row r, group g) runs section
// g·rows + r two samples behind the section before it, so every lane of every step is
// independent work; the first section of each group takes its input from the last section of
// the group before. Each lane's arithmetic is exactly BiquadFilter::processBlock's (direct form
// I, single precision, same operation order, the same end-of-block state rule), so the output
// is bit-identical to running the sections one after another per channel.
class SectionCascade {
public:
    // One section as the cascade runs it: the filter that owns the state, the coefficient set
    // of each channel of the pair, and a gain multiplied into the section's input first (a
    // stage's preamp; 1.0 for none).
    struct Section {
        BiquadFilter* filter = nullptr;
        BiquadFloatCoefficients coefficients[2];
        float inputGain = 1.0f;
    };

    // Rows of lanes per pass; a pass holds maxRows · lanes / channels sections (lanes: 8 with
    // AVX2, 4 otherwise) and longer cascades take several passes. Three rows keep every lane's
    // history in the sixteen vector registers; with more, each step's feedback goes through
    // memory and a pass costs more than the extra pass it saves.
    static constexpr int maxRows = 3;

    // Filters channels [firstChannel, firstChannel + channelsInGroup) of `buffer` (interleaved,
    // `stride` samples per frame) in place; channelsInGroup is 1 or 2. Any number of sections.
    static void run(float* buffer, int frameCount, int stride, int firstChannel, int channelsInGroup,
                    std::span<const Section> sections);

    // The same work one section and one channel at a time (the reference the vector path must
    // match bit for bit).
    static void runScalar(float* buffer, int frameCount, int stride, int firstChannel, int channelsInGroup,
                          std::span<const Section> sections);

    // The instruction set the vector path was dispatched to ("avx2" or "baseline").
    static const char* dispatchedInstructionSet();
};

} // namespace tarn
