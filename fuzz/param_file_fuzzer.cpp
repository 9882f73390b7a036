// Fuzz target: arbitrary bytes as the parameter file of every command that reads one
// (P, ANY, the SATA ANY, E, e, N, N5 and A), each handler run end to end against the
// in-memory libraries with its screen output thrown away.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fake_libs.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"

namespace {
std::string parameterFile;
char commandName[] = "kelpth";
char fileCommandWord[] = "param";
char *fileArgv[4];

struct FileCommand {
    FuncTblIndex entry;
    KelHandler handler;
};
const FileCommand kFileCommands[] = {
    {kTblFixPassThrough, KelFixAnyPassThrough},        {kTblFreePassThrough, KelFreAnyPassThrough},
    {kTblFreePassThrough, KelFreAnyPassThrough_SATA},  {kTblMediaError, KelPDHDDMediaErrorSet},
    {kTblMediaErrorSata, KelPDHDDMediaErrorSet_SATA},  {kTblErrorInjection, KelPDHDDErrorInjectionSet},
    {kTblErrorInjection5, KelPDHDDErrorInjectionSet5}, {kTblErrorInjectionSata, KelPDHDDErrorInjectionSet_SATA},
};
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
    fileArgv[0] = commandName;
    fileArgv[1] = fileCommandWord;
    fileArgv[2] = parameterFile.data();
    for (const FileCommand &command : kFileCommands) {
        functbl[command.entry].argv = fileArgv;
    }
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
    for (const FileCommand &command : kFileCommands) {
        resetFakeCallBudget();
        command.handler();
    }
    return 0;
}
