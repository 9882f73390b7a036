// Fuzz target: arbitrary bytes as the parameter file of P, ANY and the SATA ANY, each
// handler run end to end against the in-memory libraries with its screen output thrown
// away.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kelpth/functbl.h"
#include "kelpth/handlers.h"

namespace {
std::string parameterFile;
char commandName[] = "kelpth";
char fixedWord[] = "P";
char freeWord[] = "ANY";
char *fixedArgv[4];
char *freeArgv[4];
} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (freopen("/dev/null", "w", stdout) == nullptr) {
        abort();
    }
    const char *tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/kelpth-fuzz-XXXXXX";
    int fd = mkstemp(pattern.data());
    if (fd < 0) {
        abort();
    }
    close(fd);
    parameterFile = pattern;
    fixedArgv[0] = freeArgv[0] = commandName;
    fixedArgv[1] = fixedWord;
    freeArgv[1] = freeWord;
    fixedArgv[2] = freeArgv[2] = parameterFile.data();
    functbl[kTblFixPassThrough].argv = fixedArgv;
    functbl[kTblFreePassThrough].argv = freeArgv;
    atexit([] { unlink(parameterFile.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FILE *file = fopen(parameterFile.c_str(), "wb");
    if (file == nullptr) {
        abort();
    }
    fwrite(data, 1, size, file);
    fclose(file);
    KelFixAnyPassThrough();
    KelFreAnyPassThrough();
    KelFreAnyPassThrough_SATA();
    return 0;
}
