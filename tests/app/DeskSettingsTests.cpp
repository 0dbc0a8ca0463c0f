// The desk window's settings: kept across restarts, refused when out of range, and the start at
// login entry a desktop session would run.

#include <filesystem>

#include <gtest/gtest.h>

#include "app/DeskSettings.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn::test {
namespace {

class DeskSettingsTest : public ::testing::Test {
protected:
    std::unique_ptr<DeskSettings> make(const QString& program = "/usr/bin/tarn") {
        return std::make_unique<DeskSettings>(PreferencesStore(folder / "config"), autostart(), program);
    }
    QString autostart() const { return QString::fromStdString((folder / "autostart").string()); }
    std::filesystem::path entry() const { return folder / "autostart" / std::string(DeskSettings::autostartFileName); }

    TemporaryDirectory folder;
};

TEST_F(DeskSettingsTest, ChangesAreKeptAcrossRestartsAndNonsenseIsRefusedWithAReason) {
    {
        auto settings = make();
        EXPECT_EQ(settings->meterRateHz(), DeskSettings::maxMeterRateHz);
        EXPECT_EQ(settings->defaultMode(), "on");
        EXPECT_FALSE(settings->onboarded());
        settings->setMeterRateHz(5);
        settings->setDefaultMode("auto");
        settings->setOnboarded(true);
        EXPECT_TRUE(settings->problem().isEmpty()) << settings->problem().toStdString();

        settings->setMeterRateHz(0);
        EXPECT_EQ(settings->meterRateHz(), 5);
        EXPECT_TRUE(settings->problem().contains("meter rate")) << settings->problem().toStdString();
        settings->setMeterRateHz(DeskSettings::maxMeterRateHz + 1);
        EXPECT_EQ(settings->meterRateHz(), 5);
        settings->setDefaultMode("sometimes");
        EXPECT_EQ(settings->defaultMode(), "auto");
        EXPECT_TRUE(settings->problem().contains("sometimes"));
    }
    auto again = make();
    EXPECT_EQ(again->meterRateHz(), 5);
    EXPECT_EQ(again->defaultMode(), "auto");
    EXPECT_TRUE(again->onboarded());
}

TEST_F(DeskSettingsTest, AHandEditedFileKeepsWhatStillMakesSense) {
    writeText(folder / "config" / (std::string(DeskSettings::key) + ".json"),
              R"({"meterRateHz": 500, "defaultMode": "auto", "onboarded": true})");
    auto settings = make();
    EXPECT_EQ(settings->meterRateHz(), DeskSettings::maxMeterRateHz) << "an impossible rate gives the default";
    EXPECT_EQ(settings->defaultMode(), "auto");
    EXPECT_TRUE(settings->onboarded());
}

TEST_F(DeskSettingsTest, StartAtLoginIsAnAutostartEntryThatRunsTheDeskService) {
    auto settings = make("/opt/tarn tools/tarn");
    EXPECT_FALSE(settings->startAtLogin());
    settings->setStartAtLogin(true);
    ASSERT_TRUE(settings->problem().isEmpty()) << settings->problem().toStdString();
    ASSERT_TRUE(std::filesystem::exists(entry()));
    const std::string text = readText(entry());
    EXPECT_EQ(text.rfind("[Desktop Entry]\n", 0), 0u);
    EXPECT_NE(text.find("\nType=Application\n"), std::string::npos);
    EXPECT_NE(text.find("\nExec=\"/opt/tarn tools/tarn\" daemon\n"), std::string::npos) << text;
    EXPECT_TRUE(make()->startAtLogin()) << "the entry is the setting";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / "autostart"), {}), 1)
        << "no temporary file left beside it";

    // Switched off in the desktop's own startup list: off here too.
    writeText(entry(), text + "Hidden=true\n");
    EXPECT_FALSE(make()->startAtLogin());

    settings->setStartAtLogin(true);
    EXPECT_TRUE(settings->startAtLogin());
    settings->setStartAtLogin(false);
    EXPECT_FALSE(std::filesystem::exists(entry()));
    EXPECT_FALSE(settings->startAtLogin());
}

TEST_F(DeskSettingsTest, AProgramPathAnExecLineWouldMangleIsRefusedAndNothingIsWritten) {
    for (const char* path : {"/home/a\"b/tarn", "/home/$HOME/tarn", "/home/a\\b/tarn"}) {
        auto settings = make(path);
        settings->setStartAtLogin(true);
        EXPECT_FALSE(settings->startAtLogin()) << path;
        EXPECT_TRUE(settings->problem().contains("cannot start at login")) << settings->problem().toStdString();
        EXPECT_FALSE(std::filesystem::exists(entry())) << path;
    }
}

} // namespace
} // namespace tarn::test
