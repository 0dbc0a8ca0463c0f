#pragma once

#include <string>
#include <vector>

namespace tarn::test {

struct ProcessResult {
    int exitCode = -1;   // -1 when the program could not be started or was killed by a signal
    std::string standardOutput;
    std::string standardError;
};

// Runs a program (no shell) and waits for it, capturing both output streams.
ProcessResult runProcess(const std::vector<std::string>& arguments);

// Whether a program of that name is on PATH.
bool hasProgram(const std::string& name);

} // namespace tarn::test
