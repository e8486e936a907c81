#include "stderr_capture.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

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
    std::string out;
    if (file_fd_ < 0)
        return out;
    char chunk[4096];
    off_t offset = 0;
    ssize_t n;
    while ((n = pread(file_fd_, chunk, sizeof(chunk), offset)) > 0) {
        out.append(chunk, (size_t)n);
        offset += n;
    }
    return out;
}

size_t StderrCapture::count(const std::string &needle) const
{
    std::string all = text();
    size_t found = 0;
    for (size_t at = all.find(needle); at != std::string::npos; at = all.find(needle, at + needle.size()))
        ++found;
    return found;
}

std::string StderrCapture::reporting_file(const std::string &function) const
{
    std::string all = text();
    size_t end = all.find(", " + function + ">: ");
    size_t start = end == std::string::npos ? end : all.rfind("<ERROR! ", end);
    if (start == std::string::npos)
        return "";
    std::string where = all.substr(start + 8, end - start - 8);
    where = where.substr(0, where.rfind(':'));
    size_t slash = where.rfind('/');
    return slash == std::string::npos ? where : where.substr(slash + 1);
}
