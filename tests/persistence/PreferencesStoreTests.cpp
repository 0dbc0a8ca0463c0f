#include <limits>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/io/PreferencesStore.hpp"
#include "support/ScopedEnvironment.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using ScopedEnv = test::ScopedEnvironment;

TEST(PreferencesStore, StoresOneFilePerKeyWithExactDoublesAndRefusesBadKeysAndValues) {
    test::TemporaryDirectory dir;
    PreferencesStore store(dir / "nested" / "tarn");
    EXPECT_FALSE(store.data("Tarn.savedPresets.v1"));
    store.setData("Tarn.savedPresets.v1", "[1]");
    store.setData("Tarn.savedPresets.v1", "[1,2]");
    EXPECT_EQ(test::readText(dir / "nested/tarn/Tarn.savedPresets.v1.json"), "[1,2]");
    store.remove("Tarn.savedPresets.v1");
    EXPECT_FALSE(store.data("Tarn.savedPresets.v1"));
    for (const char* bad : {"../escape", ".hidden"}) EXPECT_THROW(store.setData(bad, "x"), PreferencesStore::Error) << bad;

    const std::vector<double> values = {0.1 + 0.2, 5e-324, 1.7976931348623157e308, 816912000.123456789};
    store.setJSON("Tarn.test.v1", values);
    EXPECT_EQ(nlohmann::json::parse(*store.data("Tarn.test.v1")).get<std::vector<double>>(), values);
    const nlohmann::json notFinite = {{"gainDb", std::numeric_limits<double>::quiet_NaN()}};
    EXPECT_THROW(store.setJSON("Tarn.test.v1", notFinite), PreferencesStore::Error);
    EXPECT_EQ(nlohmann::json::parse(*store.data("Tarn.test.v1")).get<std::vector<double>>(), values);
}

TEST(PreferencesStore, FolderFollowsTheEnvironment) {
    ScopedEnv noConfig("TARN_CONFIG_DIR", std::nullopt);
    ScopedEnv home("HOME", "/home/ada");
    {
        ScopedEnv xdg("XDG_CONFIG_HOME", "/home/ada/.cfg");
        EXPECT_EQ(PreferencesStore::defaultDirectory(), fs::path("/home/ada/.cfg/tarn"));
    }
    ScopedEnv relative("XDG_CONFIG_HOME", "relative/path"); // invalid by the XDG rules: ignored
    EXPECT_EQ(PreferencesStore::defaultDirectory(), fs::path("/home/ada/.config/tarn"));
}

TEST(PreferencesStore, FailedWriteKeepsThePreviousDocument) {
    test::TemporaryDirectory dir;
    PreferencesStore store(dir.path());
    const std::string previous = R"({"kept": true})";
    store.setData("Tarn.big.v1", previous);

    // A file-size limit makes the write of the big document fail half way, as a full disk would.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        try {
            store.setData("Tarn.big.v1", std::string(100000, 'x'));
        } catch (const PreferencesStore::Error& e) {
            ::_exit(std::string(e.what()).find("Tarn.big.v1.json") != std::string::npos ? 0 : 3);
        }
        ::_exit(2);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the write did not fail with an error naming the document";
    EXPECT_EQ(store.data("Tarn.big.v1"), previous);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"Tarn.big.v1.json"}); // no temporary file left
}

// A document the desk did not write (a huge file dropped in the folder, a device) is refused by
// its size, naming the file, before it is read into memory.
TEST(PreferencesStore, DocumentsPastTheSizeLimitAreRefusedNamingTheFile) {
    test::TemporaryDirectory dir;
    PreferencesStore store(dir.path());
    const fs::path huge = store.pathFor("Tarn.savedPresets.v1");
    test::writeText(huge, "[]");
    fs::resize_file(huge, PreferencesStore::maxDocumentBytes + 1);   // sparse: costs no disk
    try {
        store.data("Tarn.savedPresets.v1");
        ADD_FAILURE() << "read a document past the limit";
    } catch (const PreferencesStore::Error& e) {
        EXPECT_NE(std::string(e.what()).find(huge.string() + ": 268435457 bytes is larger than 256 MiB"), std::string::npos) << e.what();
    }
    // A link to nowhere is no document, as before.
    fs::create_symlink(dir / "nowhere", store.pathFor("Tarn.routesState.v1"));
    EXPECT_FALSE(store.data("Tarn.routesState.v1"));
}

} // namespace
} // namespace tarn
