#include "core/audio/ProcessCategory.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

namespace tarn::ProcessCategory {

namespace {

using namespace std::string_view_literals;

constexpr std::array entertainment{
    // macOS bundle identifiers.
    "com.apple.Music"sv, "com.apple.TV"sv, "com.apple.podcasts"sv, "com.apple.iTunes"sv,
    "com.apple.QuickTimePlayerX"sv, "com.spotify.client"sv, "com.tidal.TIDAL"sv, "com.amazon.AmazonMusic"sv,
    "com.soundcloud.SoundCloud"sv, "com.dezeer.Deezer"sv, "tv.plex.plexamp"sv, "com.audirvana.Audirvana"sv,
    "com.roonlabs.roon"sv, "com.qobuz.desktop"sv, "com.pandora.desktop"sv, "org.videolan.vlc"sv,
    "com.colliderli.iina"sv, "org.xbmc.kodi"sv, "com.movist.Movist"sv, "com.movist.MovistPro"sv,
    "com.firecore.infuse"sv, "com.Eltima.ElmediaPlayer"sv, "com.Eltima.ElmediaPlayer.MAS"sv,
    "com.eltima.elmedia6.mas"sv, "com.netflix.Netflix"sv, "tv.plex.plex"sv, "com.disney.disneyplus"sv,
    "com.peacocktv.peacock"sv, "com.amazon.aiv.AIVApp"sv, "com.wbd.stream"sv, "com.hulu.HuluPlus"sv,
    "com.mubi.mubi"sv, "com.paramount.paramountplus"sv, "com.overcast.Overcast.macos"sv,
    "com.pocketcasts.pocketcasts"sv, "com.audible.application"sv,
    // Linux: Flatpak application ids.
    "com.spotify.Client"sv, "org.videolan.VLC"sv, "io.mpv.Mpv"sv, "tv.plex.PlexDesktop"sv, "tv.plex.Plexamp"sv,
    "tv.kodi.Kodi"sv, "org.gnome.Totem"sv, "org.gnome.Rhythmbox3"sv, "org.kde.elisa"sv, "io.github.celluloid_player.Celluloid"sv,
    "org.gnome.Lollypop"sv, "org.strawberrymusicplayer.strawberry"sv, "org.clementine_player.Clementine"sv,
    "com.github.neithern.g4music"sv, "org.gnome.Music"sv, "org.gnome.Podcasts"sv, "com.tidal-hifi.TidalHifi"sv,
    "dev.aunetx.deezer"sv, "com.github.KRTirtho.Spotube"sv,
    // Linux: executable names.
    "spotify"sv, "vlc"sv, "mpv"sv, "totem"sv, "rhythmbox"sv, "elisa"sv, "kodi"sv, "celluloid"sv, "lollypop"sv,
    "strawberry"sv, "clementine"sv, "audacious"sv, "gnome-music"sv, "plexamp"sv, "smplayer"sv, "haruna"sv,
    "tidal-hifi"sv,
};

constexpr std::array video{
    // macOS bundle identifiers.
    "com.apple.TV"sv, "com.apple.QuickTimePlayerX"sv, "com.netflix.Netflix"sv, "com.disney.disneyplus"sv,
    "tv.plex.plex"sv, "com.peacocktv.peacock"sv, "com.amazon.aiv.AIVApp"sv, "com.hulu.HuluPlus"sv,
    "com.wbd.stream"sv, "com.paramount.paramountplus"sv, "com.mubi.mubi"sv, "com.colliderli.iina"sv,
    "com.movist.Movist"sv, "com.movist.MovistPro"sv, "com.firecore.infuse"sv, "com.Eltima.ElmediaPlayer"sv,
    "com.Eltima.ElmediaPlayer.MAS"sv, "com.eltima.elmedia6.mas"sv,
    // Linux: video players (VLC and Kodi stay entertainment only, as on macOS).
    "io.mpv.Mpv"sv, "tv.plex.PlexDesktop"sv, "org.gnome.Totem"sv, "io.github.celluloid_player.Celluloid"sv,
    "mpv"sv, "totem"sv, "celluloid"sv, "smplayer"sv, "haruna"sv,
};

constexpr std::array webAppPrefixes{
    "com.apple.Safari.WebApp."sv, "com.google.Chrome.app."sv, "com.microsoft.edgemac.app."sv,
    "com.brave.Browser.app."sv,
};

constexpr std::array musicWords{
    "youtube music"sv, "music.youtube"sv, "spotify"sv, "soundcloud"sv, "apple music"sv, "tidal"sv,
    "deezer"sv, "bandcamp"sv, "jiosaavn"sv, "saavn"sv, "gaana"sv, "wynk"sv, "qobuz"sv, "pandora"sv,
    "iheartradio"sv, "iheart"sv, "amazon music"sv, "anghami"sv, "napster"sv, "audible"sv, "overcast"sv,
    "pocket casts"sv, "audiomack"sv,
};

constexpr std::array videoWords{
    "youtube"sv, "netflix"sv, "twitch"sv, "prime video"sv, "primevideo"sv, "disney"sv, "hulu"sv, "hbo"sv,
    "crunchyroll"sv, "vimeo"sv, "peacock"sv, "paramount"sv, "plex"sv, "hotstar"sv, "jiocinema"sv,
    "dailymotion"sv, "mubi"sv, "britbox"sv, "discovery+"sv, "hbomax"sv, "hbo max"sv, "apple tv"sv,
    "sonyliv"sv, "zee5"sv, "voot"sv, "iqiyi"sv, "bilibili"sv, "rakuten"sv, "curiositystream"sv, "tubi"sv,
    "pluto tv"sv, "shudder"sv,
};

constexpr std::array browsers{
    // macOS bundle identifiers, in the order the buffer policy tests them.
    "com.apple.Safari"sv, "com.google.Chrome"sv, "org.mozilla.firefox"sv, "com.microsoft.edgemac"sv,
    "company.thebrowser.Browser"sv, "com.brave.Browser"sv, "com.operasoftware.Opera"sv,
    "com.vivaldi.Vivaldi"sv,
    // Linux: Flatpak ids (Firefox's and Chrome's are already covered by the prefixes above).
    "org.chromium.Chromium"sv, "com.microsoft.Edge"sv, "com.opera.Opera"sv,
    "io.github.ungoogled_software.ungoogled_chromium"sv, "org.gnome.Epiphany"sv, "app.zen_browser.zen"sv,
    "io.gitlab.librewolf-community"sv,
    // Linux: executable names, as prefixes ("firefox" covers "firefox-esr", "chrome" covers
    // "chromium" and "chrome_crashpad_handler", "brave" covers "brave-browser").
    "firefox"sv, "chrome"sv, "chromium"sv, "google-chrome"sv, "brave"sv, "msedge"sv, "microsoft-edge"sv,
    "opera"sv, "vivaldi"sv, "epiphany"sv, "librewolf"sv,
};

bool contains(std::span<const std::string_view> table, std::string_view value) {
    return std::find(table.begin(), table.end(), value) != table.end();
}

bool startsWithAny(std::span<const std::string_view> prefixes, std::string_view value) {
    return std::any_of(prefixes.begin(), prefixes.end(), [&](std::string_view p) { return value.starts_with(p); });
}

bool containsAny(std::span<const std::string_view> words, std::string_view text) {
    return std::any_of(words.begin(), words.end(), [&](std::string_view w) { return text.find(w) != std::string_view::npos; });
}

} // namespace

std::span<const std::string_view> entertainmentBundleIDs() { return entertainment; }
std::span<const std::string_view> videoBundleIDs() { return video; }
std::span<const std::string_view> webAppBundlePrefixes() { return webAppPrefixes; }
std::span<const std::string_view> musicKeywords() { return musicWords; }
std::span<const std::string_view> videoKeywords() { return videoWords; }
std::span<const std::string_view> browserBundleIDs() { return browsers; }

bool isEntertainment(std::string_view bundleID) { return contains(entertainment, bundleID); }
bool isVideo(std::string_view bundleID) { return contains(video, bundleID); }
bool isWebApp(std::string_view bundleID) { return startsWithAny(webAppPrefixes, bundleID); }
bool isBrowser(std::string_view bundleID) { return startsWithAny(browsers, bundleID); }

Kind kindOf(std::string_view bundleID, std::optional<std::string_view> displayName) {
    if (isVideo(bundleID)) return Kind::video;
    if (auto kind = classifyWebApp(bundleID, displayName)) {
        switch (*kind) {
        case WebAppKind::music: return Kind::musicWebApp;
        case WebAppKind::video: return Kind::videoWebApp;
        case WebAppKind::unknown: return Kind::webApp;
        }
    }
    if (isBrowser(bundleID)) return Kind::browser;
    if (isEntertainment(bundleID)) return Kind::entertainment;
    return Kind::other;
}

std::string_view label(Kind kind) {
    switch (kind) {
    case Kind::video: return "video";
    case Kind::musicWebApp: return "musicWebApp";
    case Kind::videoWebApp: return "videoWebApp";
    case Kind::webApp: return "webApp";
    case Kind::browser: return "browser";
    case Kind::entertainment: return "entertainment";
    case Kind::other: break;
    }
    return "other";
}

std::optional<WebAppKind> classifyWebApp(std::string_view bundleID, std::optional<std::string_view> displayName) {
    if (!isWebApp(bundleID)) return std::nullopt;
    std::string lowered(displayName.value_or(std::string_view{}));
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (containsAny(musicWords, lowered)) return WebAppKind::music;
    if (containsAny(videoWords, lowered)) return WebAppKind::video;
    return WebAppKind::unknown;
}

} // namespace tarn::ProcessCategory
