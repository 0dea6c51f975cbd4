// The crash-safe replacement of a file: stopped at every one of its steps,
// by a failing call or by a crash (the process gone mid-sequence), the path
// holds the old file or the new one, never a mixture and never nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "AtomicFile.h"
#include "testsupport/PrivateMounts.h"

using orv::services::AtomicWrite;
using orv::services::FileSystem;
using orv::services::writeFileAtomically;

namespace {

// A crash: the process ends at this call; nothing after it runs.
struct Crash
{
};

// The kernel's file system, but stopped at call number stopAt: by a failure
// (-1, EIO) or by a crash, which for a write first puts half of the bytes on
// disk, as a power cut in the middle of a write would.
class SteppedFileSystem : public FileSystem
{
public:
    enum class Stop
    {
        Never,
        Fail,
        Crash
    };

    SteppedFileSystem(Stop stop = Stop::Never, int stopAt = -1) : m_stop(stop), m_stopAt(stopAt) {}
    ~SteppedFileSystem() override
    {
        // What a dead process held open, the kernel closes.
        for (const int fd : m_open) {
            ::close(fd);
        }
    }

    std::vector<std::string> calls;
    std::size_t maxWrite = 0;  // 0: whole writes; else short writes of at most this many bytes

    int openFile(const std::string& path, int flags, mode_t mode) override
    {
        if (stopHere("open " + std::filesystem::path(path).filename().string())) {
            return -1;
        }
        const int fd = FileSystem::openFile(path, flags, mode);
        if (fd >= 0) {
            m_open.insert(fd);
        }
        return fd;
    }
    ssize_t writeSome(int fd, const char* data, std::size_t size) override
    {
        if (maxWrite != 0 && size > maxWrite) {
            size = maxWrite;
        }
        if (m_stop == Stop::Crash && next() == m_stopAt) {
            FileSystem::writeSome(fd, data, size / 2);
        }
        if (stopHere("write")) {
            return -1;
        }
        return FileSystem::writeSome(fd, data, size);
    }
    int syncFile(int fd) override { return stopHere("fsync") ? -1 : FileSystem::syncFile(fd); }
    int closeFile(int fd) override
    {
        if (stopHere("close")) {
            return -1;
        }
        m_open.erase(fd);
        return FileSystem::closeFile(fd);
    }
    int renameFile(const std::string& from, const std::string& to) override
    {
        return stopHere("rename") ? -1 : FileSystem::renameFile(from, to);
    }
    int removeFile(const std::string& path) override
    {
        // Clean-up after a failure is not one of the steps under test.
        calls.push_back("remove");
        return FileSystem::removeFile(path);
    }

private:
    Stop m_stop;
    int m_stopAt;
    std::set<int> m_open;

    int next() const { return static_cast<int>(calls.size()); }

    bool stopHere(const std::string& call)
    {
        const int number = next();
        calls.push_back(call);
        if (number != m_stopAt || m_stop == Stop::Never) {
            return false;
        }
        if (m_stop == Stop::Crash) {
            throw Crash();
        }
        errno = EIO;
        return true;
    }
};

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool exists(const std::string& path)
{
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

class AtomicFile : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_dir = testsupport::PrivateMounts::scratchDir(
            std::string("atomic-") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        m_path = m_dir + "/param.json";
    }

    void putOld()
    {
        std::filesystem::remove(m_path);
        std::filesystem::remove(m_path + ".tmp");
        std::ofstream(m_path, std::ios::binary) << m_old;
    }

    // The steps of one complete write, as the file system sees them.
    std::vector<std::string> steps()
    {
        putOld();
        SteppedFileSystem recorder;
        writeFileAtomically(recorder, m_path, m_new);
        return recorder.calls;
    }

    std::string m_dir;
    std::string m_path;
    const std::string m_old = "{\"timesource\":\"Ptp\"}\n";
    const std::string m_new = std::string(20000, 'n') + "\n";
};

}  // namespace

TEST_F(AtomicFile, WritesSyncsRenamesThenSyncsTheDirectory)
{
    const std::vector<std::string> expected = {"open param.json.tmp",
                                               "write",
                                               "fsync",
                                               "close",
                                               "rename",
                                               "open " + std::filesystem::path(m_dir).filename().string(),
                                               "fsync",
                                               "close"};
    EXPECT_EQ(steps(), expected);
    EXPECT_EQ(readFile(m_path), m_new);
    EXPECT_FALSE(exists(m_path + ".tmp"));
}

