#pragma once

#include <string_view>

#include <CLI/CLI.hpp>

namespace tarn::cli {

// Checks for options that take a decimal number. Only finite numbers pass ("nan" and "inf" are
// not a length or a weight), and the messages print the bounds as people write them
// ("must be within 0.01..3600 s, got 1e9"). `unit` follows the number, with its space (" s").
CLI::Validator numberWithin(double min, double max, std::string_view unit = "");
CLI::Validator positiveNumber(std::string_view unit = "");
CLI::Validator nonNegativeNumber(std::string_view unit = "");

} // namespace tarn::cli
