#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>
#include <spdlog/spdlog.h>

#include "core/io/PreferencesStore.hpp"

namespace tarn {

// One value kept as one JSON document in the preferences (listening history, habits, layouts).
// A document that does not decode gives the default value and is kept: the first save moves it
// aside instead of writing over it. A failed save leaves the previous document and is reported
// through `lastProblem`.
template <typename T>
class PreferenceDocument {
public:
    PreferenceDocument(PreferencesStore store, std::string key) : store_(std::move(store)), key_(std::move(key)) {
        try {
            auto bytes = store_.data(key_);
            if (!bytes) return;
            value_ = nlohmann::json::parse(*bytes).template get<T>();
        } catch (const std::exception& e) {
            value_ = T{};
            needsSetAside_ = true;
            lastProblem_ = store_.pathFor(key_).string() + " does not decode (" + e.what() + "); it is kept aside";
            spdlog::warn("{}", *lastProblem_);
        }
    }

    const T& value() const { return value_; }
    T& edit() { return value_; }

    void save() {
        try {
            const nlohmann::json document = value_;
            if (needsSetAside_) {
                store_.setAside(key_);
                needsSetAside_ = false;
            }
            store_.setJSON(key_, document);
            lastProblem_.reset();
        } catch (const std::exception& e) {
            lastProblem_ = e.what();
            spdlog::warn("{} could not be saved: {}", key_, e.what());
        }
    }

    const std::optional<std::string>& lastProblem() const { return lastProblem_; }

private:
    PreferencesStore store_;
    std::string key_;
    T value_{};
    bool needsSetAside_ = false;
    std::optional<std::string> lastProblem_;
};

} // namespace tarn
