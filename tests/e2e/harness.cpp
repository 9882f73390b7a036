// The end-to-end harness: fork, exec and capture of kelpth and kelsim.
#include "harness.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace {
std::string slurpFd(int fd) {
    std::string text;
    char buffer[65536];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}
} // namespace

void FarmTest::SetUp() {
    char pattern[] = "/tmp/kelpth-e2e-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    workDir = pattern;
    stateDir = workDir + "/state";
}

void FarmTest::TearDown() {
    // Whatever a test did through kelpth, the volumes' mirrors and parity still agree,
    // unless the test broke them on purpose.
    if (checkVolumesAtEnd && !HasFailure() && access(stateDir.c_str(), F_OK) == 0 &&
        access((stateDir + "/farm.conf").c_str(), F_OK) == 0) {
        RunResult check = kelsim({"check"});
        EXPECT_EQ(check.exitStatus, 0) << check.out << check.err;
    }
    if (!workDir.empty() && !HasFailure()) {
        std::string command = "rm -rf '" + workDir + "'";
        (void)system(command.c_str());
    }
}

Running FarmTest::start(const std::vector<std::string> &args, const std::vector<std::string> &extraEnv) {
    std::vector<std::string> env = {"KELSIM_DIR=" + stateDir, "PATH=/usr/bin:/bin", "LC_ALL=C"};
    for (const char *keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LD_LIBRARY_PATH", "HOME"}) {
        bool overridden = false;
        for (const auto &extra : extraEnv) {
            overridden = overridden || extra.rfind(std::string(keep) + "=", 0) == 0;
        }
        if (const char *value = getenv(keep); value != nullptr && !overridden) {
            env.push_back(std::string(keep) + "=" + value);
        }
    }
    // An extra entry replaces the default of the same name.
    for (const auto &extra : extraEnv) {
        const std::string name = extra.substr(0, extra.find('=') + 1);
        env.erase(std::remove_if(env.begin(), env.end(), [&](const std::string &e) { return e.rfind(name, 0) == 0; }),
                  env.end());
        env.push_back(extra);
    }

    // Standard error goes to a file so that a chatty child never blocks on a full pipe.
    std::string errPath = workDir + "/.stderr";
    int outPipe[2];
    if (pipe(outPipe) != 0) {
        return {};
    }
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(workDir.c_str()) != 0) {
            _exit(127);
        }
        int errFd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(outPipe[1], 1);
        dup2(errFd, 2);
        close(outPipe[0]);
        close(outPipe[1]);
        int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, 0);
        std::vector<char *> argv, envp;
        for (const auto &a : args) {
            argv.push_back(const_cast<char *>(a.c_str()));
        }
        argv.push_back(nullptr);
        for (const auto &e : env) {
            envp.push_back(const_cast<char *>(e.c_str()));
        }
        envp.push_back(nullptr);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(outPipe[1]);
    return Running{pid, outPipe[0]};
}

RunResult FarmTest::finish(Running running, std::string alreadyRead) {
    RunResult result;
    if (running.pid < 0) {
        return result;
    }
    result.out = std::move(alreadyRead) + slurpFd(running.outFd);
    close(running.outFd);
    int status = 0;
    waitpid(running.pid, &status, 0);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::ifstream errFile(workDir + "/.stderr");
    std::stringstream errText;
    errText << errFile.rdbuf();
    result.err = errText.str();
    return result;
}

RunResult FarmTest::run(const std::vector<std::string> &args, const std::vector<std::string> &extraEnv) {
    return finish(start(args, extraEnv));
}

RunResult FarmTest::kelpth(const std::vector<std::string> &args) {
    std::vector<std::string> full = {KELPTH_BINARY};
    full.insert(full.end(), args.begin(), args.end());
    return run(full);
}

RunResult FarmTest::kelsim(const std::vector<std::string> &args) {
    std::vector<std::string> full = {KELSIM_BINARY};
    full.insert(full.end(), args.begin(), args.end());
    return run(full);
}

