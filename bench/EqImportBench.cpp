// Parametric-EQ text import at the size limit: every shape of text the parser may be handed costs
// time in proportion to its length (a hand-written scanner: no backtracking, no recursion), and
// no more memory than the skipped lines it describes.
#include <string>

#include <benchmark/benchmark.h>

#include "core/io/AutoEqParser.hpp"

namespace {

// Repeats `line` (with its newline) until the text reaches the parser's size limit.
std::string fill(const std::string& line) {
    std::string text;
    while (text.size() + line.size() + 1 <= tarn::AutoEqParser::maxTextBytes) text += line + "\n";
    return text;
}

void parse(benchmark::State& state, std::string line) {
    const std::string text = fill(line);
    std::size_t filters = 0, skipped = 0;
    for (auto _ : state) {
        try {
            const auto result = tarn::AutoEqParser::read(text, "bench");
            filters = result.eq.filters.size();
            skipped = result.skippedLineCount;
        } catch (const tarn::AutoEqParser::ParseError&) {
            filters = 0;
        }
        benchmark::DoNotOptimize(filters);
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(text.size()));
    state.counters["filters"] = double(filters);
    state.counters["skippedLines"] = double(skipped);
}

BENCHMARK_CAPTURE(parse, filter_lines, std::string("Filter 1: ON PK Fc 1000 Hz Gain -3.5 dB Q 1.41"));
BENCHMARK_CAPTURE(parse, blank_lines, std::string(""));
BENCHMARK_CAPTURE(parse, junk_lines, std::string("x"));
// Lines at the length limit whose numbers run on: the shape that used to exhaust the stack.
BENCHMARK_CAPTURE(parse, long_number_lines, "Filter 1: ON PK Fc " + std::string(960, '1') + " Hz Gain 3 dB Q 1");
BENCHMARK_CAPTURE(parse, over_long_lines, std::string(5000, 'F'));

} // namespace
