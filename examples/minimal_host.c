/* The smallest useful host: plays one URL on channel 0, counts the frames
 * that arrive and prints every status change; on SIGINT or SIGTERM it
 * disconnects, prints the count and exits, with status 1 when no frame
 * arrived. The demultiplexers come from libhostdemux and libcurl is linked
 * here, as the library expects of its host (examples/CMakeLists.txt, or
 * pkg-config as in the README).
 *
 *   minimal_host URL [CA_PATH]    (CA_PATH defaults to /etc/ssl/certs) */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "HLSClientLib.h"

static volatile sig_atomic_t stop_requested = 0;

/* Frames arrive on the library's threads; main reads the count. */
static pthread_mutex_t count_lock = PTHREAD_MUTEX_INITIALIZER;
static unsigned long frame_count = 0;

static void on_signal(int signo)
{
    (void)signo;
    stop_requested = 1;
}

/* The frame's bytes belong to the library and are gone once this returns:
 * a real host copies what it keeps. No client call may be made from here. */
static int32_t on_frame(int32_t channel, frame_info *info, uint8_t *data)
{
    (void)channel;
    (void)info;
    (void)data;
    pthread_mutex_lock(&count_lock);
    frame_count++;
    pthread_mutex_unlock(&count_lock);
    return 0;
}

static void on_status(int32_t channel, int32_t status)
{
    printf("channel %d: %s\n", (int)channel, status == HLS_STREAM_STARTED ? "started" : "stopped");
    fflush(stdout);
}

int main(int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s URL [CA_PATH]\n", argv[0]);
        return 2;
    }

    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);

    const char *ca_path = argc == 3 ? argv[2] : "/etc/ssl/certs";
    int32_t result = hls_client_init(1, on_frame, on_status, ca_path);
    if (result != 0) {
        fprintf(stderr, "hls_client_init: %d\n", (int)result);
        return 2;
    }
    hls_connect_param param;
    memset(&param, 0, sizeof param);
    snprintf(param.url, sizeof param.url, "%s", argv[1]);
    param.connect_timeout = 10;
    param.timeout = 30;
    result = hls_client_connect(0, &param);
    if (result != 0) {
        fprintf(stderr, "hls_client_connect(%s): %d\n", argv[1], (int)result);
        hls_client_destroy();
        return 2;
    }
    printf("playing %s (%s), Ctrl-C to stop\n", argv[1], HLSCLIENT_VERSION_STRING);
    fflush(stdout);

    struct timespec tick = {0, 100 * 1000 * 1000};
    while (!stop_requested)
        nanosleep(&tick, NULL);

    /* After the disconnect no callback runs for the channel any more. */
    hls_client_disconnect(0);
    hls_client_destroy();
    pthread_mutex_lock(&count_lock);
    unsigned long frames = frame_count;
    pthread_mutex_unlock(&count_lock);
    printf("frames: %lu\n", frames);
    return frames > 0 ? 0 : 1;
}
