// SPDX-License-Identifier: Apache-2.0
// What the writer survives: full devices, failing and short writes, no descriptors, and
// every system call of its own failing once.
#include "support/cases.h"
#include "support/results.h"
#include "write_series.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace series;

namespace {

// ---- replaced system calls -------------------------------------------------------------

// How the next writes end: an errno, or the number of bytes that are written.
struct WriteFault {
    int error = 0;
    ssize_t bytes = -1; // of each write, none when -1
    int times = 0;
    int errorAfter = 0; // of the one write that follows
};
WriteFault writeFault;
std::function<void()> onShortWrite;

// All calls of the writer are counted; the one with this number fails.
bool counting;
int calls;
int failingCall;
int failingCalls = 1; // this one and those that follow it
int failingError;

bool failsNow() {
    if (!counting || ++calls < failingCall || calls >= failingCall + failingCalls)
        return false;
    errno = failingError;
    return true;
}

const bool FAULTS_PREPARED = support::eachCase([] {
    writeFault = {};
    onShortWrite = nullptr;
    counting = false;
    failingCalls = 1;
    libc::write.hook = [](int descriptor, const void *bytes, size_t length) -> ssize_t {
        if (descriptor > 2 && writeFault.times > 0) {
            --writeFault.times;
            if (writeFault.bytes < 0) {
                errno = writeFault.error;
                return -1;
            }
            const size_t part = static_cast<size_t>(writeFault.bytes);
            if (writeFault.times == 0 && writeFault.errorAfter != 0)
                writeFault = {writeFault.errorAfter, -1, 1, 0};
            const ssize_t written =
                part == 0 ? 0 : libc::write.real(descriptor, bytes, std::min(part, length));
            std::function<void()> hook;
            hook.swap(onShortWrite);
            if (hook)
                hook();
            return written;
        }
        return descriptor > 2 && failsNow() ? -1 : libc::write.real(descriptor, bytes, length);
    };
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        return failsNow() ? -1 : libc::open.real(path, flags, mode);
    };
    libc::read.hook = [](int descriptor, void *bytes, size_t length) -> ssize_t {
        return failsNow() ? -1 : libc::read.real(descriptor, bytes, length);
    };
    libc::pread.hook = [](int descriptor, void *bytes, size_t length, off_t offset) -> ssize_t {
        return failsNow() ? -1 : libc::pread.real(descriptor, bytes, length, offset);
    };
    libc::lseek.hook = [](int descriptor, off_t offset, int whence) -> off_t {
        return failsNow() ? -1 : libc::lseek.real(descriptor, offset, whence);
    };
    libc::fstat.hook = [](int descriptor, struct stat *status) {
        return failsNow() ? -1 : libc::fstat.real(descriptor, status);
    };
    libc::stat.hook = [](const char *path, struct stat *status) {
        return failsNow() ? -1 : libc::stat.real(path, status);
    };
    libc::fchmod.hook = [](int descriptor, mode_t mode) {
        return failsNow() ? -1 : libc::fchmod.real(descriptor, mode);
    };
    libc::linkat.hook = [](int fromDir, const char *from, int toDir, const char *to, int flags) {
        return failsNow() ? -1 : libc::linkat.real(fromDir, from, toDir, to, flags);
    };
    libc::link.hook = [](const char *from, const char *to) {
        return failsNow() ? -1 : libc::link.real(from, to);
    };
    libc::unlink.hook = [](const char *path) { return failsNow() ? -1 : libc::unlink.real(path); };
    libc::mkdir.hook = [](const char *path, mode_t mode) {
        return failsNow() ? -1 : libc::mkdir.real(path, mode);
    };
});

} // namespace

