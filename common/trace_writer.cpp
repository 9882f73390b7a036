// The trace log writer: entry format, bounding by rewriting the newest half, and locking
// so that runs in the same folder at the same time neither interleave nor lose entries.
#include "trace_writer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace kelsim {
namespace {

bool writeAll(int fd, const char *bytes, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, bytes, size);
        if (n <= 0) {
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// The file from offset `from` to its end (`size` bytes long).
bool readTail(int fd, uint64_t from, uint64_t size, std::string *content) {
    content->resize(static_cast<size_t>(size - from));
    size_t done = 0;
    while (done < content->size()) {
        ssize_t n = pread(fd, &(*content)[done], content->size() - done, static_cast<off_t>(from + done));
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// "2024-05-01 12:34:56." at pos: the start of an entry.
bool entryStartsAt(const std::string &content, size_t pos) {
    static const char pattern[] = "dddd-dd-dd dd:dd:dd.";
    if (pos + sizeof pattern - 1 > content.size()) {
        return false;
    }
    for (size_t i = 0; i + 1 < sizeof pattern; i++) {
        char c = content[pos + i];
        bool ok = pattern[i] == 'd' ? (c >= '0' && c <= '9') : c == pattern[i];
        if (!ok) {
            return false;
        }
    }
    return true;
}

} // namespace

std::string formatTraceEntry(const timespec &when, pid_t pid, const char *module, uint32_t line, const char *text,
                             const void *data, uint32_t dataLength) {
    char head[128];
    tm local{};
    localtime_r(&when.tv_sec, &local);
    size_t used = strftime(head, sizeof head, "%Y-%m-%d %H:%M:%S", &local);
    snprintf(head + used, sizeof head - used, ".%06ld [pid %d] ", when.tv_nsec / 1000, static_cast<int>(pid));
    std::string entry = head;
    if (module != nullptr) {
        entry += module;
        entry += ":" + std::to_string(line) + " ";
    }
    if (text != nullptr) {
        entry += text;
    }
    if (entry.back() != '\n') {
        entry += '\n';
    }
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (uint32_t offset = 0; bytes != nullptr && offset < dataLength; offset += 16) {
        char row[96];
        int n = snprintf(row, sizeof row, "    %08X:", offset);
        for (uint32_t i = offset; i < offset + 16 && i < dataLength; i++) {
            n += snprintf(row + n, sizeof row - static_cast<size_t>(n), i == offset + 8 ? "  %02X" : " %02X", bytes[i]);
        }
        entry.append(row, static_cast<size_t>(n));
        entry += '\n';
    }
    return entry;
}

size_t nextEntryStart(const std::string &content, size_t from) {
    if (from == 0 || from >= content.size()) {
        return from >= content.size() ? content.size() : 0;
    }
    for (size_t pos = content.find('\n', from - 1); pos != std::string::npos; pos = content.find('\n', pos + 1)) {
        if (entryStartsAt(content, pos + 1)) {
            return pos + 1;
        }
    }
    return content.size();
}

TraceLogWriter::~TraceLogWriter() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool TraceLogWriter::reopen() {
    if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = ::open(path_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    return fd_ >= 0;
}

bool TraceLogWriter::open(const char *fileName, uint32_t maxSize) {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    if (fileName == nullptr || *fileName == '\0') {
        return false;
    }
    path_ = fileName;
    maxSize_ = maxSize;
    return reopen();
}

bool TraceLogWriter::append(const char *module, uint32_t line, const char *text, const void *data,
                            uint32_t dataLength) {
    if (fd_ < 0) {
        return false;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::string entry = formatTraceEntry(now, getpid(), module, line, text, data, dataLength);
    // Another run may have replaced the file (or may replace it while this one waits for
    // the lock): the file this one holds then has no name left, and the entry goes to the
    // file that now has the name.
    for (int attempt = 0; attempt < 5; attempt++) {
        if (flock(fd_, LOCK_EX) != 0) {
            return false;
        }
        struct stat held;
        bool current = fstat(fd_, &held) == 0 && held.st_nlink > 0;
        bool written = current && appendLocked(static_cast<uint64_t>(held.st_size), entry);
        flock(fd_, LOCK_UN);
        if (current) {
            return written;
        }
        if (!reopen()) {
            return false;
        }
    }
    return false;
}

// Called with the lock held. When the entry would take the file past the bound, the file
// is replaced by its newest entries (about half the bound) followed by the new entry.
bool TraceLogWriter::appendLocked(uint64_t size, const std::string &entry) {
    if (maxSize_ == 0 || size + entry.size() <= maxSize_) {
        return writeAll(fd_, entry.data(), entry.size());
    }
    std::string kept;
    if (entry.size() >= maxSize_ / 2) {
        kept = entry.substr(0, maxSize_); // an entry as big as the bound stands alone, cut
    } else {
        // Only the newest part is read: the byte before it too, which tells whether an
        // entry starts right at its beginning.
        uint64_t keep = maxSize_ / 2 - entry.size();
        uint64_t base = size > keep ? size - keep - 1 : 0;
        if (!readTail(fd_, base, size, &kept)) {
            return false;
        }
        kept.erase(0, base > 0 ? nextEntryStart(kept, 1) : 0);
        kept += entry;
    }
    std::string temporary = path_ + ".trim." + std::to_string(getpid());
    int out = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
        return false;
    }
    bool ok = writeAll(out, kept.data(), kept.size());
    ok = close(out) == 0 && ok;
    if (!ok || rename(temporary.c_str(), path_.c_str()) != 0) {
        unlink(temporary.c_str());
        return false;
    }
    // The lock on the replaced file is released by the caller; this run's next entry
    // finds the new file by its name.
    return true;
}

} // namespace kelsim
