#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "vel/cpp_utils/posix/file_descriptor.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Outcome {
    int status;
    std::string output;
    std::string errors;
};

/// A shell script, its exit status, and its whole output, or if it fails a part of its one line of error.
struct Step {
    std::string script;
    int status;
    std::string text;
};

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Runs the built program, and as `zep` on the stand-in devices of `zep`, in a directory of its own.
class ProgramTest : public testing::Test {
protected:
    ProgramTest() {
        std::string pattern = (fs::temp_directory_path() / "zepctl_test.XXXXXX").string();
        m_Directory = ::mkdtemp(pattern.data());
        run("zepctl create zep");
    }
    void TearDown() override { fs::remove_all(m_Directory); }

    Outcome run(const std::string& script) const {
        const std::string whole = "cd '" + m_Directory.string() + "'; PATH='" +
                                  fs::path(ZEPCTL_PROGRAM).parent_path().string() + "':$PATH\n" +
                                  "zep() { zepctl -t zep/tsio -r zep/router \"$@\"; }\n" +  //
                                  "{ " + script + "\n} >output 2>errors";
        const int status = std::system(whole.c_str());  // NOLINT(cert-env33-c)
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(m_Directory / "output"),
                contentOf(m_Directory / "errors")};
    }

    void expectSteps(const std::vector<Step>& steps) const {
        for (const auto& [script, status, text] : steps) {
            SCOPED_TRACE(script);
            const Outcome outcome = run(script);
            EXPECT_EQ(outcome.status, status);
            EXPECT_EQ(outcome.output, status == 0 ? text : "");
            EXPECT_EQ(std::ranges::count(outcome.errors, '\n'), status == 0 ? 0 : 1) << outcome.errors;
            if (status != 0) {
                EXPECT_THAT(outcome.errors, testing::StartsWith("zepctl: "));
                EXPECT_THAT(outcome.errors, testing::HasSubstr(text));
            }
        }
    }

    fs::path m_Directory;
};

}  // namespace

TEST_F(ProgramTest, RowsGoInAndAreShown) {
    const std::string inputs = "udp://239.1.2.3:5000 3\nudp://239.1.2.4 16\n";
    const std::string routes =
        "0 0x1fff --out --pididx 2 --filter 255\n"
        "3 0x0010 --out --no-cpu --pididx 4095 --filter 32\n"
        "3 0x0100 --pididx 1 --filter 255\n";
    expectSteps({
        {"zep input add udp://239.1.2.4 0x10; zep input add udp://239.1.2.3:5000 3", 0, ""},
        {"zep route add 3 0x100; zep route add 3 16 --out --no-cpu --pididx 0xFFF --filter 32", 0, ""},
        {"zep route add 0 8191 --out", 0, ""},
        {"zep input list", 0, inputs},
        {"zep route list", 0, routes},
        {"zepctl create copy", 0,
         "zeptfem -t copy/tsio -r copy/router -P copy/pktio -f \"udp://239.1.2.3:5000 FILE.ts\"\n"},
        {"zep input list | xargs -L1 zepctl -t copy/tsio input add; zepctl -t copy/tsio input list", 0,
         inputs},
        {"zep route list | xargs -L1 zepctl -r copy/router route add; zepctl -r copy/router route list", 0,
         routes},
        {"zep dump iplut --first 0 --count 1", 0,
         "000 (0x00000800): IP:239.1.2.3, UDP_PORT:05000, TSIIDX:003, ENABLED:YES\n"},
        {"zep dump pidlut --first 2", 0,
         "002 (0x00003004): TSIIDX:003, PID:0x0100(0256), PIDIDX:0001, CPU_ROUTE:YES, OUT_ROUTE:NO, "
         "FILTIDX:255\n"},
        {"zep input remove udp://239.1.2.4; zep route remove 3 0x100; zep input list; zep route list | wc -l",
         0, "udp://239.1.2.3:5000 3\n2\n"},
        {"zep clear inputs; zep input list; zep route list | wc -l", 0, "2\n"},
        {"zep clear; zep route list; zep dump pidlut --bank 1 | wc -l", 0, "2\n"},
        {"for t in iplut physinmap ipout physoutmap pidlut tsimap opidmap; do zep dump $t --all | wc -l; "
         "done",
         0, "256\n64\n256\n256\n2048\n256\n4095\n"},
        {"zepctl ports | sed -n '1p;24,25p;30,31p;54p'; zepctl ports | wc -l", 0,
         "input 0 tuner0\ninput 23 cam7\ninput 32 tuner16\ninput 37 tuner21\noutput 0 modulator0\n"
         "output 23 cam7\n54\n"},
        {"for c in '' create input 'input add' 'input remove' 'input list' route 'route add' 'route remove' "
         "'route list' clear dump ports; do zepctl $c --help | grep -q 'Example: zepctl ' || echo $c; done",
         0, ""},
    });
}

