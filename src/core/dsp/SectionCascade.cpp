#include "core/dsp/SectionCascade.hpp"

#include "core/dsp/CpuDispatch.hpp"

#include <algorithm>
#include <cstring>

// The vector helpers below are always inlined into their dispatched callers, so the
// 32-byte vector argument ABI note does not apply.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace tarn {

namespace {

// W lanes: 8 in the AVX2 build (one 256-bit register), 4 in the portable build (one SSE
// register; wider generic vectors would be split clumsily there).
template <int W> struct Simd {
    typedef float Vec __attribute__((vector_size(W * 4)));
    typedef int IVec __attribute__((vector_size(W * 4)));
};

template <int W> struct Lanes {
    using Vec = typename Simd<W>::Vec;
    Vec b0, b1, b2, a1, a2, gain;
    Vec x1, x2, y1, y2;
};

// One pass: up to maxRows · (W / channels) sections. CH channels per group. Without `Gained` no
// section of the pass has an input gain, and the multiply by 1 leaves the row's critical path.
template <int CH, int W, bool Gained>
inline __attribute__((always_inline)) void runPass(float* buffer, int frameCount, int stride, int firstChannel,
                                                    const SectionCascade::Section* sections, int sectionCount) {
    using Vec = typename Simd<W>::Vec;
    using IVec = typename Simd<W>::IVec;
    constexpr int groups = W / CH;
    const int rows = (sectionCount + groups - 1) / groups;
    Lanes<W> lanes[SectionCascade::maxRows];
    IVec laneSection[SectionCascade::maxRows];
    bool rowGained[SectionCascade::maxRows] = {};

    for (int r = 0; r < rows; ++r) {
        Lanes<W>& l = lanes[r];
        for (int lane = 0; lane < W; ++lane) {
            const int g = lane / CH, c = lane % CH;
            const int s = g * rows + r;
            laneSection[r][lane] = s;
            if (s < sectionCount) {
                const SectionCascade::Section& sec = sections[s];
                const BiquadFloatCoefficients& k = sec.coefficients[c];
                const BiquadFilter::ChannelState st = sec.filter->channelState(firstChannel + c);
                l.b0[lane] = k.b0, l.b1[lane] = k.b1, l.b2[lane] = k.b2, l.a1[lane] = k.a1, l.a2[lane] = k.a2;
                l.gain[lane] = sec.inputGain;
                rowGained[r] = rowGained[r] || sec.inputGain != 1.0f;
                l.x1[lane] = st.x1, l.x2[lane] = st.x2, l.y1[lane] = st.y1, l.y2[lane] = st.y2;
            } else {
                l.b0[lane] = l.b1[lane] = l.b2[lane] = l.a1[lane] = l.a2[lane] = 0.0f;
                l.gain[lane] = 1.0f;
                l.x1[lane] = l.x2[lane] = l.y1[lane] = l.y2[lane] = 0.0f;
            }
        }
    }

    const int last = sectionCount - 1;
    const int lastRow = last % rows, lastGroup = last / rows;
    const int steps = frameCount + last;
    float* const base = buffer + firstChannel;

    // Row 0 of group g takes the previous step's output of the last row of group g - 1; group 0
    // takes the new input frame.
    auto step = [&](int n, bool masked) __attribute__((always_inline)) {
        Vec input0;
        const Vec& prev = lanes[rows - 1].y1;
        for (int lane = 0; lane < W; ++lane) input0[lane] = lane >= CH ? prev[lane - CH] : 0.0f;
        if (n < frameCount) {
            const float* frame = base + std::size_t(n) * stride;
            for (int c = 0; c < CH; ++c) input0[c] = frame[c];
        }
        // Rows from last to first so each row reads the previous row's output of the last step
        // before that row is advanced.
        for (int r = rows - 1; r >= 0; --r) {
            Lanes<W>& l = lanes[r];
            const Vec in = r == 0 ? input0 : lanes[r - 1].y1;
            const Vec x = Gained && rowGained[r] ? in * l.gain : in;
            const Vec y = l.b0 * x + l.b1 * l.x1 + l.b2 * l.x2 - l.a1 * l.y1 - l.a2 * l.y2;
            if (masked) {
                // Lanes whose section has no sample at this step keep their state.
                const IVec age = n - laneSection[r];
                const IVec active = (age >= 0) & (age < frameCount);
                l.x2 = active ? l.x1 : l.x2;
                l.x1 = active ? x : l.x1;
                l.y2 = active ? l.y1 : l.y2;
                l.y1 = active ? y : l.y1;
            } else {
                l.x2 = l.x1;
                l.x1 = x;
                l.y2 = l.y1;
                l.y1 = y;
            }
        }
        const int out = n - last;
        if (out >= 0 && out < frameCount) {
            float* frame = base + std::size_t(out) * stride;
            for (int c = 0; c < CH; ++c) frame[c] = lanes[lastRow].y1[lastGroup * CH + c];
        }
    };

    // Every lane is busy from step `last` to step frameCount - 1 (the section furthest behind
    // has started and the one furthest ahead has not run out of samples).
    const int fullFrom = last, fullTo = frameCount;   // [fullFrom, fullTo)
    int n = 0;
    for (; n < std::min(fullFrom, steps); ++n) step(n, true);
    for (; n < fullTo; ++n) step(n, false);
    for (; n < steps; ++n) step(n, true);

    for (int r = 0; r < rows; ++r) {
        const Lanes<W>& l = lanes[r];
        for (int lane = 0; lane < W; ++lane) {
            const int s = laneSection[r][lane];
            if (s >= sectionCount) continue;
            sections[s].filter->storeChannelState(firstChannel + lane % CH, {l.x1[lane], l.x2[lane], l.y1[lane], l.y2[lane]});
        }
    }
}

template <int CH, int W>
inline __attribute__((always_inline)) void runPasses(float* buffer, int frameCount, int stride, int firstChannel,
                                                      const SectionCascade::Section* sections, int sectionCount) {
    constexpr int perPass = SectionCascade::maxRows * (W / CH);
    for (int first = 0; first < sectionCount; first += perPass) {
        const int count = std::min(perPass, sectionCount - first);
        const bool gained = std::any_of(sections + first, sections + first + count,
                                        [](const SectionCascade::Section& s) { return s.inputGain != 1.0f; });
        if (gained) runPass<CH, W, true>(buffer, frameCount, stride, firstChannel, sections + first, count);
        else runPass<CH, W, false>(buffer, frameCount, stride, firstChannel, sections + first, count);
    }
}

template <int CH>
void runPassesPortable(float* b, int n, int stride, int first, const SectionCascade::Section* s, int count) {
    runPasses<CH, 4>(b, n, stride, first, s, count);
}
template <int CH>
TARN_TARGET_AVX2 void runPassesAvx2(float* b, int n, int stride, int first, const SectionCascade::Section* s, int count) {
    runPasses<CH, 8>(b, n, stride, first, s, count);
}

template <int CH>
void dispatch(float* b, int n, int stride, int first, const SectionCascade::Section* s, int count) {
    if (CpuDispatch::hasAvx2()) runPassesAvx2<CH>(b, n, stride, first, s, count);
    else runPassesPortable<CH>(b, n, stride, first, s, count);
}

} // namespace

void SectionCascade::run(float* buffer, int frameCount, int stride, int firstChannel, int channelsInGroup,
                         std::span<const Section> sections) {
    if (frameCount < 1 || sections.empty()) return;
    if (channelsInGroup == 2) dispatch<2>(buffer, frameCount, stride, firstChannel, sections.data(), int(sections.size()));
    else dispatch<1>(buffer, frameCount, stride, firstChannel, sections.data(), int(sections.size()));
}

void SectionCascade::runScalar(float* buffer, int frameCount, int stride, int firstChannel, int channelsInGroup,
                               std::span<const Section> sections) {
    for (int c = 0; c < channelsInGroup; ++c) {
        const int ch = firstChannel + c;
        for (const Section& s : sections) {
            if (s.inputGain != 1.0f) {
                float* p = buffer + ch;
                for (int i = 0; i < frameCount; ++i, p += stride) *p *= s.inputGain;
            }
            s.filter->processBlock(buffer, frameCount, ch, stride, s.coefficients[c]);
        }
    }
}

const char* SectionCascade::dispatchedInstructionSet() {
    return CpuDispatch::hasAvx2() ? "avx2" : "baseline";
}

} // namespace tarn
