#include <algorithm>
#include <fstream>
#include <set>

#include <gtest/gtest.h>

#include "core/io/JsonCodecs.hpp"
#include "core/profiles/BundledProfileCatalog.hpp"
#include "core/profiles/SearchText.hpp"
#include "support/ScopedEnvironment.hpp"
#include "support/TemporaryDirectory.hpp"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

const fs::path kCatalogFile = fs::path(TARN_SOURCE_DIR) / "data/profiles/catalog.json";

const BundledProfileCatalog& catalog() {
    static const BundledProfileCatalog shipped(kCatalogFile);
    return shipped;
}

std::vector<std::string> names(const std::vector<const HeadphoneProfile*>& found) {
    std::vector<std::string> out;
    for (const auto* p : found) out.push_back(p->modelName);
    return out;
}

std::set<std::string> nameSet(const std::vector<const HeadphoneProfile*>& found) {
    auto list = names(found);
    return {list.begin(), list.end()};
}

TEST(BundledProfileCatalog, EveryShippedProfileReadsBackToItsOwnJSON) {
    std::ifstream in(kCatalogFile);
    const json document = json::parse(in);
    const auto& raw = document.at("profiles");
    const auto& profiles = catalog().profiles();
    ASSERT_EQ(profiles.size(), 556u);
    ASSERT_EQ(raw.size(), profiles.size());
    for (std::size_t i = 0; i < profiles.size(); ++i) EXPECT_EQ(json(profiles[i]), raw[i]) << profiles[i].id;
    // Looked up by id only, never by name.
    for (const auto& p : catalog().profiles()) EXPECT_EQ(catalog().profile(p.id), &p);
    EXPECT_EQ(catalog().profile("Sennheiser HD 600"), nullptr);
}

TEST(BundledProfileCatalog, BrandsKeepMultiWordMakersWhole) {
    const auto brands = catalog().brands();
    const std::set<std::string> set(brands.begin(), brands.end());
    EXPECT_EQ(set.size(), brands.size());
    for (const char* maker : {"Bang & Olufsen", "Dan Clark Audio", "64 Audio", "RØDE"}) EXPECT_TRUE(set.count(maker)) << maker;
    for (const char* fragment : {"Dan", "Bang", "Audio", "64"}) EXPECT_FALSE(set.count(fragment)) << fragment;
    EXPECT_TRUE(std::is_sorted(brands.begin(), brands.end(), [](const std::string& a, const std::string& b) {
        return SearchText::fold(a) < SearchText::fold(b);
    }));

    // Every profile belongs to exactly one brand.
    std::size_t total = 0;
    for (const auto& brand : brands) total += catalog().models(brand).size();
    EXPECT_EQ(total, catalog().profiles().size());
}

TEST(BundledProfileCatalog, ModelsOfABrandIgnoreCaseAndSortNumbersByValue) {
    const auto dca = catalog().models("dan clark audio");
    EXPECT_EQ(dca.size(), 17u);
    EXPECT_EQ(catalog().models("DAN CLARK AUDIO"), dca);
    EXPECT_EQ(catalog().models("rode").size(), 1u); // accents do not matter either
    EXPECT_TRUE(catalog().models("Dan").empty());

    const auto sennheiser = names(catalog().models("Sennheiser"));
    EXPECT_EQ(sennheiser.size(), 50u);
    const auto pos = [&](const char* n) { return std::find(sennheiser.begin(), sennheiser.end(), n) - sennheiser.begin(); };
    EXPECT_LT(pos("Sennheiser HD 58X"), pos("Sennheiser HD 560S"));
    EXPECT_LT(pos("Sennheiser HD 800"), pos("Sennheiser HD 800 S"));

    EXPECT_EQ(BundledProfileCatalog::modelOf("Dan Clark Audio Ether 2"), "Ether 2");
    EXPECT_EQ(BundledProfileCatalog::brandOf("Final Audiophile 9"), "Final"); // a maker ends at a word boundary
    EXPECT_EQ(BundledProfileCatalog::modelOf("Koss"), "");
}

// Expected result sets below were worked out from the catalogue's names by hand and a separate
// script, not by this implementation.
TEST(BundledProfileCatalogSearch, EveryTypedWordMatchesTheStartOfAWord) {
    EXPECT_EQ(nameSet(catalog().search("hd 6")),
              (std::set<std::string>{"Sennheiser HD 600", "Sennheiser HD 630VB", "Sennheiser HD 650", "Sennheiser HD 660 S",
                                     "Superlux HD 651", "Superlux HD 660", "Superlux HD 660 Pro 150 Ohm",
                                     "Superlux HD 662F", "Superlux HD 668B", "Superlux HD 681"}));
    // Letters and digits split words, whichever way the user types them; "DT 1770" is not "DT 770".
    const std::set<std::string> dt770 = {"Beyerdynamic DT 770 M", "Beyerdynamic DT 770 Pro"};
    EXPECT_EQ(nameSet(catalog().search("dt770")), dt770);
    EXPECT_EQ(nameSet(catalog().search("beyerdynamic dt-770")), dt770);
    EXPECT_EQ(names(catalog().search("m50x")), std::vector<std::string>{"Audio-Technica ATH-M50x"});
    // Case and accents never matter.
    EXPECT_EQ(names(catalog().search("ERLKÖNIG")), std::vector<std::string>{"Vision Ears Erlkönig"});
    EXPECT_EQ(names(catalog().search("erlkonig")), std::vector<std::string>{"Vision Ears Erlkönig"});
    // A word matching only the middle of a word does not count.
    EXPECT_TRUE(catalog().search("ennheiser").empty());
}

