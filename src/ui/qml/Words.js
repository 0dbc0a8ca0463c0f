.pragma library
// The desk's values as a person reads them. The desk sends fixed keys; only the view turns them
// into words, and nothing decides anything on these texts.

function category(key) {
    return ({ video: qsTr("video"), musicWebApp: qsTr("music web app"), videoWebApp: qsTr("video web app"),
              webApp: qsTr("web app"), browser: qsTr("browser"), entertainment: qsTr("music"),
              other: qsTr("application") })[key] || qsTr("application")
}

// A glyph that stands for the category where an application has no icon.
function categoryGlyph(key) {
    return ({ video: "▶", musicWebApp: "♪", videoWebApp: "▶", webApp: "◍", browser: "◍",
              entertainment: "♪" })[key] || "●"
}

function health(key) {
    return ({ idle: qsTr("Idle"), active: qsTr("Active"), lost: qsTr("Lost"), verifying: qsTr("Verifying"),
              verified: qsTr("Verified"), attention: qsTr("Attention"), paused: qsTr("Paused"),
              blocked: qsTr("Blocked") })[key] || key
}

function healthColour(key) {
    return ({ verified: "#2f9e6e", active: "#3b82c4", verifying: "#3b82c4", paused: "#8a8a8a",
              idle: "#8a8a8a", lost: "#c0392b", blocked: "#c0392b", attention: "#b9770e" })[key] || "#8a8a8a"
}

function mode(key) {
    return ({ off: qsTr("Off"), auto: qsTr("Auto"), on: qsTr("On") })[key] || key
}

// "+3.0 dB", "−1.5 dB": the sign always shown, a true minus sign.
function db(value, digits) {
    const d = digits === undefined ? 1 : digits
    if (Math.abs(value) < 0.05) return (0).toFixed(d) + " dB"
    return (value > 0 ? "+" : "−") + Math.abs(value).toFixed(d) + " dB"
}