namespace {

const char FIRST[] = "5-7-83886090-240301-0000000000.log";
const char SECOND[] = "5-7-83886090-240301-0000000001.log";

struct FaultWrite : testing::Test {
    FaultWrite() {
        setZone("UTC");
        setClock(localTime(2024, 3, 1, 10));
    }
    ~FaultWrite() override {
        counting = false;
        writeFault.times = 0;
        if (handle.file != nullptr)
            zoltLogCloseFile(&handle);
    }
    void openSized(uint64_t kilobytes, const char *directory = "./logs/") {
        LogCfg cfg = settings();
        cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
        cfg.maxFileSizeKB = kilobytes;
        strcpy(cfg.directory, directory);
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    }
    std::string bytes(const char *name) const { return support::readFile(std::string("logs/") + name); }

    LogHandle handle = {};
};

void failWrites(int error, int times = 1) {
    writeFault = {error, -1, times, 0};
}
void shortenWrites(ssize_t count, int times = 1, int errorAfter = 0) {
    writeFault = {0, count, times, errorAfter};
}

} // namespace

// ---- failing writes ----------------------------------------------------------------------

TEST_F(FaultWrite, FullDeviceIs54AndTheNextMessageIsWritten) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    openSized(100);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    const std::string before = bytes(FIRST);
    failWrites(ENOSPC, 3);
    for (int message = 0; message < 3; ++message)
        EXPECT_RESULT(ZOLTLOG_DEVICE_FULL, send(&handle, "lost"));
    EXPECT_EQ(bytes(FIRST), before);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), (Texts{"one", "two"}));
    EXPECT_EQ(logFiles(), Names{FIRST});
}

TEST_F(FaultWrite, OtherFailuresAre5) {
    openSized(100);
    for (const int error : {EIO, EDQUOT, EROFS, EINTR, EFBIG, EAGAIN}) {
        failWrites(error);
        EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost")) << error;
        EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "kept")) << error;
    }
    EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), Texts(6, "kept"));
}

TEST_F(FaultWrite, OnceFullTheDeviceCountsAsFullAtEveryFailure) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    openSized(100);
    failWrites(ENOSPC);
    EXPECT_RESULT(ZOLTLOG_DEVICE_FULL, send(&handle, "lost"));
    EXPECT_EQ(errorCode, 54);
    failWrites(EIO);
    EXPECT_RESULT(ZOLTLOG_DEVICE_FULL, send(&handle, "lost"));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "kept"));
}

TEST_F(FaultWrite, ShortWriteTellsItsReasonAtOnceAndTheTornRecordIsEnded) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    openSized(100);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    const std::string before = bytes(FIRST);
    shortenWrites(10, 1, EIO);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "torn"));
    EXPECT_EQ(bytes(FIRST), before + "2,5,7,7,2," + "\n");
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), (Texts{"one", "", "two"}));
    shortenWrites(10, 1, ENOSPC);
    EXPECT_RESULT(ZOLTLOG_DEVICE_FULL, send(&handle, "torn"));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "three"));
    EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), (Texts{"one", "", "two", "", "three"}));
}

TEST_F(FaultWrite, ShortWritesThatGoOnMakeAWholeRecord) {
    openSized(100);
    shortenWrites(10, 3);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), (Texts{"one", "two"}));
}

TEST_F(FaultWrite, RecordThatAnotherWriterCameBetweenIsNotAccepted) {
    openSized(100);
    const std::string before = bytes(FIRST);
    shortenWrites(10);
    onShortWrite = [&] { support::writeFile("logs/" + std::string(FIRST), bytes(FIRST) + "another\n"); };
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
    EXPECT_EQ(bytes(FIRST).compare(0, before.size() + 18, before + "2,5,7,7,1,another\n"), 0);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), (Texts{"", "", "one"}));
}

TEST_F(FaultWrite, ShortWriteOfNothingLeavesNoTrace) {
    openSized(100);
    shortenWrites(0);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), Texts{"one"});
}

TEST_F(FaultWrite, NextRecordAfterATornOneStartsOnALineOfItsOwn) {
    openSized(100);
    // The end of the torn line cannot be written either.
    const std::string torn = bytes(FIRST) + "2,5,7,7,1,";
    struct rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    struct rlimit limited = old;
    limited.rlim_cur = torn.size();
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "torn"));
    EXPECT_EQ(bytes(FIRST), torn);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
    EXPECT_EQ(bytes(FIRST), torn);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), (Texts{"", "one"}));
    EXPECT_EQ(bytes(FIRST).compare(0, torn.size() + 1, torn + "\n"), 0);
}