TEST_F(AtomicFile, CrashAtEveryStepLeavesTheOldOrTheNewFile)
{
    const std::vector<std::string> all = steps();
    const auto rename = std::find(all.begin(), all.end(), "rename") - all.begin();
    for (int k = 0; k < static_cast<int>(all.size()); ++k) {
        SCOPED_TRACE("crash at step " + std::to_string(k) + " (" + all[static_cast<std::size_t>(k)] + ")");
        putOld();
        {
            SteppedFileSystem crashing(SteppedFileSystem::Stop::Crash, k);
            EXPECT_THROW(writeFileAtomically(crashing, m_path, m_new), Crash);
        }
        const std::string content = readFile(m_path);
        EXPECT_TRUE(content == m_old || content == m_new) << content.size() << " bytes";
        EXPECT_EQ(content, k <= rename ? m_old : m_new);

        // The next write after the crash succeeds, leftovers or not.
        const AtomicWrite again = writeFileAtomically(orv::services::systemFileSystem(), m_path, "again\n");
        EXPECT_TRUE(again.replaced);
        EXPECT_EQ(again.error, 0);
        EXPECT_EQ(readFile(m_path), "again\n");
        EXPECT_FALSE(exists(m_path + ".tmp"));
    }
}

TEST_F(AtomicFile, CrashWithoutAnOldFileLeavesNothingOrTheNewFile)
{
    const std::vector<std::string> all = steps();
    for (int k = 0; k < static_cast<int>(all.size()); ++k) {
        SCOPED_TRACE("crash at step " + std::to_string(k));
        std::filesystem::remove(m_path);
        std::filesystem::remove(m_path + ".tmp");
        {
            SteppedFileSystem crashing(SteppedFileSystem::Stop::Crash, k);
            EXPECT_THROW(writeFileAtomically(crashing, m_path, m_new), Crash);
        }
        EXPECT_TRUE(!exists(m_path) || readFile(m_path) == m_new);
    }
}

TEST_F(AtomicFile, FailureAtEveryStepIsReportedAndLeavesNoTemporary)
{
    const std::vector<std::string> all = steps();
    const auto rename = std::find(all.begin(), all.end(), "rename") - all.begin();
    for (int k = 0; k < static_cast<int>(all.size()); ++k) {
        SCOPED_TRACE("failure at step " + std::to_string(k) + " (" + all[static_cast<std::size_t>(k)] + ")");
        putOld();
        SteppedFileSystem failing(SteppedFileSystem::Stop::Fail, k);
        const AtomicWrite result = writeFileAtomically(failing, m_path, m_new);
        // Closing the directory after its sync has nothing left to lose.
        const bool last = k + 1 == static_cast<int>(all.size());
        EXPECT_EQ(result.error, last ? 0 : EIO);
        EXPECT_EQ(result.step.empty(), last);
        EXPECT_EQ(result.replaced, k > rename);
        EXPECT_EQ(readFile(m_path), k > rename ? m_new : m_old);
        EXPECT_FALSE(exists(m_path + ".tmp"));
    }
}

TEST_F(AtomicFile, ShortWritesStillWriteEverything)
{
    putOld();
    SteppedFileSystem trickling;
    trickling.maxWrite = 4096;
    const AtomicWrite result = writeFileAtomically(trickling, m_path, m_new);
    EXPECT_TRUE(result.replaced);
    EXPECT_EQ(result.error, 0);
    EXPECT_EQ(readFile(m_path), m_new);
    EXPECT_GE(std::count(trickling.calls.begin(), trickling.calls.end(), "write"), 5);
}

TEST_F(AtomicFile, ALinkPlantedAtTheTemporaryNameIsNotFollowed)
{
    putOld();
    const std::string victim = m_dir + "/victim";
    std::ofstream(victim) << "untouched\n";
    std::filesystem::create_symlink(victim, m_path + ".tmp");
    const AtomicWrite result = writeFileAtomically(orv::services::systemFileSystem(), m_path, m_new);
    EXPECT_FALSE(result.replaced);
    EXPECT_EQ(result.error, ELOOP);
    EXPECT_EQ(result.step, "open");
    EXPECT_EQ(readFile(victim), "untouched\n");
    EXPECT_EQ(readFile(m_path), m_old);
}

TEST_F(AtomicFile, NewFileGetsTheGivenMode)
{
    std::filesystem::remove(m_path);
    const mode_t old = ::umask(0);
    const AtomicWrite result = writeFileAtomically(orv::services::systemFileSystem(), m_path, m_new, 0640);
    ::umask(old);
    ASSERT_TRUE(result.replaced);
    struct stat st;
    ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}
