// A folder of a test's own under /tmp, made when the test starts and removed with all it
// holds when the test ends, whatever the test did.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

class ScratchFolder {
  public:
    // /tmp/<prefix>-XXXXXX; path() is empty if the folder could not be made.
    explicit ScratchFolder(const std::string &prefix) {
        std::string pattern = "/tmp/" + prefix + "-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) {
            path_ = pattern;
        }
    }
    ~ScratchFolder() {
        std::error_code ignored;
        if (!path_.empty()) {
            std::filesystem::remove_all(path_, ignored);
        }
    }
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;

    const std::string &path() const { return path_; }

  private:
    std::string path_;
};