TEST_F(FaultWrite, FileSizeLimitOfTheProcessEndsItUnlessTheSignalIsIgnored) {
    openSized(100);
    struct rlimit limited = {};
    limited.rlim_cur = limited.rlim_max = 10;
    EXPECT_EQ(support::inChild([&] {
                  struct rlimit noCore = {};
                  setrlimit(RLIMIT_CORE, &noCore);
                  signal(SIGXFSZ, SIG_DFL);
                  setrlimit(RLIMIT_FSIZE, &limited);
                  return static_cast<int>(send(&handle, "lost"));
              }),
              128 + SIGXFSZ);
    EXPECT_EQ(support::inChild([&] {
                  signal(SIGXFSZ, SIG_IGN);
                  setrlimit(RLIMIT_FSIZE, &limited);
                  return static_cast<int>(send(&handle, "lost"));
              }),
              5);
}

// ---- failing creation ----------------------------------------------------------------------

TEST_F(FaultWrite, HeaderOnAFullDeviceIs1AndLeavesNoFile) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    for (const bool isShort : {false, true}) {
        if (isShort)
            shortenWrites(10, 1);
        else
            failWrites(ENOSPC, 1);
        const size_t descriptors = support::openDescriptors();
        EXPECT_RESULT(ZOLTLOG_FAILED, open(&handle, settings()));
        EXPECT_EQ(logFiles(), Names{});
        EXPECT_EQ(support::openDescriptors(), descriptors);
        EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
        EXPECT_EQ(logFiles(), Names{FIRST});
        EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), Texts{"one"});
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
        ASSERT_EQ(unlink(("logs/" + std::string(FIRST)).c_str()), 0);
    }
}

TEST_F(FaultWrite, RolloverOnAFullDeviceIs54AndMakesNoEmptyFiles) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    openSized(1);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(800, 'x')));
    const std::string before = bytes(FIRST);
    failWrites(ENOSPC, 1000);
    for (int message = 0; message < 5; ++message)
        EXPECT_RESULT(ZOLTLOG_DEVICE_FULL, send(&handle, std::string(800, 'y')));
    EXPECT_EQ(bytes(FIRST), before);
    EXPECT_EQ(logFiles(), Names{FIRST});
    writeFault.times = 0;
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, std::string(800, 'z')));
    EXPECT_EQ(logFiles(), (Names{FIRST, SECOND}));
    EXPECT_EQ(textsIn("logs/" + std::string(SECOND)), Texts{std::string(800, 'z')});
}

TEST_F(FaultWrite, RolloverWithoutDescriptorsIs5AndTriedAgain) {
    openSized(1);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(800, 'x')));
    struct rlimit old;
    getrlimit(RLIMIT_NOFILE, &old);
    struct rlimit limited = old;
    limited.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limited), 0);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, std::string(800, 'y')));
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, std::string(800, 'y')));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, std::string(800, 'z')));
    EXPECT_EQ(logFiles(), (Names{FIRST, SECOND}));
    EXPECT_EQ(textsIn("logs/" + std::string(SECOND)), Texts{std::string(800, 'z')});
}

TEST_F(FaultWrite, SizeThatCannotBeToldRollsNothing) {
    openSized(1);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(800, 'x')));
    failingCall = 1;
    failingError = EIO;
    counting = true;
    calls = 0;
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(800, 'y')));
    counting = false;
    EXPECT_EQ(logFiles(), Names{FIRST});
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(800, 'z')));
    EXPECT_EQ(textsIn("logs/" + std::string(FIRST)), (Texts{std::string(800, 'x'), std::string(800, 'y')}));
    EXPECT_EQ(textsIn("logs/" + std::string(SECOND)), Texts{std::string(800, 'z')});
}

// ---- every call once -------------------------------------------------------------------------

