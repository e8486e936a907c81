#include "m3u8_downloader.h"

#include <string.h>
#include <sys/stat.h>

#include "hls_log.h"

int32_t check_ca_path_valid(const char *path, int32_t *is_dir)
{
    struct stat st;
    if (stat(path, &st) != 0)
        return 0;
    if (S_ISDIR(st.st_mode)) {
        *is_dir = 1;
        return 1;
    }
    if (S_ISREG(st.st_mode)) {
        *is_dir = 0;
        return 1;
    }
    return 0;
}

void hls_https_apply(CURL *curl, const char *url, const char *ca_path)
{
    if (strncmp(url, "https", 5) != 0)
        return;
    int32_t is_dir = 0;
    if (ca_path && check_ca_path_valid(ca_path, &is_dir)) {
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
        /* The host-name check keeps libcurl's default on this branch. */
        curl_easy_setopt(curl, is_dir ? CURLOPT_CAPATH : CURLOPT_CAINFO, ca_path);
        return;
    }
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
}
