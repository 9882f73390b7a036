// Captures what a call prints on standard output by pointing fd 1 at a temporary file.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

class StdoutCapture {
  public:
    StdoutCapture() {
        fflush(stdout);
        savedFd_ = dup(STDOUT_FILENO);
        file_ = tmpfile();
        dup2(fileno(file_), STDOUT_FILENO);
    }
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;
    ~StdoutCapture() {
        restore();
        if (file_ != nullptr) {
            fclose(file_);
        }
    }

    // Ends the capture and returns everything printed since it began.
    std::string text() {
        restore();
        std::string captured;
        rewind(file_);
        char chunk[4096];
        size_t got = 0;
        while ((got = fread(chunk, 1, sizeof chunk, file_)) > 0) {
            captured.append(chunk, got);
        }
        return captured;
    }

  private:
    void restore() {
        if (savedFd_ >= 0) {
            fflush(stdout);
            dup2(savedFd_, STDOUT_FILENO);
            close(savedFd_);
            savedFd_ = -1;
        }
    }

    int savedFd_ = -1;
    FILE *file_ = nullptr;
};

// Runs body and returns its screen output.
template <typename Body> std::string screenOf(Body body) {
    StdoutCapture capture;
    body();
    return capture.text();
}
