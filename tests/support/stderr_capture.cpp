#include "stderr_capture.h"

#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

StderrCapture::StderrCapture()
{
    fflush(stderr);
    char path[] = "/tmp/hls-stderr-XXXXXX";
    file_fd_ = mkstemp(path);
    if (file_fd_ < 0)
        return;
    unlink(path);
    saved_fd_ = dup(2);
    dup2(file_fd_, 2);
}

StderrCapture::~StderrCapture()
{
    fflush(stderr);
    if (saved_fd_ >= 0) {
        dup2(saved_fd_, 2);
        close(saved_fd_);
    }
    if (file_fd_ >= 0)
        close(file_fd_);
}

std::string StderrCapture::text() const
{
    fflush(stderr);
    // The file is unlinked; its descriptor's name still opens it.
    std::ifstream in("/proc/self/fd/" + std::to_string(file_fd_), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

size_t StderrCapture::count(const std::string &needle) const
{
    std::string all = text();
    size_t found = 0;
    for (size_t at = all.find(needle); at != std::string::npos; at = all.find(needle, at + needle.size()))
        ++found;
    return found;
}