TEST_F(ProgramTest, RefusalsAreOneLineAndChangeNothing) {
    expectSteps({
        {"zep input add udp://239.1.2.3:5000 3; zep route add 3 0x100; cp -r zep before", 0, ""},
        {"zep", 2, "required"},
        {"zep inptu list", 2,
         "\"inptu\" is not a command of zepctl; the commands are create, input, route, clear, dump, ports, "},
        {"zep input foo", 2, "\"foo\" is not a command of input; the commands are add, remove, list"},
        {"zep \"$(printf '\\033[2J\\nlist')\"", 2, "?[2J?list"},
        {"zep input list more", 2, "more"},
        {"zep dump iplutt", 2, "iplutt"},
        {"zep input add udp://239.1.2.4:5000 256", 2, "TSIIDX \"256\" is not a number from 0 to 255"},
        {"zep input add udp://239.1.2.4:0 4", 2, "write it as udp://239.1.2.4\n"},
        {"zep input remove udp://239.1.2.4", 2, "There is no input udp://239.1.2.4\n"},
        {"zep route add 3 8192", 2, "PID \"8192\" is not a number from 0 to 8191"},
        {"zep route add 3 1 --pididx 0", 2, "--pididx \"0\" is not a number from 1 to 4095"},
        {"zep route add 3 1 --filter 256", 2, "--filter \"256\" is not a number from 0 to 255"},
        {"zep route add 3 1 --no-cpu", 2, "--no-cpu needs --out"},
        {"zep route remove 3 1", 2, "There is no route for TSIIDX 3, PID 0x0001\n"},
        {"zep dump iplut --first 256", 2, "--first 256 is not a row of the table iplut, whose last is 255\n"},
        {"zep dump iplut --first 200 --count 57", 2, "Offset (200) and count (57)"},
        {"zep dump opidmap --first 0", 2, "reserved"},
        {"zep dump tsimap --bank 1", 2, "The table tsimap has no banks, so --bank 1 cannot be shown\n"},
        {"zep dump pidlut --bank 2", 2, "--bank \"2\" is not a number from 0 to 1"},
        {"zepctl -t /nonexistent input list", 3, "/nonexistent"},
        {"zepctl -t /dev/null input list", 3, "/dev/null"},
        {"zepctl -r /dev/null clear", 3, "/dev/null"},
        {"zep input list >/dev/full", 3, "Cannot write to standard output: No space left on device\n"},
        {"zepctl --help >/dev/full", 3, "Cannot write to standard output: No space left on device\n"},
        {"zep input list <&- >&- 2>&- || echo $?", 0, "3\n"},
        {"zep input add udp://239.1.2.3:5000 3 <&- >&- 2>&- || echo $?", 0, "2\n"},
        {"cmp zep/tsio before/tsio; cmp zep/router before/router", 0, ""},
    });
}

