// Fuzz target: arbitrary argument vectors through the dispatcher into every handler, run
// against the in-memory libraries with the screen thrown away. The input is the
// arguments after the program name, separated by NUL bytes. The run happens in a folder
// of its own that holds a few parameter files ("p", "a", "s", "w", "n", "e", "x"), so that
// a file-taking command finds one; arguments holding a '/' are refused so that no
// command reads or writes outside that folder.
#include <ftw.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fake_libs.h"
#include "kelctl.h"
#include "kelpth/functbl.h"
#include "kelpth/trace.h"

namespace {

constexpr size_t kMostArguments = 8;

const struct {
    const char *name;
    const char *content;
} kParameterFiles[] = {
    {"p", "0\n-\n2\n28000000100000010000\n0\n"},
    {"a", "0\n1\n2A000000001000000100\n1\n0x200\n1\n0011223344556677\n"},
    {"s", "0\n4\n85080E0000000100000000000000EC00\n0\n1\n1\n1\n"},
    {"w", "0\n1\n0x100\n3\n"},
    {"n", "0\n2\n1\n0\n0\n0\n0x0001\n0\n00\n0x00001000\n0x00000010\n00\n00\n00\n0\n0\n0\n0x0000\n0\n0\n00\n00\n"
          "0x0000\n0x0000\n0\n0\n0\n"},
    {"e", "0\n4\n1\n2\n0\n0\nECC\n0x0010\n1\n0\n0x00001000\n0x00002000\n"},
    {"x", "/ comment\n 9\n0\r\n0\r\n0x\n"},
};

std::string folder;

int removeEntry(const char *path, const struct stat *, int, FTW *) {
    return remove(path);
}

// The parameter files as the inputs expect them: a command may have overwritten one.
void writeParameterFiles() {
    for (const auto &file : kParameterFiles) {
        FILE *out = fopen(file.name, "wb");
        if (out == nullptr) {
            abort();
        }
        fputs(file.content, out);
        fclose(out);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        abort();
    }
    const char *tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/kelpth-cmdline-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        abort();
    }
    folder = pattern;
    atexit([] { nftw(folder.c_str(), removeEntry, 8, FTW_DEPTH | FTW_PHYS); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<std::string> words = {"kelpth"};
    std::string word;
    for (size_t i = 0; size > 0 && i <= size; i++) {
        if (i == size || data[i] == '\0') {
            words.push_back(word);
            word.clear();
        } else if (data[i] == '/') {
            return -1;
        } else {
            word += static_cast<char>(data[i]);
        }
        if (words.size() > kMostArguments) {
            return -1;
        }
    }
    // Into the run folder only now: the fuzzer has read its corpus folders by then.
    static const bool inFolder = chdir(folder.c_str()) == 0 && initLog("kelpth.log", 2000000) >= 0;
    if (!inFolder) {
        abort();
    }
    writeParameterFiles();
    std::vector<char *> argv;
    for (std::string &w : words) {
        argv.push_back(w.data());
    }
    argv.push_back(nullptr);
    // Each run starts from the table as the program starts: no entry holds an argv yet.
    for (FuncTblEntry *entry = functbl; entry->name[0] != '\0'; entry++) {
        entry->argv = nullptr;
    }
    resetFakeCallBudget();
    HistoryLog(static_cast<int>(words.size()), argv.data());
    dispatchCommand(static_cast<int>(words.size()), argv.data());
    finContData();
    return 0;
}
