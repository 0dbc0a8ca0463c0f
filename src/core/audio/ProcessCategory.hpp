#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace tarn {

// What kind of application a captured process is: the identity tables and the web-app classifier
// that the I/O buffer policy and process discovery share.
//
// An identity is a macOS bundle identifier or, on Linux, a Flatpak application id, an
// `application.id`, or an executable name. Each table holds the macOS identities first and then
// the Linux identities of the same applications; every rule applies to both alike.
namespace ProcessCategory {

enum class WebAppKind { music, video, unknown };

// Exact, case-sensitive membership.
bool isEntertainment(std::string_view bundleID);
bool isVideo(std::string_view bundleID);
// The identity starts with one of `webAppBundlePrefixes`.
bool isWebApp(std::string_view bundleID);
// None for anything that is not a web app; otherwise decided by the display name, music keywords
// before video keywords (so "YouTube Music" is music, not video).
std::optional<WebAppKind> classifyWebApp(std::string_view bundleID, std::optional<std::string_view> displayName);
// The identity starts with one of `browserBundleIDs` (a browser or one of its helper processes).
bool isBrowser(std::string_view bundleID);

// The one decision the buffer policy and the command line's labels share: video before web apps
// before browsers before entertainment.
enum class Kind { video, musicWebApp, videoWebApp, webApp, browser, entertainment, other };
Kind kindOf(std::string_view bundleID, std::optional<std::string_view> displayName);
// "video", "musicWebApp", "videoWebApp", "webApp", "browser", "entertainment" or "other".
std::string_view label(Kind kind);

std::span<const std::string_view> entertainmentBundleIDs();
std::span<const std::string_view> videoBundleIDs();
std::span<const std::string_view> webAppBundlePrefixes();
std::span<const std::string_view> musicKeywords();
std::span<const std::string_view> videoKeywords();
std::span<const std::string_view> browserBundleIDs();
inline constexpr std::string_view webKitGPUBundleID = "com.apple.WebKit.GPU";

} // namespace ProcessCategory
} // namespace tarn
