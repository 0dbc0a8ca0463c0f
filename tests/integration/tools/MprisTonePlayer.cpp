// A test application that plays a sine on a PipeWire stream and, in the same process, tells the
// session bus what it plays through MPRIS. Its Pause and Play change what it says (PlaybackStatus,
// with PropertiesChanged) but never its sound: a player that reports paused while its stream
// still plays, which the desk must treat as silent.
//
//   tarn_mpris_tone_player IDENTITY FREQUENCY AMPLITUDE TITLE ARTIST GENRE [ALBUM [LENGTH_SECONDS]]
//
// IDENTITY is its application.id and application.name, and its MPRIS Identity and DesktopEntry.
// It owns org.mpris.MediaPlayer2.tarntest.instance<pid> (an element of a bus name may not begin
// with a digit) and prints that name on a line of its own once the name is taken and the stream
// is in the graph. It starts Playing, and stops cleanly on SIGTERM or SIGINT.
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <optional>
#include <string>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QSocketNotifier>

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "dbus/MprisTestPlayer.hpp"

namespace {

constexpr std::uint32_t sampleRate = 48000;
constexpr std::uint32_t channelCount = 2;
constexpr double maxFrequency = sampleRate / 2.0;
constexpr int streamReadySeconds = 10;
constexpr double microsecondsPerSecond = 1e6;

struct Tone {
    pw_thread_loop* loop = nullptr;
    pw_stream* stream = nullptr;
    double frequency = 0.0, amplitude = 0.0;
    double phase = 0.0; // the data thread's alone
    std::atomic<pw_stream_state> state = PW_STREAM_STATE_UNCONNECTED;
};

// The data thread: no locks, no allocation, no system calls.
void onProcess(void* data) {
    auto* tone = static_cast<Tone*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(tone->stream);
    if (!buffer) return;
    spa_data& d = buffer->buffer->datas[0];
    auto* out = static_cast<float*>(d.data);
    if (!out) {
        pw_stream_queue_buffer(tone->stream, buffer);
        return;
    }
    std::uint32_t frames = d.maxsize / (channelCount * sizeof(float));
    if (buffer->requested && buffer->requested < frames) frames = std::uint32_t(buffer->requested);
    const double step = 2 * std::numbers::pi * tone->frequency / sampleRate;
    for (std::uint32_t i = 0; i < frames; ++i) {
        const auto v = float(tone->amplitude * std::sin(tone->phase));
        for (std::uint32_t c = 0; c < channelCount; ++c) out[i * channelCount + c] = v;
        tone->phase = std::fmod(tone->phase + step, 2 * std::numbers::pi);
    }
    d.chunk->offset = 0;
    d.chunk->stride = channelCount * sizeof(float);
    d.chunk->size = frames * channelCount * sizeof(float);
    pw_stream_queue_buffer(tone->stream, buffer);
}

void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char* error) {
    auto* tone = static_cast<Tone*>(data);
    tone->state = state;
    if (state == PW_STREAM_STATE_ERROR) std::fprintf(stderr, "the stream failed: %s\n", error ? error : "unknown");
    pw_thread_loop_signal(tone->loop, false);
}

const pw_stream_events streamEvents = [] {
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = onStateChanged;
    events.process = onProcess;
    return events;
}();

// Opens the stream and waits until it is in the graph; false when it cannot be.
bool openStream(Tone& tone, const std::string& identity) {
    pw_thread_loop_lock(tone.loop);
    tone.stream = pw_stream_new_simple(pw_thread_loop_get_loop(tone.loop), identity.c_str(),
                                       pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback",
                                                         PW_KEY_MEDIA_ROLE, "Music", PW_KEY_APP_NAME, identity.c_str(),
                                                         PW_KEY_APP_ID, identity.c_str(), nullptr),
                                       &streamEvents, &tone);
    std::uint8_t podBuffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(podBuffer, sizeof podBuffer);
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.rate = sampleRate;
    info.channels = channelCount;
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    const auto flags = pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS);
    bool ready = tone.stream && pw_stream_connect(tone.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY, flags, params, 1) >= 0;
    while (ready && tone.state != PW_STREAM_STATE_PAUSED && tone.state != PW_STREAM_STATE_STREAMING) {
        if (tone.state == PW_STREAM_STATE_ERROR || pw_thread_loop_timed_wait(tone.loop, streamReadySeconds) != 0)
            ready = false;
    }
    pw_thread_loop_unlock(tone.loop);
    return ready;
}

