#include "core/dsp/SectionCascade.hpp"

#include "core/dsp/CpuDispatch.hpp"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

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

// Lane masks for __builtin_shuffle: `shifted` moves every lane up by CH channels and fills the
// bottom CH lanes from the second operand; `fromGroup` brings group g's channels to the bottom.
template <int W, int CH, std::size_t... I>
inline __attribute__((always_inline)) constexpr typename Simd<W>::IVec shiftedMask(std::index_sequence<I...>) {
    return typename Simd<W>::IVec{(int(I) < CH ? W + int(I) : int(I) - CH)...};
}
template <int W, int CH, std::size_t... I>
inline __attribute__((always_inline)) typename Simd<W>::IVec fromGroupMask(int g, std::index_sequence<I...>) {
    return typename Simd<W>::IVec{(g * CH + int(I) % CH)...};
}

template <int W> struct Lanes {
    using Vec = typename Simd<W>::Vec;
    Vec b0, b1, b2, a1, a2, gain;
    Vec x1, x2, y1, y2;
};

// One pass of ROWS rows: up to ROWS · (W / CH) sections, CH channels per group. The row count is
// a constant so that the rows' state stays in registers. Without `Gained` no section of the pass
// has an input gain, and the multiply by 1 leaves the row's critical path.
template <int CH, int W, int ROWS, bool Gained>
inline __attribute__((always_inline)) void runPass(float* buffer, int frameCount, int stride, int firstChannel,
                                                    const SectionCascade::Section* sections, int sectionCount) {
    using Vec = typename Simd<W>::Vec;
    using IVec = typename Simd<W>::IVec;
    constexpr int rows = ROWS;
    Lanes<W> lanes[rows];
    IVec laneSection[rows];
    bool rowGained[rows] = {};

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
    const int lastRow = last % rows;
    constexpr IVec shifted = shiftedMask<W, CH>(std::make_index_sequence<W>{});
    const IVec outputLanes = fromGroupMask<W, CH>(last / rows, std::make_index_sequence<W>{});
    // Section s runs `lag` samples behind section s - 1. With a lag of two, a section's input
    // was produced two steps earlier, so the multiply-add chain from one section to the next is
    // spread over two steps and the step rate is set by each row's own feedback instead.
    constexpr int lag = 2;
    const int steps = frameCount + lag * last;
    float* const base = buffer + firstChannel;
    // Each lane's state right after its last sample: finished lanes go on shifting (their
    // outputs are never used again), so the end-of-block state is taken as they pass it.
    Lanes<W> finished[rows];
    std::copy(lanes, lanes + rows, finished);

    // Which block edges a step may be on: `both` checks for sections that have not started and
    // for sections finishing; `end` only for the latter.
    enum class Edge { none, end, both };
    auto step = [&](int n, auto edgeTag) __attribute__((always_inline)) {
        constexpr Edge edge = decltype(edgeTag)::value;
        // Row 0 of group g takes the output of the last row of group g - 1 from `lag` steps
        // ago; group 0 takes the new input frame.
        Vec frameIn{};
        if (n < frameCount) {
            const float* frame = base + std::size_t(n) * stride;
            for (int c = 0; c < CH; ++c) frameIn[c] = frame[c];
        }
        const Vec input0 = __builtin_shuffle(lanes[rows - 1].y2, frameIn, shifted);
        // Rows from last to first so each row reads the previous row's outputs before that
        // row is advanced.
        for (int r = rows - 1; r >= 0; --r) {
            Lanes<W>& l = lanes[r];
            const Vec in = r == 0 ? input0 : lanes[r - 1].y2;
            const Vec x = Gained && rowGained[r] ? in * l.gain : in;
            const Vec y = l.b0 * x + l.b1 * l.x1 + l.b2 * l.x2 - l.a1 * l.y1 - l.a2 * l.y2;
            if constexpr (edge == Edge::both) {
                // Lanes whose section has not reached its first sample keep their state.
                const IVec started = n - lag * laneSection[r] >= 0;
                l.x2 = started ? l.x1 : l.x2;
                l.x1 = started ? x : l.x1;
                l.y2 = started ? l.y1 : l.y2;
                l.y1 = started ? y : l.y1;
            } else {
                l.x2 = l.x1;
                l.x1 = x;
                l.y2 = l.y1;
                l.y1 = y;
            }
            if constexpr (edge != Edge::none) {
                const IVec done = n - lag * laneSection[r] == frameCount - 1;
                Lanes<W>& f = finished[r];
                f.x1 = done ? l.x1 : f.x1;
                f.x2 = done ? l.x2 : f.x2;
                f.y1 = done ? l.y1 : f.y1;
                f.y2 = done ? l.y2 : f.y2;
            }
        }
        const int out = n - lag * last;
        if (out >= 0) {
            float* frame = base + std::size_t(out) * stride;
            // Picked row by row so that no row's state has to live in memory for a runtime index.
            Vec lastRowY = lanes[0].y1;
            for (int r = 1; r < rows; ++r) lastRowY = r == lastRow ? lanes[r].y1 : lastRowY;
            const Vec y = __builtin_shuffle(lastRowY, outputLanes);
            for (int c = 0; c < CH; ++c) frame[c] = y[c];
        }
    };
    using Both = std::integral_constant<Edge, Edge::both>;
    using None = std::integral_constant<Edge, Edge::none>;
    using End = std::integral_constant<Edge, Edge::end>;

    // Until step lag · last some section has not started; from step frameCount - 1 on some
    // section is finishing.
    const int started = std::min(lag * last, steps), ending = std::max(started, frameCount - 1);
    int n = 0;
    for (; n < started; ++n) step(n, Both{});
    for (; n < ending; ++n) step(n, None{});
    for (; n < steps; ++n) step(n, End{});

    for (int r = 0; r < rows; ++r) {
        const Lanes<W>& f = finished[r];
        for (int lane = 0; lane < W; ++lane) {
            const int s = laneSection[r][lane];
            if (s >= sectionCount) continue;
            sections[s].filter->storeChannelState(firstChannel + lane % CH, {f.x1[lane], f.x2[lane], f.y1[lane], f.y2[lane]});
        }
    }
}

template <int CH, int W, int ROWS>
inline __attribute__((always_inline)) void runPassOfRows(float* buffer, int frameCount, int stride, int firstChannel,
                                                          const SectionCascade::Section* sections, int count) {
    const bool gained =
        std::any_of(sections, sections + count, [](const SectionCascade::Section& s) { return s.inputGain != 1.0f; });
    if (gained) runPass<CH, W, ROWS, true>(buffer, frameCount, stride, firstChannel, sections, count);
    else runPass<CH, W, ROWS, false>(buffer, frameCount, stride, firstChannel, sections, count);
}

template <int CH, int W>
inline __attribute__((always_inline)) void runPasses(float* buffer, int frameCount, int stride, int firstChannel,
                                                      const SectionCascade::Section* sections, int sectionCount) {
    constexpr int groups = W / CH, perPass = SectionCascade::maxRows * groups;
    static_assert(SectionCascade::maxRows == 3, "one case per row count below");
    for (int first = 0; first < sectionCount; first += perPass) {
        const int count = std::min(perPass, sectionCount - first);
        switch ((count + groups - 1) / groups) {
        case 1: runPassOfRows<CH, W, 1>(buffer, frameCount, stride, firstChannel, sections + first, count); break;
        case 2: runPassOfRows<CH, W, 2>(buffer, frameCount, stride, firstChannel, sections + first, count); break;
        default: runPassOfRows<CH, W, 3>(buffer, frameCount, stride, firstChannel, sections + first, count); break;
        }
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
