#include "orv/sys/PidFile.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "orv/exception/exception.h"

using orv::sys::PidFile;

namespace {

// A program name of this test's own, and removal of its pid file however the
// test ends.
struct UniqueProgram
{
    std::string argv0;
    std::string path;
    explicit UniqueProgram(const std::string& tag)
        : argv0("/x/pidtest-" + tag + "-" + std::to_string(::getpid())),
          path("/run/pidtest-" + tag + "-" + std::to_string(::getpid()) + ".pid")
    {
        ::unlink(path.c_str());
    }
    ~UniqueProgram()
    {
        ::unlink(path.c_str());
        ::rmdir(path.c_str());
    }
};

bool exists(const std::string& path)
{
    struct stat st
    {
    };
    return ::stat(path.c_str(), &st) == 0;
}

std::string contents(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A child process that holds the pid file until told to go; reaped and, if
// still alive, killed when the guard ends.
class Holder
{
public:
    explicit Holder(const std::string& argv0)
    {
        int ready[2];
        int go[2];
        if (::pipe(ready) != 0 || ::pipe(go) != 0) {
            return;
        }
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(ready[0]);
            ::close(go[1]);
            char ok = 'n';
            try {
                PidFile file(argv0);
                ok = 'y';
                [[maybe_unused]] const ssize_t sent = ::write(ready[1], &ok, 1);
                char c;
                [[maybe_unused]] const ssize_t got = ::read(go[0], &c, 1);
            } catch (...) {
                [[maybe_unused]] const ssize_t sent = ::write(ready[1], &ok, 1);
            }
            ::_exit(0);
        }
        ::close(ready[1]);
        ::close(go[0]);
        m_go = go[1];
        char answer = 'n';
        m_holding = ::read(ready[0], &answer, 1) == 1 && answer == 'y';
        ::close(ready[0]);
    }
    ~Holder()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        if (m_go >= 0) {
            ::close(m_go);
        }
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    pid_t pid() const { return m_pid; }
    bool holding() const { return m_holding; }

    // Lets the child destroy its PidFile and exit normally.
    void release()
    {
        ::close(m_go);
        m_go = -1;
        ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    // Simulates a crash: the file stays, the lock goes with the process.
    void crash()
    {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

private:
    pid_t m_pid = -1;
    int m_go = -1;
    bool m_holding = false;
};

}  // namespace

TEST(PidFile, PathIsRunBaseNamePid)
{
    EXPECT_EQ(PidFile::pathFor("/usr/bin/tsd"), "/run/tsd.pid");
    EXPECT_EQ(PidFile::pathFor("tsd"), "/run/tsd.pid");
    EXPECT_EQ(PidFile::pathFor("./build/bin/tsd"), "/run/tsd.pid");
    EXPECT_EQ(PidFile::pathFor("/opt/tsd/"), "/run/tsd.pid");
}

TEST(PidFile, WritesOwnPidAndRemovesFileAtDestruction)
{
    UniqueProgram program("write");
    {
        PidFile file(program.argv0);
        EXPECT_EQ(file.path(), program.path);
        ASSERT_TRUE(exists(program.path));
        EXPECT_EQ(contents(program.path), std::to_string(::getpid()) + "\n");
    }
    EXPECT_FALSE(exists(program.path));
}

TEST(PidFile, StaleFileFromACrashIsTakenOver)
{
    UniqueProgram program("stale");
    {
        std::ofstream out(program.path);
        out << "999999999\nleftover text that is longer than a pid\n";
    }
    PidFile file(program.argv0);
    EXPECT_EQ(contents(program.path), std::to_string(::getpid()) + "\n");
}

TEST(PidFile, SecondLiveInstanceIsRefusedNamingFileAndHolder)
{
    UniqueProgram program("live");
    Holder holder(program.argv0);
    ASSERT_TRUE(holder.holding());
    EXPECT_EQ(contents(program.path), std::to_string(holder.pid()) + "\n");
    try {
        PidFile second(program.argv0);
        FAIL() << "a second instance was accepted";
    } catch (const orv::exception::exception& e) {
        const std::string what = e.what();
        EXPECT_NE(what.find(program.path), std::string::npos) << what;
        EXPECT_NE(what.find(std::to_string(holder.pid())), std::string::npos) << what;
    }
    // The refused attempt must leave the holder's file alone.
    EXPECT_EQ(contents(program.path), std::to_string(holder.pid()) + "\n");
}

TEST(PidFile, RestartAfterOrderlyExitSucceeds)
{
    UniqueProgram program("restart");
    Holder holder(program.argv0);
    ASSERT_TRUE(holder.holding());
    holder.release();
    EXPECT_FALSE(exists(program.path));
    PidFile file(program.argv0);
    EXPECT_EQ(contents(program.path), std::to_string(::getpid()) + "\n");
}

TEST(PidFile, RestartAfterCrashSucceeds)
{
    UniqueProgram program("crash");
    Holder holder(program.argv0);
    ASSERT_TRUE(holder.holding());
    holder.crash();
    ASSERT_TRUE(exists(program.path));
    PidFile file(program.argv0);
    EXPECT_EQ(contents(program.path), std::to_string(::getpid()) + "\n");
}

TEST(PidFile, SameProcessTwiceIsRefused)
{
    UniqueProgram program("twice");
    PidFile first(program.argv0);
    EXPECT_THROW(PidFile second(program.argv0), orv::exception::exception);
    EXPECT_TRUE(exists(program.path));
}

TEST(PidFile, UncreatableFileThrowsNamingIt)
{
    UniqueProgram program("dir");
    // A directory in the way: the file cannot be opened for writing.
    ASSERT_EQ(::mkdir(program.path.c_str(), 0755), 0);
    try {
        PidFile file(program.argv0);
        FAIL() << "no exception";
    } catch (const orv::exception::exception& e) {
        EXPECT_NE(std::string(e.what()).find(program.path), std::string::npos) << e.what();
    }
}

TEST(PidFile, EmptyProgramNameThrows)
{
    EXPECT_THROW(PidFile(""), orv::exception::exception);
    EXPECT_THROW(PidFile("/"), orv::exception::exception);
}

TEST(PidFile, ForkedChildDoesNotRemoveParentsFile)
{
    UniqueProgram program("fork");
    std::optional<PidFile> file;
    file.emplace(program.argv0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        file.reset();  // the inherited copy's destructor, as a child's exit would run it
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(exists(program.path));
}
