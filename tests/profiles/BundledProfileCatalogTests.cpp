#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <tuple>

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

std::vector<std::string> ids(const std::vector<const HeadphoneProfile*>& found) {
    std::vector<std::string> out;
    for (const auto* p : found) out.push_back(p->id);
    return out;
}

// Name and source, as a person reading a result list sees them.
using Listed = std::pair<std::string, std::string>;
std::vector<Listed> listed(const std::vector<const HeadphoneProfile*>& found) {
    std::vector<Listed> out;
    for (const auto* p : found) out.emplace_back(p->modelName, p->measurementProvider.value_or(""));
    return out;
}

std::map<std::string, std::size_t> countBySource(const std::vector<const HeadphoneProfile*>& found) {
    std::map<std::string, std::size_t> out;
    for (const auto* p : found) ++out[p->measurementProvider.value_or("")];
    return out;
}

// The same profiles listed in the opposite order: nothing the catalogue shows may depend on it.
fs::path reversedCopy(const fs::path& from, const fs::path& to) {
    std::ifstream in(from);
    json document = json::parse(in);
    std::reverse(document["profiles"].begin(), document["profiles"].end());
    return test::writeText(to, document.dump());
}

TEST(BundledProfileCatalog, EveryShippedProfileReadsBackToItsOwnJSON) {
    std::ifstream in(kCatalogFile);
    const json document = json::parse(in);
    const auto& raw = document.at("profiles");
    const auto& profiles = catalog().profiles();
    ASSERT_EQ(profiles.size(), 1006u);
    ASSERT_EQ(raw.size(), profiles.size());
    for (std::size_t i = 0; i < profiles.size(); ++i) EXPECT_EQ(json(profiles[i]), raw[i]) << profiles[i].id;
    std::vector<const HeadphoneProfile*> all;
    for (const auto& p : profiles) all.push_back(&p);
    EXPECT_EQ(countBySource(all), (std::map<std::string, std::size_t>{{"crinacle", 361}, {"oratory1990", 556}, {"rtings", 89}}));
    // Ids carry their source, so one model from two sources never shares an id.
    for (const auto& p : profiles) EXPECT_EQ(p.id.rfind(*p.measurementProvider + ".", 0), 0u) << p.id;
    // Looked up by id only, never by name.
    for (const auto& p : catalog().profiles()) EXPECT_EQ(catalog().profile(p.id), &p);
    EXPECT_EQ(catalog().profile("Sennheiser HD 600"), nullptr);
}

TEST(BundledProfileCatalog, BrandsKeepMultiWordMakersWhole) {
    const auto brands = catalog().brands();
    const std::set<std::string> set(brands.begin(), brands.end());
    EXPECT_EQ(set.size(), brands.size());
    for (const char* maker : {"Bang & Olufsen", "Dan Clark Audio", "64 Audio", "RØDE", "Harman Kardon", "Little Dot", "Tin HiFi"})
        EXPECT_TRUE(set.count(maker)) << maker;
    for (const char* fragment : {"Dan", "Bang", "Audio", "64", "Harman", "Little", "Tin"}) EXPECT_FALSE(set.count(fragment)) << fragment;
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
    EXPECT_EQ(dca.size(), 21u);
    EXPECT_EQ(catalog().models("DAN CLARK AUDIO"), dca);
    EXPECT_EQ(catalog().models("rode").size(), 1u); // accents do not matter either
    EXPECT_TRUE(catalog().models("Dan").empty());

    const auto sennheiser = names(catalog().models("Sennheiser"));
    EXPECT_EQ(sennheiser.size(), 91u);
    const auto pos = [&](const char* n) { return std::find(sennheiser.begin(), sennheiser.end(), n) - sennheiser.begin(); };
    EXPECT_LT(pos("Sennheiser HD 58X"), pos("Sennheiser HD 560S"));
    EXPECT_LT(pos("Sennheiser HD 800"), pos("Sennheiser HD 800 S"));

    EXPECT_EQ(BundledProfileCatalog::modelOf("Dan Clark Audio Ether 2"), "Ether 2");
    EXPECT_EQ(BundledProfileCatalog::brandOf("Final Audiophile 9"), "Final"); // a maker ends at a word boundary
    EXPECT_EQ(BundledProfileCatalog::modelOf("Koss"), "");
}

TEST(BundledProfileCatalog, ABrandMeasuredBySeveralSourcesIsOneBrand) {
    const auto brands = catalog().brands();
    for (const char* brand : {"Sony", "Tin HiFi"})
        EXPECT_EQ(std::count(brands.begin(), brands.end(), brand), 1) << brand;
    EXPECT_EQ(countBySource(catalog().models("Sony")),
              (std::map<std::string, std::size_t>{{"crinacle", 23}, {"oratory1990", 36}, {"rtings", 22}}));
    EXPECT_EQ(countBySource(catalog().models("tin hifi")), (std::map<std::string, std::size_t>{{"crinacle", 12}, {"oratory1990", 4}}));
}