std::optional<double> number(const char* text, double low, double high) {
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(value) || value < low || value > high) return std::nullopt;
    return value;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 7 || argc > 9) {
        std::fprintf(stderr, "usage: %s IDENTITY FREQUENCY AMPLITUDE TITLE ARTIST GENRE [ALBUM [LENGTH_SECONDS]]\n", argv[0]);
        return 2;
    }
    const std::string identity = argv[1];
    const auto frequency = number(argv[2], 1.0, maxFrequency);
    const auto amplitude = number(argv[3], 0.0, 1.0);
    const auto length = argc == 9 ? number(argv[8], 0.001, 1e7) : std::nullopt;
    if (identity.empty() || !frequency || !amplitude || (argc == 9 && !length)) {
        std::fprintf(stderr, "%s: IDENTITY must not be empty, FREQUENCY must lie in 1…%g Hz, AMPLITUDE in 0…1, "
                             "LENGTH_SECONDS above 0\n", argv[0], maxFrequency);
        return 2;
    }

    // Blocked before any thread starts, so that every thread inherits the mask and the signals
    // reach only the descriptor the event loop reads.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    const int signalDescriptor = signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signalDescriptor < 0) {
        std::perror("signalfd");
        return 1;
    }

    QCoreApplication app(argc, argv);
    QSocketNotifier stopNotifier(signalDescriptor, QSocketNotifier::Read);
    QObject::connect(&stopNotifier, &QSocketNotifier::activated, &app, [&] {
        signalfd_siginfo info;
        while (read(signalDescriptor, &info, sizeof info) > 0) {}
        app.quit();
    });

    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        std::fprintf(stderr, "%s: no session bus: %s\n", argv[0], qPrintable(bus.lastError().message()));
        return 1;
    }
    const QString busName = QStringLiteral("org.mpris.MediaPlayer2.tarntest.instance%1").arg(getpid());
    tarn::test::MprisTestPlayer player(bus, busName);
    using Player = tarn::test::MprisTestPlayer;
    const QString qIdentity = QString::fromStdString(identity);
    player.set(Player::rootInterface, QStringLiteral("Identity"), qIdentity, false);
    player.set(Player::rootInterface, QStringLiteral("DesktopEntry"), qIdentity, false);
    player.set(Player::playerInterface, QStringLiteral("PlaybackStatus"), QStringLiteral("Playing"), false);
    const QString album = argc >= 8 ? QString::fromLocal8Bit(argv[7]) : QString();
    auto metadata = Player::track(QString::fromLocal8Bit(argv[4]), {QString::fromLocal8Bit(argv[5])}, album,
                                  {QString::fromLocal8Bit(argv[6])}, qlonglong(std::llround(length.value_or(0.0) * microsecondsPerSecond)),
                                  QStringLiteral("/org/tarn/test/track/1"));
    if (!length) metadata.remove(QStringLiteral("mpris:length"));
    player.set(Player::playerInterface, QStringLiteral("Metadata"), metadata, false);

    pw_init(&argc, &argv);
    Tone tone;
    tone.frequency = *frequency;
    tone.amplitude = *amplitude;
    tone.loop = pw_thread_loop_new("tone", nullptr);
    int status = 0;
    if (!tone.loop || pw_thread_loop_start(tone.loop) < 0 || !openStream(tone, identity)) {
        std::fprintf(stderr, "%s: the sound server cannot be reached or refuses the stream\n", argv[0]);
        status = 1;
    } else if (!player.publish()) {
        std::fprintf(stderr, "%s: cannot own %s: %s\n", argv[0], qPrintable(busName), qPrintable(bus.lastError().message()));
        status = 1;
    } else {
        std::printf("%s\n", qPrintable(busName));
        std::fflush(stdout);
        status = app.exec();
    }

    player.unpublish();
    if (tone.loop) {
        pw_thread_loop_lock(tone.loop);
        if (tone.stream) pw_stream_destroy(tone.stream);
        pw_thread_loop_unlock(tone.loop);
        pw_thread_loop_stop(tone.loop);
        pw_thread_loop_destroy(tone.loop);
    }
    pw_deinit();
    close(signalDescriptor);
    return status;
}