namespace {

// Opens, sends, rolls, reopens and closes; adds up which of the texts should be there.
struct Scenario {
    std::vector<uint32_t> results;
    Texts written;
};

Scenario runScenario(const char *directory) {
    Scenario scenario;
    LogHandle handle;
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 1;
    strcpy(cfg.directory, directory);
    scenario.results.push_back(open(&handle, cfg));
    for (int message = 0; message < 6; ++message) {
        const std::string text = std::to_string(message) + std::string(400, 'x');
        if (message == 3)
            advance(601);
        scenario.results.push_back(send(&handle, text));
        if (scenario.results.back() == 0)
            scenario.written.push_back(text);
    }
    counting = false;
    const std::string last = "after the fault";
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, last));
    scenario.written.push_back(last);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    return scenario;
}

} // namespace

TEST_F(FaultWrite, EverySystemCallMayFailOnce) {
    const size_t descriptors = support::openDescriptors();
    for (const int error : {EIO, EACCES, EMFILE, ENOENT, EINTR}) {
        bool reached = true;
        for (int number = 1; reached; ++number) {
            setClock(localTime(2024, 3, 1, 10));
            const std::string directory = "fault" + std::to_string(error) + "-" + std::to_string(number);
            calls = 0;
            failingCall = number;
            failingError = error;
            counting = true;
            const Scenario scenario = runScenario(("./" + directory + "/").c_str());
            reached = calls >= number;
            ASSERT_LT(number, 400) << "the scenario ends";
            for (const uint32_t result : scenario.results)
                EXPECT_TRUE(result == 0 || result == 1 || result == 5 || result == 32 || result == 51 ||
                            result == 52)
                    << directory << ": " << result;
            EXPECT_LE(std::count_if(scenario.results.begin(), scenario.results.end(),
                                    [](uint32_t result) { return result != 0; }),
                      1)
                << directory;
            Texts found;
            for (const std::string &name : support::listFiles(directory)) {
                const std::string path = directory + "/" + name;
                EXPECT_EQ(name.substr(name.size() - 4), ".log") << path;
                EXPECT_EQ(support::readFile(path).compare(0, 14, "$Header 65543,"), 0) << path;
                for (const std::string &text : textsIn(path))
                    found.push_back(text);
            }
            EXPECT_EQ(found, scenario.written) << directory;
            EXPECT_EQ(support::openDescriptors(), descriptors) << directory;
        }
    }
}

// ---- a small file system -----------------------------------------------------------------------

TEST_F(FaultWrite, SmallFileSystemFillsUpAndRecovers) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    support::makeDirectory("small");
    if (geteuid() != 0 || mount("none", "small", "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "file systems cannot be mounted here";
    openSized(16, "./small/logs/");
    const std::string text(3000, 'x');
    uint32_t result = 0;
    int written = 0;
    for (; result == 0 && written < 100; ++written)
        result = send(&handle, text);
    --written;
    EXPECT_GT(written, 10);
    EXPECT_TRUE(result == 54 || result == 5) << result;
    std::vector<std::string> before;
    const Names files = support::listFiles("small/logs");
    for (const std::string &name : files)
        before.push_back(support::readFile("small/logs/" + name));
    for (int message = 0; message < 20; ++message)
        EXPECT_RESULT(ZOLTLOG_DEVICE_FULL, send(&handle, text));
    EXPECT_EQ(support::listFiles("small/logs"), files) << "no empty files";
    for (size_t file = 0; file < files.size(); ++file)
        EXPECT_EQ(support::readFile("small/logs/" + files[file]), before[file]);
    ASSERT_EQ(unlink(("small/logs/" + files[0]).c_str()), 0);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, text));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "last"));
    const Names after = support::listFiles("small/logs");
    EXPECT_EQ(textsIn("small/logs/" + after.back()).back(), "last");
    for (const std::string &name : after) {
        const std::string content = support::readFile("small/logs/" + name);
        EXPECT_EQ(content.compare(0, 14, "$Header 65543,"), 0) << name;
    }
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
    EXPECT_EQ(umount2("small", MNT_DETACH), 0);
}
