// Times two sides as whole processes in alternating pairs (A then B, then B then A, so
// that neither always runs second) and prints, from the pairs after the warm-up ones:
//   <median A ms> <median B ms> <median of the per-pair ratios A/B>
//   <peak RSS of any A process KiB> <peak RSS of any B process KiB> <median of the per-pair differences A-B ms>
// Usage: pairtime RUNS WARMUP SIDE-A --- SIDE-B
// A side is one command, or several joined by +++ that run one after the other and are
// timed together. Leading VAR=value words are set in that command's environment only.
// Each command runs directly (no shell), with its standard output and error thrown away;
// a command that cannot be started, or a side that fails, stops the measurement.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Command {
    std::vector<std::string> env;
    std::vector<std::string> argv;
};

struct Timing {
    double seconds = 0;
    long maxRssKiB = 0;
    bool ok = false;
};

Timing runOnce(const Command &command) {
    timespec start{}, end{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        for (const std::string &setting : command.env) {
            putenv(const_cast<char *>(setting.c_str()));
        }
        std::vector<char *> argv;
        for (const std::string &arg : command.argv) {
            argv.push_back(const_cast<char *>(arg.c_str()));
        }
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    Timing timing;
    int status = 0;
    rusage usage{};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) {
        return timing;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    timing.seconds = static_cast<double>(end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9;
    timing.maxRssKiB = usage.ru_maxrss;
    timing.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return timing;
}

// A side: its commands one after the other.
Timing runSide(const std::vector<Command> &side) {
    Timing total;
    total.ok = true;
    for (const Command &command : side) {
        Timing one = runOnce(command);
        total.seconds += one.seconds;
        total.maxRssKiB = std::max(total.maxRssKiB, one.maxRssKiB);
        total.ok = total.ok && one.ok;
    }
    return total;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

Command parseCommand(char **from, char **to) {
    Command command;
    for (; from < to && strchr(*from, '=') != nullptr && command.argv.empty(); from++) {
        command.env.emplace_back(*from);
    }
    for (; from < to; from++) {
        command.argv.emplace_back(*from);
    }
    return command;
}

std::vector<Command> parseSide(char **from, char **to) {
    std::vector<Command> side;
    for (char **start = from; start <= to; start++) {
        if (start == to || strcmp(*start, "+++") == 0) {
            side.push_back(parseCommand(from, start));
            from = start + 1;
        }
    }
    return side;
}

} // namespace

int main(int argc, char **argv) {
    char **split = argv + argc;
    for (char **arg = argv + 3; arg < argv + argc; arg++) {
        if (strcmp(*arg, "---") == 0) {
            split = arg;
            break;
        }
    }
    if (argc < 6 || split == argv + argc) {
        fprintf(stderr, "usage: pairtime RUNS WARMUP [VAR=value...] A [args] --- [VAR=value...] B [args]\n");
        return 2;
    }
    const int runs = atoi(argv[1]);
    const int warmup = atoi(argv[2]);
    const std::vector<Command> a = parseSide(argv + 3, split);
    const std::vector<Command> b = parseSide(split + 1, argv + argc);
    std::vector<double> timesA, timesB, ratios, differences;
    long rssA = 0, rssB = 0;
    for (int i = 0; i < warmup + runs; i++) {
        Timing ta, tb;
        if (i % 2 == 0) {
            ta = runSide(a);
            tb = runSide(b);
        } else {
            tb = runSide(b);
            ta = runSide(a);
        }
        if (!ta.ok || !tb.ok) {
            fprintf(stderr, "pairtime: %s failed\n", (!ta.ok ? a : b)[0].argv[0].c_str());
            return 1;
        }
        rssA = std::max(rssA, ta.maxRssKiB);
        rssB = std::max(rssB, tb.maxRssKiB);
        if (i >= warmup) {
            timesA.push_back(ta.seconds);
            timesB.push_back(tb.seconds);
            ratios.push_back(ta.seconds / tb.seconds);
            differences.push_back(ta.seconds - tb.seconds);
        }
    }
    printf("%.3f %.3f %.3f %ld %ld %.3f\n", median(timesA) * 1000, median(timesB) * 1000, median(ratios), rssA, rssB,
           median(differences) * 1000);
    return 0;
}