TEST_F(ProgramTest, CreateLooksAtAllFilesBeforeItEmptiesAny) {
    expectSteps({
        {"zepctl create --fifo 'new/a b'", 0,
         "zeptfem -t new/a b/tsio -r new/a b/router -P new/a b/pktio -f \"udp://239.1.2.3:5000 FILE.ts\"\n"},
        {"mv 'new/a b' zep2; test -p zep2/pktio; cat zep2/tsio zep2/router | cmp -n 147456 - /dev/zero", 0,
         ""},
        {"stat -c %s zep2/tsio zep2/router", 0, "16384\n131072\n"},
        {"rm zep2/router; zepctl create zep2", 2, "zep2/tsio exists already; --force empties it\n"},
        {"test ! -e zep2/router; rm zep2/pktio; echo mine >zep2/tsio; echo mine >zep2/pktio", 0, ""},
        {"zepctl create --fifo --force zep2", 3, "zep2/pktio exists already and is not a FIFO; remove it\n"},
        {"rm zep2/pktio; mkdir zep2/router", 0, ""},
        {"zepctl create --force zep2", 3, "zep2/router exists already and is not a plain file; remove it\n"},
        {"cat zep2/tsio; rmdir zep2/router", 0, "mine\n"},
        // A reader that has the file open sees the table emptied, and what lies after the table stays.
        {"yes | head -c 20000 >zep2/tsio; exec 3<zep2/tsio; zepctl create --fifo --force zep2 >made; "
         "head -c 16384 <&3 | tr -d '\\0'; stat -c %s zep2/tsio zep2/router; cat <&3 | tr -d '\\n'",
         0, "20000\n131072\n" + std::string(3616 / 2, 'y')},
        {"zepctl create --fifo --force zep2 | cmp - made", 0, ""},
        {"zepctl create /dev/null/zep", 3, "Cannot create directory \"/dev/null/zep\": "},
        {"zepctl create ''", 3, "Cannot create directory \"\": "},
    });
}

TEST_F(ProgramTest, EveryCommandWaitsForTheLockOfItsDevice) {
    const struct {
        std::string device;
        std::string script;
        std::string output;
    } cases[] = {
        {"tsio", "zep input add udp://239.1.2.3 3 & zep input add udp://239.1.2.4 4; wait", ""},
        {"tsio", "zep input list", "udp://239.1.2.3 3\nudp://239.1.2.4 4\n"},
        {"tsio", "zep dump physinmap --count 0", ""},
        {"tsio", "zep input remove udp://239.1.2.3", ""},
        {"tsio", "zep clear inputs", ""},
        {"router", "zep route add 3 1 & zep route add 3 2 --pididx 2; wait", ""},
        {"router", "zep route remove 3 1", ""},
        {"router", "zep route list", "3 0x0002 --pididx 2 --filter 255\n"},
        {"router", "zep dump tsimap --count 0", ""},
        {"router", "zep clear routes", ""},
        {"router", "zepctl create --force zep >made", ""},
        {"tsio", "zepctl create --force zep >made", ""},
    };
    for (const auto& [device, script, output] : cases) {
        SCOPED_TRACE(script);
        const std::string path = (m_Directory / "zep" / device).string();
        const Vel::CppUtil::FileDescriptor lock(::open(path.c_str(), O_RDONLY));  // NOLINT(*-vararg)
        ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
        struct stat status {};
        ::fstat(lock.get(), &status);
        const std::regex waiter("-> FLOCK .*:" + std::to_string(status.st_ino) + " ");
        const auto commands = std::ranges::count(script, '&') + 1;
        auto outcome = std::async(std::launch::async, [&] { return run(script); });
        std::string locks;
        do {
            locks = contentOf("/proc/locks");
        } while (std::distance(std::sregex_iterator(locks.begin(), locks.end(), waiter), {}) < commands &&
                 outcome.wait_for(10ms) == std::future_status::timeout);
        EXPECT_EQ(outcome.wait_for(0ms), std::future_status::timeout);
        ::flock(lock.get(), LOCK_UN);
        const auto [exitStatus, printed, errors] = outcome.get();
        EXPECT_EQ(exitStatus, 0);
        EXPECT_EQ(printed, output);
        EXPECT_EQ(errors, "");
    }
}