TEST(BundledProfileCatalogSearch, ExactThenPrefixThenFeaturedThenAlphabetical) {
    // Exact beats a featured prefix match.
    EXPECT_EQ(names(catalog().search("hd 800")), (std::vector<std::string>{"Sennheiser HD 800", "Sennheiser HD 800 S"}));
    // Among prefix matches the featured come first, then numbers in order of value.
    const auto hd6 = names(catalog().search("hd 6", 4));
    EXPECT_EQ(hd6, (std::vector<std::string>{"Sennheiser HD 600", "Sennheiser HD 650", "Sennheiser HD 630VB",
                                             "Sennheiser HD 660 S"}));
    // A prefix of the model outranks a match further inside the name.
    const auto pro = names(catalog().search("pro"));
    ASSERT_FALSE(pro.empty());
    EXPECT_EQ(BundledProfileCatalog::modelOf(pro.front()).substr(0, 3), "Pro") << pro.front();
}

TEST(BundledProfileCatalogSearch, EmptyTextListsTheFeaturedProfiles) {
    const auto featured = catalog().search("");
    ASSERT_EQ(featured.size(), 47u);
    for (const auto* p : featured) EXPECT_TRUE(p->isFeatured) << p->modelName;
    EXPECT_EQ(catalog().search(" - "), featured);
}

TEST(BundledProfileCatalogLoading, ReportsAMissingOrDamagedCatalogueClearly) {
    test::TemporaryDirectory dir;
    const auto expectError = [](const BundledProfileCatalog& c, const std::string& fragment) {
        try {
            (void)c.profiles();
            ADD_FAILURE() << "no error for " << fragment;
        } catch (const BundledProfileCatalog::LoadError& e) {
            EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
        }
    };
    expectError(BundledProfileCatalog(dir / "missing.json"), "missing.json");

    const auto write = [&](const char* name, const std::string& text) { return test::writeText(dir / name, text); };
    expectError(BundledProfileCatalog(write("truncated.json", "{\"profiles\": [")), "damaged");
    expectError(BundledProfileCatalog(write("empty.json", R"({"profiles": []})")), "no profiles");
    json profile = json(*catalog().profile("oratory1990.over-ear.sennheiser-hd-600"));
    expectError(BundledProfileCatalog(write("twice.json", json{{"profiles", {profile, profile}}}.dump())), "twice");
    profile["wearStyle"] = "headband";
    expectError(BundledProfileCatalog(write("badstyle.json", json{{"profiles", {profile}}}.dump())), "profile 1");

    // A failed load is tried again once the file is there.
    const fs::path later = dir / "later.json";
    BundledProfileCatalog retried(later);
    expectError(retried, "later.json");
    fs::copy_file(kCatalogFile, later);
    EXPECT_EQ(retried.profiles().size(), 556u);
}

TEST(BundledProfileCatalogLoading, DataFolderFromTheEnvironmentIsTheOnlyPlaceLooked) {
    test::TemporaryDirectory dir;
    {
        const test::ScopedEnvironment data("TARN_DATA_DIR", dir.path().string());
        EXPECT_THROW(BundledProfileCatalog::locateCatalogFile(), BundledProfileCatalog::LoadError);
        fs::create_directories(dir / "profiles");
        fs::copy_file(kCatalogFile, dir / "profiles/catalog.json");
        EXPECT_EQ(BundledProfileCatalog::locateCatalogFile(), dir / "profiles/catalog.json");
    }
    const test::ScopedEnvironment noData("TARN_DATA_DIR", std::nullopt);
    EXPECT_TRUE(fs::exists(BundledProfileCatalog::locateCatalogFile()));
}

TEST(SearchText, FoldsLatinLettersAndLetsBrokenUtf8PassThrough) {
    EXPECT_EQ(SearchText::fold("RØDE Ærø Straße ÉCOLE"), "rode aero strasse ecole");
    EXPECT_EQ(SearchText::fold(std::string("bad \xC3 end")), "bad \xC3 end");
}

TEST(HeadphoneProfileJSON, AbsentOptionalsAreOmittedAndWearStylesUseTheirRawValues) {
    HeadphoneProfile bare;
    bare.id = "custom.bare";
    bare.modelName = "Bare";
    bare.sourceProject = "Handmade";
    bare.type = HeadphoneProfile::ProfileType::fixedBand;
    bare.preampDb = -2.5;
    const json written = bare;
    for (const char* absent : {"measurementProvider", "sourceURL", "downloadTimestamp", "wearStyle"})
        EXPECT_FALSE(written.contains(absent)) << absent;
    EXPECT_EQ(written["type"], "fixedBand");
    EXPECT_EQ(json::parse(written.dump()).get<HeadphoneProfile>(), bare);

    json j = written;
    j["wearStyle"] = "on-ear";
    EXPECT_EQ(j.get<HeadphoneProfile>().wearStyle, HeadphoneWearStyle::onEar);
    json overEar = written;
    overEar["wearStyle"] = "overEar";
    EXPECT_ANY_THROW(overEar.get<HeadphoneProfile>());
    json noFeatured = written;
    noFeatured.erase("isFeatured");
    EXPECT_ANY_THROW(noFeatured.get<HeadphoneProfile>());
}

} // namespace
} // namespace tarn