TEST(BundledProfileCatalog, OneModelFromTwoSourcesIsListedOncePerSourceSideBySide) {
    // Spelt differently by each source, the same model sorts as one name, then by source.
    const auto beyer = listed(catalog().models("Beyerdynamic"));
    const Listed crinacle{"Beyerdynamic DT 250 80 Ohm", "crinacle"}, oratory{"Beyerdynamic DT 250 (80 Ohm)", "oratory1990"};
    const auto at = std::find(beyer.begin(), beyer.end(), crinacle);
    ASSERT_NE(at, beyer.end());
    ASSERT_NE(at + 1, beyer.end());
    EXPECT_EQ(*(at + 1), oratory);
}

// A made-up model measured three times, one of them featured, in every order a file could list it.
TEST(BundledProfileCatalog, TheFeaturedMeasurementLeadsWhateverTheFileOrder) {
    test::TemporaryDirectory dir;
    json base = json(*catalog().profile("oratory1990.over-ear.sennheiser-hd-600"));
    const auto make = [&](const char* id, const char* name, const char* source, bool featured) {
        json p = base;
        p["id"] = id;
        p["modelName"] = name;
        p["measurementProvider"] = source;
        p["isFeatured"] = featured;
        return p;
    };
    json profiles = json::array({make("rtings.over-ear.acme-one", "ACME One", "rtings", false),
                                 make("crinacle.over-ear.acme-one", "Acme One", "crinacle", false),
                                 make("oratory1990.over-ear.acme-one", "Acme One", "oratory1990", true),
                                 make("crinacle.over-ear.acme-two", "Acme Two", "crinacle", false)});
    const std::vector<std::string> expected = {"oratory1990.over-ear.acme-one", "crinacle.over-ear.acme-one",
                                               "rtings.over-ear.acme-one", "crinacle.over-ear.acme-two"};
    for (int order = 0; order < 2; ++order) {
        if (order == 1) std::reverse(profiles.begin(), profiles.end());
        const BundledProfileCatalog c(test::writeText(dir / ("acme" + std::to_string(order) + ".json"), json{{"profiles", profiles}}.dump()));
        EXPECT_EQ(ids(c.models("acme")), expected) << "file order " << order;
        EXPECT_EQ(ids(c.search("acme")), expected) << "file order " << order;
        EXPECT_EQ(ids(c.search("acme one")), std::vector<std::string>(expected.begin(), expected.begin() + 3));
        // One brand, under the spelling most of its profiles use.
        EXPECT_EQ(c.brands(), std::vector<std::string>{"Acme"}) << "file order " << order;
    }
}

// Expected result sets below were worked out from the catalogue's names by hand and a separate
// script, not by this implementation.
TEST(BundledProfileCatalogSearch, EveryTypedWordMatchesTheStartOfAWord) {
    EXPECT_EQ(nameSet(catalog().search("hd 6")),
              (std::set<std::string>{"Sennheiser HD 600", "Sennheiser HD 600 (semi-worn earpads) (sample 2)",
                                     "Sennheiser HD 600 (worn earpads)", "Sennheiser HD600 2020", "Sennheiser HD 630VB",
                                     "Sennheiser HD 650", "Sennheiser HD 650 (worn earpads)", "Sennheiser HD 660 S",
                                     "Sennheiser HD 660S2", "Sennheiser HD 6XX", "Superlux HD 651", "Superlux HD 660",
                                     "Superlux HD 660 Pro 150 Ohm", "Superlux HD 662F", "Superlux HD 668B", "Superlux HD 681"}));
    // Letters and digits split words, whichever way the user types them; "DT 1770" is not "DT 770".
    const std::set<std::string> dt770 = {"Beyerdynamic DT 770 250 Ohm", "Beyerdynamic DT 770 80 Ohm", "Beyerdynamic DT 770 M",
                                         "Beyerdynamic DT 770 Pro"};
    EXPECT_EQ(nameSet(catalog().search("dt770")), dt770);
    EXPECT_EQ(nameSet(catalog().search("beyerdynamic dt-770")), dt770);
    EXPECT_EQ(names(catalog().search("m50x")), (std::vector<std::string>{"Audio-Technica ATH-M50x", "Audio-Technica ATH-M50xBT"}));
    // Case and accents never matter.
    EXPECT_EQ(names(catalog().search("ERLKÖNIG")), std::vector<std::string>{"Vision Ears Erlkönig"});
    EXPECT_EQ(names(catalog().search("erlkonig")), std::vector<std::string>{"Vision Ears Erlkönig"});
    // A word matching only the middle of a word does not count.
    EXPECT_TRUE(catalog().search("ennheiser").empty());
}

