// End-to-end harness: runs the built kelpth and kelsim in a fresh folder with a farm
// of its own, and reads back the screen, the exit status, the trace log and the journal.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

struct RunResult {
    int exitStatus = -1; // exit status, or 128 + signal number
    std::string out;     // standard output
    std::string err;     // standard error
};

// A child started by FarmTest::start: its process and the read end of its standard output.
struct Running {
    int pid = -1;
    int outFd = -1;
};

std::vector<std::string> lines(const std::string &text);

class FarmTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Runs kelpth with these arguments (the program name is added) in workDir.
    RunResult kelpth(const std::vector<std::string> &args);
    // Runs kelsim with these arguments in workDir.
    RunResult kelsim(const std::vector<std::string> &args);
    // Runs any program with the farm's environment, extraEnv's entries added or replacing
    // those of the same name; args[0] is the program.
    RunResult run(const std::vector<std::string> &args, const std::vector<std::string> &extraEnv = {});
    // The same in two halves, for a test that acts while the child runs: start it, then
    // collect the rest of its output (after what the test read itself) and its status.
    Running start(const std::vector<std::string> &args, const std::vector<std::string> &extraEnv = {});
    RunResult finish(Running running, std::string alreadyRead = "");

    // One kelpth run of a table: the arguments after the command, the whole screen, the status.
    struct Screen {
        std::vector<std::string> args;
        std::string out;
        int status = 1;
    };
    // Runs command with each case's arguments and checks its screen and exit status.
    void expectScreens(const std::string &command, const std::vector<Screen> &cases);

    // Runs kelpth from threads at once, each runsEach times with the arguments
    // argsOf(thread, run) gives; returns each thread's count of failed runs.
    std::vector<int> kelpthAtOnce(int threads, int runsEach,
                                  const std::function<std::vector<std::string>(int, int)> &argsOf);

    std::string readFile(const std::string &name) const; // relative to workDir
    void writeFile(const std::string &name, const std::string &content) const;
    std::string traceLog() const { return readFile("kelpth.log"); }
    std::vector<std::string> journal() { return lines(kelsim({"journal"}).out); } // the sim's, a row a call
    // The journal's one row; a failure, and "", when it holds more or none.
    std::string onlyCall() {
        const std::vector<std::string> rows = journal();
        EXPECT_EQ(rows.size(), 1u) << kelsim({"journal"}).out;
        return rows.size() == 1 ? rows[0] : "";
    }
    // SQLite's own check of a state database (the farm's by default) must say ok. sqlite3
    // is one of the build's dependencies: a missing one fails the test, never skips it.
    void expectSoundDatabase(const std::string &folder = "");

    bool checkVolumesAtEnd = true; // "kelsim check" must pass when the test ends
    std::string workDir;           // the current directory of every run
    std::string stateDir;          // KELSIM_DIR of every run
};

// "5A 5A ..." style check helpers.
std::string repeatByte(const std::string &hexByte, int count);
// Rows of a data dump that show the written pattern 0x5A.
int patternRows(const std::string &dump);

// A parameter file from its value lines, each preceded by a comment line.
std::string paramFile(const std::vector<std::string> &values);
// Of a journal line: from the function name to the end of the CDB; one field's value.
std::string journalCall(const std::string &line);
std::string journalField(const std::string &line, const std::string &field);

// Pieces of kelpth's screen that many checks build on.
inline const std::string kRule = std::string(77, '-') + "\n";
inline const std::string kAbnormalEnd = "KEL0002-I PassThrough Tool abnormal end.\n";
inline std::string badValue(const std::string &detail) {
    return "KEL0022-E Ileagal Parameter. detail=" + detail + "\n" + kAbnormalEnd;
}
// A check condition's message: sense key, ASC and ASCQ as two hex digits each.
inline std::string senseError(const std::string &key, const std::string &asc, const std::string &ascq) {
    return "KEL0005-E Request sense data  KEY:" + key + "  ASC:" + asc + "  ASCQ:" + ascq + "\n" + kAbnormalEnd;
}
inline const std::string kMediumError = senseError("03", "11", "00");
inline std::string cdbDump(int size, const std::string &row) {
    return "[CDB] Size=" + std::to_string(size) + "\n" + kRule + "00000000: " + row + "\n\n";
}
inline bool endsWith(const std::string &text, const std::string &tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}
size_t countOf(const std::string &text, const std::string &part);
// The bytes of the "Command Result" dump on the screen.
using Bytes = std::vector<uint8_t>;
Bytes resultBytes(const std::string &screen);
// A read's dump of rows rows that all hold one byte (hexByte, shown as shown): title, rule, rows.
std::string filledDump(const std::string &title, const std::string &hexByte, char shown, unsigned rows);
inline std::string sectorOf(const std::string &hexByte, char shown) {
    return filledDump("Read Command(1 Sector)", hexByte, shown, 32);
}
