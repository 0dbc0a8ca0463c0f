#pragma once

#include <optional>
#include <string>

namespace tarn::test {

// Sets (or, given no value, removes) one environment variable for the life of the object, then
// puts back what was there, so a test never leaks its settings into the next one.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const std::optional<std::string>& value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

} // namespace tarn::test
