/* A test application that plays one-sample impulses on one channel of a stereo stream, at every
 * multiple of PERIOD frames of the graph clock. Two of them on the same driver put their impulses
 * on the same clock positions, so the offset between them on a sink is the extra latency of the
 * path one of them took.
 *
 *   tarn_impulse_player CHANNEL PERIOD NAME [SECOND_STREAM_AFTER_MS]
 *
 * With the fourth argument, a second, identical stream of the same process starts that much later
 * (an application that opens another stream while it is being routed).
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <pipewire/pipewire.h>
#include <spa/node/io.h>
#include <spa/param/audio/format-utils.h>

struct player {
    struct pw_main_loop *loop;
    struct pw_stream *stream;
    struct spa_io_position *position;
    int channel;
    uint64_t period;
};

static void on_io_changed(void *data, uint32_t id, void *area, uint32_t size) {
    struct player *p = data;
    if (id == SPA_IO_Position) p->position = area;
}

static void on_process(void *data) {
    struct player *p = data;
    struct pw_buffer *b = pw_stream_dequeue_buffer(p->stream);
    if (!b) return;
    struct spa_data *d = &b->buffer->datas[0];
    float *out = d->data;
    if (!out) { pw_stream_queue_buffer(p->stream, b); return; }
    uint32_t frames = d->maxsize / (2 * sizeof(float));
    if (b->requested && b->requested < frames) frames = b->requested;
    memset(out, 0, frames * 2 * sizeof(float));
    if (p->position) {
        uint64_t start = p->position->clock.position;
        for (uint32_t i = 0; i < frames; ++i)
            if ((start + i) % p->period == 0) out[i * 2 + p->channel] = 0.4f;
    }
    d->chunk->offset = 0;
    d->chunk->stride = 2 * sizeof(float);
    d->chunk->size = frames * 2 * sizeof(float);
    pw_stream_queue_buffer(p->stream, b);
}

static void on_signal(void *data, int sig) {
    struct player *p = data;
    pw_main_loop_quit(p->loop);
}

static struct pw_stream_events events = {.version = PW_VERSION_STREAM_EVENTS};
static const char *stream_name;

static void connect_stream(struct player *p) {
    p->stream = pw_stream_new_simple(pw_main_loop_get_loop(p->loop), stream_name,
                                     pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback",
                                                       PW_KEY_MEDIA_ROLE, "Music", PW_KEY_APP_NAME, stream_name,
                                                       PW_KEY_NODE_NAME, stream_name, NULL),
                                     &events, p);
    uint8_t buffer[1024];
    struct spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
    struct spa_audio_info_raw info = {.format = SPA_AUDIO_FORMAT_F32, .rate = 48000, .channels = 2};
    info.position[0] = SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
    const struct spa_pod *params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    pw_stream_connect(p->stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                      PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS, params, 1);
}

static struct player second;

static void on_second_stream(void *data, uint64_t expirations) {
    connect_stream(&second);
}

int main(int argc, char **argv) {
    if (argc != 4 && argc != 5) {
        fprintf(stderr, "usage: %s CHANNEL PERIOD NAME [SECOND_STREAM_AFTER_MS]\n", argv[0]);
        return 2;
    }
    struct player p = {0};
    p.channel = atoi(argv[1]) ? 1 : 0;
    p.period = strtoull(argv[2], NULL, 10);
    pw_init(&argc, &argv);
    p.loop = pw_main_loop_new(NULL);
    pw_loop_add_signal(pw_main_loop_get_loop(p.loop), SIGINT, on_signal, &p);
    pw_loop_add_signal(pw_main_loop_get_loop(p.loop), SIGTERM, on_signal, &p);
    events.io_changed = on_io_changed;
    events.process = on_process;
    stream_name = argv[3];
    connect_stream(&p);
    if (argc == 5) {
        second = p;
        second.stream = NULL;
        second.position = NULL;
        struct spa_source *timer = pw_loop_add_timer(pw_main_loop_get_loop(p.loop), on_second_stream, NULL);
        struct timespec after = {.tv_sec = atoi(argv[4]) / 1000, .tv_nsec = (atoi(argv[4]) % 1000) * 1000000L};
        pw_loop_update_timer(pw_main_loop_get_loop(p.loop), timer, &after, NULL, false);
    }
    pw_main_loop_run(p.loop);
    pw_stream_destroy(p.stream);
    if (second.stream) pw_stream_destroy(second.stream);
    pw_main_loop_destroy(p.loop);
    pw_deinit();
    return 0;
}
