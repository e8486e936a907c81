#include "HLSClientLib.h"

#include <curl/curl.h>
#include <stdlib.h>
#include <string.h>

#include "hls_client.h"
#include "hls_log.h"

/* Library-wide settings, one set per process. They are written only by
 * hls_client_init and hls_client_destroy, which the host calls while no other
 * client call is in progress, so they need no lock. While the frame callback
 * is null the library counts as not initialised. */
static hls_frame_cb g_frame_cb;
static hls_status_cb g_status_cb;
static char *g_ca_path;          /* owned copy, lent to every channel stream */
static int32_t g_max_channels;
/* Whether the channel table exists: after a failed table allocation the
 * library is initialised but has no slot that a connect could use. */
static int g_have_table;
/* Whether this library holds a reference on libcurl's global state, so that a
 * destroy without init does not release a reference the host may own. */
static int g_curl_ready;

int32_t hls_client_init(int32_t max_channels, hls_frame_cb frame_cb, hls_status_cb status_cb,
                        const char *ca_path)
{
    if (max_channels < 1 || frame_cb == NULL || status_cb == NULL)
        return HLS_ERR_BAD_ARGUMENT;
    /* A second set-up without a tear-down would orphan the open channels, the
     * table and the CA path copy; it is refused and changes nothing. */
    if (g_frame_cb != NULL)
        return HLS_ERR_BAD_ARGUMENT;

    CURLcode code = curl_global_init(CURL_GLOBAL_ALL);
    if (code != CURLE_OK) {
        HLS_LOG_ERROR("hls_client_init", "curl_global_init() failed: %s\n", curl_easy_strerror(code));
        return HLS_ERR_HTTP_INIT;
    }
    g_curl_ready = 1;

    g_max_channels = max_channels;
    g_frame_cb = frame_cb;
    g_status_cb = status_cb;
    /* A failed copy simply leaves the library without a CA path. */
    g_ca_path = ca_path != NULL ? strdup(ca_path) : NULL;

    int32_t result = hls_init_all_channel(max_channels);
    g_have_table = result == HLS_OK;
    return result;
}

int32_t hls_client_destroy(void)
{
    hls_uninit_all_channel();
    g_have_table = 0;
    g_frame_cb = NULL;
    g_status_cb = NULL;
    g_max_channels = 0;
    if (g_curl_ready) {
        curl_global_cleanup();
        g_curl_ready = 0;
    }
    free(g_ca_path);
    g_ca_path = NULL;
    return HLS_OK;
}

int32_t hls_client_connect(int32_t channel, const hls_connect_param *param)
{
    /* Without a table there is no slot to touch: the host's remedy is
     * hls_client_destroy, so the library answers as if not initialised. */
    if (g_frame_cb == NULL || !g_have_table)
        return HLS_ERR_NOT_INITIALISED;
    if (channel < 0)
        return HLS_ERR_BAD_ARGUMENT;
    if (param == NULL || channel >= g_max_channels)
        return HLS_ERR_BAD_ARGUMENT;
    /* The URL must end inside its 512 characters and must not be empty. */
    const char *end = (const char *)memchr(param->url, '\0', sizeof(param->url));
    if (end == NULL || end == param->url)
        return HLS_ERR_BAD_ARGUMENT;
    if (param->connect_timeout < 1 || param->connect_timeout > 30)
        return HLS_ERR_BAD_ARGUMENT;
    return hls_append_new_channel(channel, param, g_ca_path, g_frame_cb, g_status_cb);
}

int32_t hls_client_disconnect(int32_t channel)
{
    if (g_frame_cb == NULL || !g_have_table)
        return HLS_ERR_NOT_INITIALISED;
    if (channel < 0 || channel >= g_max_channels)
        return HLS_ERR_BAD_ARGUMENT;
    return hls_remove_old_channel(channel);
}
