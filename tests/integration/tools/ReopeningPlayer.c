/* A test application that plays a sine, closes its stream and later opens a new one at another
 * sample rate, in the same process: what a browser does after a pause, or a player whose next
 * file has another rate. Its identity is its own (application.id = NAME), so that two of them
 * are two applications.
 *
 *   tarn_reopening_player NAME FREQUENCY AMPLITUDE [CLOSE_AFTER_MS REOPEN_AFTER_MS REOPEN_RATE]
 *
 * Without the last three arguments it plays one stream until it is stopped.
 */
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

struct player {
    struct pw_main_loop *loop;
    struct pw_stream *stream;
    const char *name;
    double frequency, amplitude, phase;
    uint32_t rate;
    uint32_t reopenRate;
};

static void on_process(void *data) {
    struct player *p = data;
    struct pw_buffer *b = pw_stream_dequeue_buffer(p->stream);
    if (!b) return;
    struct spa_data *d = &b->buffer->datas[0];
    float *out = d->data;
    if (!out) { pw_stream_queue_buffer(p->stream, b); return; }
    uint32_t frames = d->maxsize / (2 * sizeof(float));
    if (b->requested && b->requested < frames) frames = b->requested;
    const double step = 2 * M_PI * p->frequency / p->rate;
    for (uint32_t i = 0; i < frames; ++i) {
        const float v = (float)(p->amplitude * sin(p->phase));
        out[i * 2] = out[i * 2 + 1] = v;
        p->phase = fmod(p->phase + step, 2 * M_PI);
    }
    d->chunk->offset = 0;
    d->chunk->stride = 2 * sizeof(float);
    d->chunk->size = frames * 2 * sizeof(float);
    pw_stream_queue_buffer(p->stream, b);
}

static const struct pw_stream_events events = {.version = PW_VERSION_STREAM_EVENTS, .process = on_process};

static void open_stream(struct player *p) {
    p->stream = pw_stream_new_simple(pw_main_loop_get_loop(p->loop), p->name,
                                     pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback",
                                                       PW_KEY_MEDIA_ROLE, "Music", PW_KEY_APP_NAME, p->name,
                                                       PW_KEY_APP_ID, p->name, NULL),
                                     &events, p);
    uint8_t buffer[1024];
    struct spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
    struct spa_audio_info_raw info = {.format = SPA_AUDIO_FORMAT_F32, .rate = p->rate, .channels = 2};
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const struct spa_pod *params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    pw_stream_connect(p->stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                      PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS, params, 1);
}

static void on_close(void *data, uint64_t expirations) {
    struct player *p = data;
    if (p->stream) pw_stream_destroy(p->stream);
    p->stream = NULL;
}

static void on_reopen(void *data, uint64_t expirations) {
    struct player *p = data;
    p->rate = p->reopenRate;
    open_stream(p);
}

static void on_signal(void *data, int sig) {
    struct player *p = data;
    pw_main_loop_quit(p->loop);
}

static void arm(struct player *p, void (*fn)(void *, uint64_t), int ms) {
    struct spa_source *timer = pw_loop_add_timer(pw_main_loop_get_loop(p->loop), fn, p);
    struct timespec after = {.tv_sec = ms / 1000, .tv_nsec = (ms % 1000) * 1000000L};
    pw_loop_update_timer(pw_main_loop_get_loop(p->loop), timer, &after, NULL, false);
}

int main(int argc, char **argv) {
    if (argc != 4 && argc != 7) {
        fprintf(stderr, "usage: %s NAME FREQUENCY AMPLITUDE [CLOSE_AFTER_MS REOPEN_AFTER_MS REOPEN_RATE]\n", argv[0]);
        return 2;
    }
    struct player p = {0};
    p.name = argv[1];
    p.frequency = atof(argv[2]);
    p.amplitude = atof(argv[3]);
    p.rate = 48000;
    pw_init(&argc, &argv);
    p.loop = pw_main_loop_new(NULL);
    pw_loop_add_signal(pw_main_loop_get_loop(p.loop), SIGINT, on_signal, &p);
    pw_loop_add_signal(pw_main_loop_get_loop(p.loop), SIGTERM, on_signal, &p);
    open_stream(&p);
    if (argc == 7) {
        p.reopenRate = (uint32_t)atoi(argv[6]);
        arm(&p, on_close, atoi(argv[4]));
        arm(&p, on_reopen, atoi(argv[5]));
    }
    pw_main_loop_run(p.loop);
    if (p.stream) pw_stream_destroy(p.stream);
    pw_main_loop_destroy(p.loop);
    pw_deinit();
    return 0;
}
