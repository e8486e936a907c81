// Captures everything written to file descriptor 2 (the library's error
// lines) into a temporary file for the life of the object.
#pragma once

#include <string>

class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;

    // Everything captured so far.
    std::string text() const;
    // True when `needle` has been captured.
    bool contains(const std::string &needle) const { return text().find(needle) != std::string::npos; }
    // Number of non-overlapping occurrences of `needle` captured so far.
    size_t count(const std::string &needle) const;

private:
    int saved_fd_ = -1;
    int file_fd_ = -1;
};