void FarmTest::expectSoundDatabase(const std::string &folder) {
    const std::string database = (folder.empty() ? stateDir : folder) + "/state.db";
    const RunResult check = run({"/usr/bin/sqlite3", database, "PRAGMA integrity_check;"});
    EXPECT_NE(check.exitStatus, 127) << "sqlite3 is missing: scripts/deps.sh installs it";
    EXPECT_EQ(check.out, "ok\n") << database << ": " << check.err;
}

std::string FarmTest::readFile(const std::string &name) const {
    std::ifstream file(workDir + "/" + name, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

void FarmTest::writeFile(const std::string &name, const std::string &content) const {
    std::ofstream file(workDir + "/" + name, std::ios::binary);
    file << content;
}

std::string repeatByte(const std::string &hexByte, int count) {
    std::string text;
    for (int i = 0; i < count; i++) {
        text += hexByte + " ";
    }
    return text;
}

int patternRows(const std::string &dump) {
    return static_cast<int>(countOf(dump, ": 5A 5A 5A 5A 5A 5A 5A 5A  5A"));
}

// A parameter file from its value lines, each preceded by a comment line.
std::string paramFile(const std::vector<std::string> &values) {
    std::string text;
    for (size_t i = 0; i < values.size(); i++) {
        text += "// value " + std::to_string(i + 1) + "\n" + values[i] + "\n";
    }
    return text;
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        result.push_back(line);
    }
    return result;
}

std::string journalCall(const std::string &line) {
    const size_t name = line.find(' ') + 1;
    return line.substr(name, line.find(" len=") - name);
}

std::string journalField(const std::string &line, const std::string &field) {
    const size_t at = line.find(" " + field + "=");
    if (at == std::string::npos) {
        return "";
    }
    const size_t start = at + field.size() + 2;
    return line.substr(start, line.find(' ', start) - start);
}

size_t countOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

void FarmTest::expectScreens(const std::string &command, const std::vector<Screen> &cases) {
    for (const Screen &c : cases) {
        std::vector<std::string> args = {command};
        args.insert(args.end(), c.args.begin(), c.args.end());
        std::string shown;
        for (const std::string &arg : args) {
            shown += "'" + arg + "' ";
        }
        const RunResult run = kelpth(args);
        EXPECT_EQ(run.exitStatus, c.status) << shown;
        EXPECT_EQ(run.out, c.out) << shown;
    }
}

std::string filledDump(const std::string &title, const std::string &hexByte, char shown, unsigned rows) {
    const std::string row = repeatByte(hexByte, 8) + " " + repeatByte(hexByte, 8) + " " + std::string(16, shown) + "\n";
    std::string text = "[" + title + "] Size=" + std::to_string(rows * 16) + "\n" + kRule;
    char offset[16];
    for (unsigned r = 0; r < rows; r++) {
        snprintf(offset, sizeof offset, "%08X: ", r * 16);
        text += offset + row;
    }
    return text;
}

std::vector<int> FarmTest::kelpthAtOnce(int threads, int runsEach,
                                        const std::function<std::vector<std::string>(int, int)> &argsOf) {
    std::vector<std::thread> running;
    std::vector<int> failures(static_cast<size_t>(threads), 0);
    for (int t = 0; t < threads; t++) {
        running.emplace_back([&, t] {
            for (int i = 0; i < runsEach; i++) {
                failures[static_cast<size_t>(t)] += kelpth(argsOf(t, i)).exitStatus != 0;
            }
        });
    }
    for (std::thread &thread : running) {
        thread.join();
    }
    return failures;
}

std::vector<uint8_t> resultBytes(const std::string &screen) {
    std::vector<uint8_t> bytes;
    size_t at = screen.find("[Command Result]");
    if (at == std::string::npos) {
        return bytes;
    }
    at = screen.find('\n', screen.find('\n', at) + 1) + 1; // past the header and the rule
    while (at + 10 < screen.size() && screen[at + 8] == ':') {
        const size_t end = screen.find('\n', at);
        for (int column = 0; column < 16; ++column) {
            const size_t field = at + 10 + 3 * column + (column >= 8 ? 1 : 0);
            if (field + 2 > end || screen[field] == ' ') {
                break;
            }
            bytes.push_back(static_cast<uint8_t>(std::stoi(screen.substr(field, 2), nullptr, 16)));
        }
        at = end + 1;
    }
    return bytes;
}