TEST(BundledProfileCatalogSearch, ExactThenPrefixThenFeaturedThenAlphabetical) {
    // Exact beats a featured prefix match.
    EXPECT_EQ(names(catalog().search("hd 800")),
              (std::vector<std::string>{"Sennheiser HD 800", "Sennheiser HD 800 S", "Sennheiser HD 800 (SDR mod) (sample 1)"}));
    // Among prefix matches the featured come first, then numbers in order of value.
    const auto hd6 = names(catalog().search("hd 6", 4));
    EXPECT_EQ(hd6, (std::vector<std::string>{"Sennheiser HD 600", "Sennheiser HD 650", "Sennheiser HD 6XX",
                                             "Sennheiser HD600 2020"}));
    // A prefix of the model outranks a match further inside the name.
    const auto pro = names(catalog().search("pro"));
    ASSERT_FALSE(pro.empty());
    EXPECT_EQ(BundledProfileCatalog::modelOf(pro.front()).substr(0, 3), "Pro") << pro.front();
}

TEST(BundledProfileCatalogSearch, FindsModelsByTheirSourceAndWearStyleAfterNameMatches) {
    const std::vector<std::tuple<const char*, const char*, std::size_t>> sources = {
        {"rtings", "rtings", 89}, {"RTINGS", "rtings", 89}, {"oratory", "oratory1990", 556},
        {"oratory1990", "oratory1990", 556}};
    for (const auto& [typed, source, count] : sources)
        EXPECT_EQ(countBySource(catalog().search(typed)), (std::map<std::string, std::size_t>{{source, count}})) << typed;
    // A model named after a source outranks the models that source measured.
    const auto moondrop = listed(catalog().search("crinacle moondrop"));
    ASSERT_EQ(moondrop.size(), 19u);
    EXPECT_EQ(moondrop.front(), (Listed{"Moondrop x Crinacle Blessing2 Dusk", "oratory1990"}));
    for (std::size_t i = 1; i < moondrop.size(); ++i) EXPECT_EQ(moondrop[i].second, "crinacle") << moondrop[i].first;

    const auto sonyInEar = catalog().search("sony in-ear");
    ASSERT_EQ(sonyInEar.size(), 35u);
    EXPECT_EQ(sonyInEar.front()->modelName, "Sony WF-1000XM4"); // the featured one
    for (const auto* p : sonyInEar) EXPECT_EQ(p->wearStyle, HeadphoneWearStyle::inEar) << p->modelName;
    EXPECT_EQ(nameSet(catalog().search("earbud")), (std::set<std::string>{"Apple AirPods", "Apple EarPods", "Sony XEA20 Xperia Ear Duo"}));
    // Names that hold the word come before the profiles found only by how they are worn.
    const auto over = catalog().search("over");
    ASSERT_EQ(over.size(), 646u);
    EXPECT_EQ(names({over.begin(), over.begin() + 3}),
              (std::vector<std::string>{"1MORE Triple Driver Over Ear", "Qudelix Qx-over", "Sennheiser HD1 Over-Ear"}));
    for (auto it = over.begin() + 3; it != over.end(); ++it) EXPECT_EQ((*it)->wearStyle, HeadphoneWearStyle::overEar) << (*it)->id;
}

TEST(BundledProfileCatalogSearch, APartialModelNameGivesOneOrderWhateverTheFileOrder) {
    const std::vector<Listed> he400 = {{"HIFIMAN HE400se", "oratory1990"},       {"HIFIMAN HE400i", "oratory1990"},
                                       {"HIFIMAN HE400i 2016", "crinacle"},      {"HIFIMAN HE400i (2016)", "oratory1990"},
                                       {"HIFIMAN HE400i 2020", "crinacle"},      {"HIFIMAN HE400i (2020)", "oratory1990"}};
    EXPECT_EQ(listed(catalog().search("he400")), he400);
    EXPECT_EQ(listed(catalog().search("he400", 3)), std::vector<Listed>(he400.begin(), he400.begin() + 3));

    test::TemporaryDirectory dir;
    const BundledProfileCatalog reversed(reversedCopy(kCatalogFile, dir / "reversed.json"));
    for (const char* typed : {"he400", "hd 6", "sony in-ear", "dt 250", "over", ""})
        EXPECT_EQ(ids(reversed.search(typed)), ids(catalog().search(typed))) << typed;
    EXPECT_EQ(reversed.brands(), catalog().brands());
    EXPECT_EQ(ids(reversed.models("Sennheiser")), ids(catalog().models("Sennheiser")));
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
    // Not a catalogue at all: refused by size before it is read.
    expectError(BundledProfileCatalog("/dev/zero"), "/dev/zero: larger than 64 MiB");

    // A failed load is tried again once the file is there.
    const fs::path later = dir / "later.json";
    BundledProfileCatalog retried(later);
    expectError(retried, "later.json");
    fs::copy_file(kCatalogFile, later);
    EXPECT_EQ(retried.profiles().size(), 1006u);
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
