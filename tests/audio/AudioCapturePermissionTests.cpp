#include <gtest/gtest.h>

#include "core/audio/AudioCapturePermission.hpp"
#include "core/io/PreferencesStore.hpp"
#include "support/SimulatedAudioPlatform.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

using Status = AudioCapturePermission::Status;
using test::SimulatedAudioPlatform;

TEST(AudioCapturePermission, ProbeStoresTheAnswerAndLeavesNoTapAndUnreadableAnswersAreUnknown) {
    test::TemporaryDirectory dir;
    PreferencesStore preferences(dir.path());
    SimulatedAudioPlatform platform;
    EXPECT_EQ(AudioCapturePermission::lastKnown(preferences), Status::unknown);

    EXPECT_EQ(AudioCapturePermission::request(platform, preferences), Status::granted);
    EXPECT_EQ(platform.calls(), (std::vector<std::string>{"createProcessTap", "destroyProcessTap"}));
    EXPECT_TRUE(platform.isClean());
    EXPECT_EQ(preferences.data("Sorvi.permission.audioCapture.v1"), "\"granted\"");

    platform.fail(SimulatedAudioPlatform::Step::createProcessTap, -13);
    EXPECT_EQ(AudioCapturePermission::request(platform, preferences), Status::denied);
    EXPECT_EQ(AudioCapturePermission::lastKnown(PreferencesStore(dir.path())), Status::denied);

    preferences.setData("Sorvi.permission.audioCapture.v1", "\"maybe\"");
    EXPECT_EQ(AudioCapturePermission::lastKnown(preferences), Status::unknown) << "a value from elsewhere";
    preferences.setData("Sorvi.permission.audioCapture.v1", "{not json");
    EXPECT_EQ(AudioCapturePermission::lastKnown(preferences), Status::unknown);
}

} // namespace
} // namespace tarn
