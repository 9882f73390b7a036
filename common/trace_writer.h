// The trace log behind initLog/dumpLog: human-readable entries appended to a file in the
// current folder, the file kept under the size given to initLog by dropping its oldest half.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/types.h>

namespace kelsim {

// One entry: "<date> <time>.<usec> [pid <n>] [<module>:<line> ]<text>", then the data, if
// any, as offset-and-hex lines of 16 bytes indented by four blanks.
std::string formatTraceEntry(const timespec &when, pid_t pid, const char *module, uint32_t line, const char *text,
                             const void *data, uint32_t dataLength);

// Where a file's newest part begins: the first entry that starts at or after `from`.
size_t nextEntryStart(const std::string &content, size_t from);

// The file stays open for the life of the process; each entry is added under flock, on
// the file the name stands for at that moment (another run may have replaced it).
class TraceLogWriter {
  public:
    TraceLogWriter() = default;
    ~TraceLogWriter();
    TraceLogWriter(const TraceLogWriter &) = delete;
    TraceLogWriter &operator=(const TraceLogWriter &) = delete;

    // Remembers the file (relative names stay relative to the current folder) and opens
    // it. maxSize 0 means no bound.
    bool open(const char *fileName, uint32_t maxSize);
    bool append(const char *module, uint32_t line, const char *text, const void *data, uint32_t dataLength);

  private:
    bool reopen();
    bool appendLocked(uint64_t size, const std::string &entry);

    std::string path_;
    uint32_t maxSize_ = 0;
    int fd_ = -1;
};

} // namespace kelsim
