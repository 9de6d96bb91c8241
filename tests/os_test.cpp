// SPDX-License-Identifier: Apache-2.0
// Files, directories, host and process services. The system calls that a test lets fail
// or answer are replaced in this program; otherwise the real ones do the work.
#include <gtest/gtest.h>

#include "zoltlog.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utime.h>
#include <vector>

#include "support/cases.h"
#include "support/failing_allocations.h"
#include "support/support.h"
#include "support/syscalls.h"

namespace {

// What the replaced calls do: 0 or empty means the real thing.
int openError;
int openErrors; // how many opens fail with openError
int writeError;
int fstatError;
int fchmodError;
int mkdirError;
mode_t askedMode; // of the last mkdir
int readdirError;
int reads; // calls
int writes;
size_t writeLimit; // bytes that one write takes at most
std::function<void(const char *)> beforeMkdir;
std::function<void(const char *)> beforeCreate; // before an exclusive open
const char *hostName;
bool hostNameFails;
int lookups;
int freedLists;
int lookupError;
addrinfo *lookupResult;
std::string lookedUpName;
std::string lookedUpService;
addrinfo lookupHints;

bool failsWith(int error) {
    if (error != 0)
        errno = error;
    return error != 0;
}

int hookedOpen(const char *path, int flags, mode_t mode) {
    if (openErrors > 0) {
        --openErrors;
        errno = openError;
        return -1;
    }
    if ((flags & O_EXCL) != 0 && beforeCreate)
        beforeCreate(path);
    return libc::open.real(path, flags, mode);
}

int hookedLookUp(const char *name, const char *service, const addrinfo *hints, addrinfo **result) {
    ++lookups;
    lookedUpName = name;
    lookedUpService = service != nullptr ? service : "(null)";
    lookupHints = *hints;
    *result = lookupResult;
    return lookupError;
}

int hookedHostName(char *buffer, size_t length) {
    if (hostNameFails)
        return -1;
    if (hostName == nullptr)
        return libc::gethostname.real(buffer, length);
    const size_t size = std::strlen(hostName) + 1;
    std::memcpy(buffer, hostName, std::min(size, length)); // no end when it is cut
    return 0;
}

const bool PREPARED = support::eachCase([] {
    openError = openErrors = writeError = fstatError = fchmodError = mkdirError = readdirError = 0;
    reads = writes = lookups = freedLists = lookupError = 0;
    writeLimit = SIZE_MAX;
    beforeMkdir = beforeCreate = nullptr;
    hostName = nullptr;
    hostNameFails = false;
    lookupResult = nullptr;
    libc::open.hook = hookedOpen;
    libc::write.hook = [](int descriptor, const void *bytes, size_t length) -> ssize_t {
        ++writes;
        return failsWith(writeError) ? -1 : libc::write.real(descriptor, bytes, std::min(length, writeLimit));
    };
    libc::read.hook = [](int descriptor, void *bytes, size_t length) {
        ++reads;
        return libc::read.real(descriptor, bytes, length);
    };
    libc::readdir.hook = [](DIR *stream) {
        return failsWith(readdirError) ? nullptr : libc::readdir.real(stream);
    };
    libc::fstat.hook = [](int descriptor, struct stat *status) {
        return failsWith(fstatError) ? -1 : libc::fstat.real(descriptor, status);
    };
    libc::fchmod.hook = [](int descriptor, mode_t mode) {
        return failsWith(fchmodError) ? -1 : libc::fchmod.real(descriptor, mode);
    };
    libc::mkdir.hook = [](const char *path, mode_t mode) {
        askedMode = mode;
        if (beforeMkdir)
            beforeMkdir(path);
        return failsWith(mkdirError) ? -1 : libc::mkdir.real(path, mode);
    };
    libc::gethostname.hook = hookedHostName;
    libc::getaddrinfo.hook = hookedLookUp;
    libc::freeaddrinfo.hook = [](addrinfo *list) {
        EXPECT_EQ(lookupResult, list);
        ++freedLists;
    };
});

} // namespace

namespace {

// A file handle that is closed at the end, filled with bytes that nobody set on purpose.
struct File : OsFile {
    File() { std::memset(static_cast<OsFile *>(this), 0x5A, sizeof(OsFile)); }
    ~File() {
        if (descriptor > 2 && descriptor != 0x5A5A5A5A)
            ::close(descriptor);
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
};

mode_t modeOf(const std::string &path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0xFFFFFFFF;
}

mode_t umaskNow() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

int flagsOf(int descriptor) {
    return fcntl(descriptor, F_GETFL);
}

bool closesOnExec(int descriptor) {
    return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0;
}

double secondsOf(const std::function<void()> &body) {
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

// ---- file handles ------------------------------------------------------------------------

TEST(OsFileHandle, InitialisedHandleIsClosedAndUnread) {
    File file;
    EXPECT_EQ(1, zoltLogOs_initfilehandle(&file));
    EXPECT_EQ(-1, file.descriptor);
    EXPECT_EQ(-1, file.readPosition);
    EXPECT_EQ(0, file.readCount);
    EXPECT_EQ(0, zoltLogOs_initfilehandle(nullptr));
}

TEST(OsFileHandle, OpenSetsAHandleOfUninitialisedMemory) {
    File file;
    EXPECT_EQ(ZOLTLOG_OS_OPEN_NO_PATH, zoltLogOs_open(&file, "missing", ZOLTLOG_OS_MODE_READ, 0));
    EXPECT_EQ(-1, file.descriptor);
    EXPECT_EQ(-1, file.readPosition);
    EXPECT_EQ(0, file.readCount);
    std::memset(static_cast<OsFile *>(&file), 0x5A, sizeof(OsFile));
    EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "new", ZOLTLOG_OS_MODE_APPEND, 0600));
    EXPECT_GT(file.descriptor, 2);
    EXPECT_EQ(-1, file.readPosition);
    EXPECT_EQ(0, file.readCount);
}

TEST(OsFileHandle, NullArgumentsAreInvalid) {
    File file;
    char byte = 0;
    uint64_t size = 0;
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_open(&file, nullptr, ZOLTLOG_OS_MODE_APPEND, 0600));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_open(nullptr, "f", ZOLTLOG_OS_MODE_APPEND, 0600));
    EXPECT_FALSE(support::exists("f"));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_read(nullptr, &byte, 1));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_write(nullptr, &byte, 1));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_fsize(nullptr, &size));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_fsize(&file, nullptr));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_remove(nullptr));
    zoltLogOs_close(nullptr);
}

TEST(OsFileHandle, CloseClosesAndMarksTheHandle) {
    File file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_APPEND, 0600));
    const int descriptor = file.descriptor;
    zoltLogOs_close(&file);
    EXPECT_EQ(-1, file.descriptor);
    EXPECT_EQ(-1, fcntl(descriptor, F_GETFD));
    zoltLogOs_close(&file);
    EXPECT_EQ(-1, file.descriptor);
}

TEST(OsFileHandle, CloseLeavesDescriptorZeroOpen) {
    File file;
    zoltLogOs_initfilehandle(&file);
    file.descriptor = 0;
    const int before = fcntl(0, F_GETFD);
    zoltLogOs_close(&file);
    EXPECT_EQ(0, file.descriptor);
    EXPECT_EQ(before, fcntl(0, F_GETFD));
}

TEST(OsFileHandle, ReadTellsCountAndState) {
    support::writeFile("f", "abcdef");
    File file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_READ, 0));
    char bytes[8] = {};
    EXPECT_EQ(4, zoltLogOs_read(&file, bytes, 4));
    EXPECT_STREQ("abcd", bytes);
    EXPECT_EQ(0, file.readPosition);
    EXPECT_EQ(4, file.readCount);
    EXPECT_EQ(2, zoltLogOs_read(&file, bytes, 8));
    EXPECT_EQ(0, file.readPosition);
    EXPECT_EQ(2, file.readCount);
    EXPECT_EQ(0, zoltLogOs_read(&file, bytes, 8));
    EXPECT_EQ(-1, file.readPosition);
    EXPECT_EQ(0, file.readCount);
}

TEST(OsFileHandle, FailedReadIsMinusOneAndEndsReading) {
    File file;
    zoltLogOs_initfilehandle(&file);
    file.readPosition = 0;
    file.readCount = 7;
    char byte;
    EXPECT_EQ(-1, zoltLogOs_read(&file, &byte, 1));
    EXPECT_EQ(-1, file.readPosition);
    EXPECT_EQ(0, file.readCount);
}

TEST(OsFileHandle, WriteReturnsTheCount) {
    File file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_APPEND, 0600));
    EXPECT_EQ(3, zoltLogOs_write(&file, "abc", 3));
    EXPECT_EQ(0, zoltLogOs_write(&file, "", 0));
    EXPECT_EQ("abc", support::readFile("f"));
}

TEST(OsFileHandle, ShortWriteIsToldAndNotContinued) {
    File file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_APPEND, 0600));
    writeLimit = 2;
    writes = 0;
    EXPECT_EQ(2, zoltLogOs_write(&file, "abcdef", 6));
    EXPECT_EQ(1, writes);
    writeLimit = SIZE_MAX;
    EXPECT_EQ("ab", support::readFile("f"));
    writes = 0;
    writeError = EINTR;
    EXPECT_EQ(-1, zoltLogOs_write(&file, "abcdef", 6));
    EXPECT_EQ(1, writes);
    EXPECT_EQ(0, errorCode);
}

TEST(OsFileHandle, ShortReadIsToldAndNotContinued) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    ASSERT_EQ(3, ::write(ends[1], "abc", 3));
    File file;
    zoltLogOs_initfilehandle(&file);
    file.descriptor = ends[0];
    char bytes[8];
    reads = 0;
    EXPECT_EQ(3, zoltLogOs_read(&file, bytes, 8));
    EXPECT_EQ(1, reads);
    EXPECT_EQ(3, file.readCount);
    ::close(ends[1]);
}

TEST(OsFileHandle, OnlyAFullDeviceSetsTheMark) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    EXPECT_EQ(0, errorCode);
    File file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_APPEND, 0600));
    for (int error : {EIO, EINTR, EDQUOT, EFBIG, EBADF}) {
        writeError = error;
        EXPECT_EQ(-1, zoltLogOs_write(&file, "abc", 3));
        EXPECT_EQ(0, errorCode) << error;
    }
    writeError = ENOSPC;
    EXPECT_EQ(-1, zoltLogOs_write(&file, "abc", 3));
    EXPECT_EQ(54, errorCode);
}

TEST(OsFileHandle, AProgramsOwnObjectsOfTheExportedNamesAreNotWritten) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    const support::Finished done = support::run({support::buildDirectory() + "/tests/own_names"});
    if (done.status == 77)
        GTEST_SKIP() << "no /dev/full";
    EXPECT_EQ(0, done.status) << done.out << done.err;
}

TEST(OsFileHandle, DeviceFullMarkStaysForTheProcess) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    File file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_APPEND, 0600));
    writeError = ENOSPC;
    EXPECT_EQ(-1, zoltLogOs_write(&file, "abc", 3));
    writeError = EIO;
    EXPECT_EQ(-1, zoltLogOs_write(&file, "abc", 3));
    EXPECT_EQ(54, errorCode);
    writeError = 0;
    EXPECT_EQ(3, zoltLogOs_write(&file, "abc", 3));
    EXPECT_EQ(54, errorCode);
}

TEST(OsFileHandle, FullDeviceIsNoticedForReal) {
    if (!support::inFreshProcess()) // the mark of a full device stays
        return;
    File file;
    if (zoltLogOs_open(&file, "/dev/full", ZOLTLOG_OS_MODE_APPEND, 0600) != ZOLTLOG_OS_OK)
        GTEST_SKIP() << "no /dev/full";
    EXPECT_EQ(-1, zoltLogOs_write(&file, "abc", 3));
    EXPECT_EQ(54, errorCode);
}

TEST(OsFileHandle, SizeIsThatOfTheOpenFile) {
    support::writeFile("f", "12345");
    File file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_READ, 0));
    uint64_t size = 99;
    EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_fsize(&file, &size));
    EXPECT_EQ(5u, size);
    zoltLogOs_close(&file);
    EXPECT_EQ(ZOLTLOG_OS_FAILED, zoltLogOs_fsize(&file, &size));
    EXPECT_EQ(5u, size);
}

TEST(OsFileHandle, SizeOfASparseFileBeyond32BitsIsWhole) {
    support::writeFile("f", "");
    if (truncate("f", 5000000000) != 0)
        GTEST_SKIP() << "no file of this size here";
    File file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_READ, 0));
    uint64_t size = 0;
    EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_fsize(&file, &size));
    EXPECT_EQ(5000000000u, size);
}

TEST(OsFileHandle, RemoveRemovesFilesAndEmptyDirectories) {
    support::writeFile("f", "x");
    support::makeDirectory("d");
    EXPECT_EQ(0, zoltLogOs_remove("f"));
    EXPECT_EQ(0, zoltLogOs_remove("d"));
    EXPECT_FALSE(support::exists("f"));
    EXPECT_FALSE(support::exists("d"));
    EXPECT_EQ(ZOLTLOG_OS_FAILED, zoltLogOs_remove("f"));
}

// ---- opening -----------------------------------------------------------------------------

TEST(OsOpen, AppendModeCreatesAndWritesAtTheEnd) {
    File file;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", 0, 0640));
    EXPECT_EQ(O_WRONLY, flagsOf(file.descriptor) & O_ACCMODE);
    EXPECT_EQ(3, zoltLogOs_write(&file, "abc", 3));
    File second;
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&second, "f", 0, 0640));
    EXPECT_EQ(3, zoltLogOs_write(&second, "def", 3));
    EXPECT_EQ(3, zoltLogOs_write(&file, "ghi", 3));
    EXPECT_EQ("abcdefghi", support::readFile("f"));
    char byte;
    EXPECT_EQ(-1, zoltLogOs_read(&file, &byte, 1));
}

TEST(OsOpen, TruncateModeCreatesOrEmpties) {
    support::writeFile("f", "old content");
    for (const char *path : {"f", "new"}) {
        File file;
        ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, path, 2, 0640));
        EXPECT_EQ(O_WRONLY, flagsOf(file.descriptor) & O_ACCMODE);
        EXPECT_EQ(0, flagsOf(file.descriptor) & O_APPEND);
        EXPECT_EQ(3, zoltLogOs_write(&file, "new", 3));
        EXPECT_EQ("new", support::readFile(path));
    }
}

TEST(OsOpen, EveryOtherModeReadsAndCreatesNothing) {
    support::writeFile("f", "abc");
    for (int32_t mode : {1, 3, 4, -1, INT32_MAX, INT32_MIN}) {
        File file;
        ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", mode, 0)) << mode;
        EXPECT_EQ(O_RDONLY, flagsOf(file.descriptor) & O_ACCMODE) << mode;
        EXPECT_EQ(-1, zoltLogOs_write(&file, "x", 1));
        EXPECT_EQ(ZOLTLOG_OS_OPEN_NO_PATH, zoltLogOs_open(&file, "missing", mode, 0600)) << mode;
        EXPECT_FALSE(support::exists("missing"));
    }
    EXPECT_EQ("abc", support::readFile("f"));
}

TEST(OsOpen, ErrnoDecidesTheResult) {
    const struct {
        int error;
        int32_t result;
    } rows[] = {
        {EACCES, ZOLTLOG_OS_OPEN_DENIED},  {ENOENT, ZOLTLOG_OS_OPEN_NO_PATH},
        {EFAULT, ZOLTLOG_OS_OPEN_NO_PATH}, {EPERM, ZOLTLOG_OS_OPEN_FAILED},
        {EROFS, ZOLTLOG_OS_OPEN_FAILED},   {ENOTDIR, ZOLTLOG_OS_OPEN_FAILED},
        {EISDIR, ZOLTLOG_OS_OPEN_FAILED},  {EMFILE, ZOLTLOG_OS_OPEN_FAILED},
        {ENFILE, ZOLTLOG_OS_OPEN_FAILED},  {ENOSPC, ZOLTLOG_OS_OPEN_FAILED},
        {ELOOP, ZOLTLOG_OS_OPEN_FAILED},   {EWOULDBLOCK, ZOLTLOG_OS_OPEN_FAILED},
    };
    for (const auto &row : rows) {
        for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_READ, ZOLTLOG_OS_MODE_TRUNCATE}) {
            File file;
            openError = row.error;
            openErrors = 1000000;
            EXPECT_EQ(row.result, zoltLogOs_open(&file, "f", mode, 0600)) << row.error;
            EXPECT_EQ(-1, file.descriptor);
            openErrors = 0;
        }
    }
}

TEST(OsOpen, RealPathsGiveTheResultsToo) {
    support::writeFile("file", "");
    File file;
    for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_TRUNCATE, ZOLTLOG_OS_MODE_READ}) {
        EXPECT_EQ(ZOLTLOG_OS_OPEN_NO_PATH, zoltLogOs_open(&file, "no/such/f", mode, 0600));
        EXPECT_EQ(ZOLTLOG_OS_OPEN_NO_PATH, zoltLogOs_open(&file, "", mode, 0600));
        EXPECT_EQ(ZOLTLOG_OS_OPEN_FAILED, zoltLogOs_open(&file, "file/f", mode, 0600));
        EXPECT_EQ(ZOLTLOG_OS_OPEN_FAILED, zoltLogOs_open(&file, std::string(5000, 'x').c_str(), mode, 0600));
    }
}

TEST(OsOpen, MissingPermissionIsDenied) {
    support::makeDirectory("closed");
    support::writeFile("closed/f", "x");
    ASSERT_EQ(0, chmod("closed", 0));
    EXPECT_TRUE(support::asOrdinaryUser([] {
        for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_READ, ZOLTLOG_OS_MODE_TRUNCATE}) {
            File file;
            EXPECT_EQ(ZOLTLOG_OS_OPEN_DENIED, zoltLogOs_open(&file, "closed/f", mode, 0600));
            EXPECT_EQ(ZOLTLOG_OS_OPEN_DENIED, zoltLogOs_open(&file, "closed/new", mode, 0600));
        }
    }));
    chmod("closed", 0700);
}

TEST(OsOpen, InterruptedOpenIsRepeated) {
    support::writeFile("f", "abc");
    for (int32_t mode : {ZOLTLOG_OS_MODE_READ, ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_TRUNCATE}) {
        for (const char *path : {"f", "new"}) {
            if (mode == ZOLTLOG_OS_MODE_READ && std::strcmp(path, "new") == 0)
                continue;
            File file;
            openError = EINTR;
            openErrors = 5;
            EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, path, mode, 0600));
            EXPECT_EQ(0, openErrors);
        }
    }
}

TEST(OsOpen, CreatedFilesHaveExactlyThePermissionsUnderAnyUmask) {
    for (mode_t mask : {0, 022, 027, 077, 0777}) {
        for (uint32_t permissions : {0660u, 0640u, 0600u, 0666u, 0u, 07777u, 01644u, 04711u}) {
            for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_TRUNCATE}) {
                umask(mask);
                File file;
                EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", mode, permissions));
                EXPECT_EQ(permissions, modeOf("f")) << std::oct << mask;
                EXPECT_EQ(mask, umaskNow());
                unlink("f");
            }
        }
    }
    umask(022);
}

TEST(OsOpen, BitsBeyondPermissionsAreIgnored) {
    File file;
    EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_APPEND, 0xFFFF0000u | 0640u));
    EXPECT_EQ(0640u, modeOf("f"));
}

TEST(OsOpen, ExistingFilesKeepTheirPermissions) {
    support::writeFile("f", "abc");
    ASSERT_EQ(0, chmod("f", 0604));
    for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_TRUNCATE, ZOLTLOG_OS_MODE_READ}) {
        File file;
        EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", mode, 0660));
        EXPECT_EQ(0604u, modeOf("f"));
    }
}

TEST(OsOpen, FileThatAppearsMeanwhileIsOpenedAndKeepsItsPermissions) {
    for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_TRUNCATE}) {
        beforeCreate = [](const char *path) {
            beforeCreate = nullptr;
            support::writeFile(path, "theirs");
            chmod(path, 0604);
        };
        File file;
        EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", mode, 0660));
        EXPECT_EQ(0604u, modeOf("f"));
        EXPECT_EQ(mode == ZOLTLOG_OS_MODE_APPEND ? "theirs" : "", support::readFile("f"));
        unlink("f");
    }
}

TEST(OsOpen, NameThatComesAndGoesForEverEndsAsAFailure) {
    // Taken at every creation, gone at every look.
    const bool endsAtAll =
        secondsOf([] {
            openError = ENOENT;
            File file;
            beforeCreate = [](const char *) {
                openErrors = 2; // this creation and the next look
                openError = EEXIST;
            };
            EXPECT_EQ(0, symlink("nowhere", "f"));
            EXPECT_EQ(ZOLTLOG_OS_OPEN_FAILED, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_APPEND, 0600));
        }) < 5;
    EXPECT_TRUE(endsAtAll);
}

TEST(OsOpen, PermissionsThatCannotBeSetDoNotFailTheOpen) {
    umask(077);
    fchmodError = EPERM;
    File file;
    EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_APPEND, 0660));
    EXPECT_EQ(0600u, modeOf("f"));
    umask(022);
}

TEST(OsOpen, FileThatCannotBeExaminedIsClosedAgain) {
    const size_t before = support::openDescriptors();
    fstatError = EIO;
    File file;
    EXPECT_EQ(ZOLTLOG_OS_OPEN_FAILED, zoltLogOs_open(&file, "f", ZOLTLOG_OS_MODE_APPEND, 0660));
    EXPECT_EQ(-1, file.descriptor);
    fstatError = 0;
    EXPECT_EQ(before, support::openDescriptors());
}

TEST(OsOpen, OnlyFilesAndCharacterDevicesAreTakenAndNothingBlocks) {
    support::makeDirectory("directory");
    ASSERT_EQ(0, mkfifo("fifo", 0666));
    ASSERT_EQ(0, mkfifo("read_fifo", 0666));
    const int reader = ::open("read_fifo", O_RDONLY | O_NONBLOCK);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "socket");
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address));
    const size_t before = support::openDescriptors();
    for (const char *path : {"directory", ".", "fifo", "read_fifo", "socket"}) {
        for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_READ, ZOLTLOG_OS_MODE_TRUNCATE}) {
            File file;
            EXPECT_LT(secondsOf([&] {
                          EXPECT_EQ(ZOLTLOG_OS_OPEN_FAILED, zoltLogOs_open(&file, path, mode, 0660));
                      }),
                      1.0);
            EXPECT_EQ(-1, file.descriptor) << path;
        }
    }
    EXPECT_EQ(before, support::openDescriptors());
    ::close(listener);
    ::close(reader);
}

TEST(OsOpen, CharacterDeviceIsTakenForWritingAndBlocksLikeAnyOther) {
    for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_TRUNCATE}) {
        File file;
        ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "/dev/null", mode, 0660));
        EXPECT_EQ(0, flagsOf(file.descriptor) & O_NONBLOCK);
    }
    File file;
    EXPECT_EQ(ZOLTLOG_OS_OPEN_FAILED, zoltLogOs_open(&file, "/dev/null", ZOLTLOG_OS_MODE_READ, 0));
}

TEST(OsOpen, SymbolicLinksAreNotFollowedForWriting) {
    support::writeFile("victim", "precious");
    support::makeDirectory("directory");
    ASSERT_EQ(0, symlink("victim", "to_file"));
    ASSERT_EQ(0, symlink("created_by_link", "dangling"));
    ASSERT_EQ(0, symlink("directory", "to_directory"));
    ASSERT_EQ(0, symlink("/dev/null", "to_device"));
    for (const char *path : {"to_file", "dangling", "to_directory", "to_device"}) {
        for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_TRUNCATE}) {
            File file;
            EXPECT_EQ(ZOLTLOG_OS_OPEN_FAILED, zoltLogOs_open(&file, path, mode, 0660)) << path;
        }
    }
    EXPECT_EQ("precious", support::readFile("victim"));
    EXPECT_FALSE(support::exists("created_by_link"));
    File file; // inside a linked directory is another matter
    EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "to_directory/f", ZOLTLOG_OS_MODE_APPEND, 0660));
}

TEST(OsOpen, SymbolicLinksAreFollowedForReading) {
    support::writeFile("target", "abc");
    ASSERT_EQ(0, symlink("target", "link"));
    File file;
    EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "link", ZOLTLOG_OS_MODE_READ, 0));
}

TEST(OsOpen, LinkPlantedBetweenLookAndCreationIsNotFollowed) {
    support::writeFile("victim", "precious");
    beforeCreate = [](const char *path) { (void)!symlink("victim", path); };
    for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_TRUNCATE}) {
        File file;
        EXPECT_EQ(ZOLTLOG_OS_OPEN_FAILED, zoltLogOs_open(&file, "f", mode, 0660));
        unlink("f");
    }
    EXPECT_EQ("precious", support::readFile("victim"));
}

TEST(OsOpen, DescriptorsCloseOnExec) {
    for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_READ, ZOLTLOG_OS_MODE_TRUNCATE}) {
        File file;
        ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "f", mode, 0660));
        EXPECT_TRUE(closesOnExec(file.descriptor));
    }
}

TEST(OsOpen, DescriptorsOfStandardStreamsAreNeverTaken) {
    EXPECT_EQ(
        0, support::inChild([] {
            support::writeFile("x-1.log", "");
            close(0);
            close(1);
            close(2);
            for (int32_t mode : {ZOLTLOG_OS_MODE_APPEND, ZOLTLOG_OS_MODE_READ, ZOLTLOG_OS_MODE_TRUNCATE}) {
                File file;
                if (zoltLogOs_open(&file, mode == ZOLTLOG_OS_MODE_READ ? "x-1.log" : "f", mode, 0660) !=
                    ZOLTLOG_OS_OK)
                    return 1;
                if (file.descriptor <= 2 || !closesOnExec(file.descriptor))
                    return 2;
            }
            OsLogFileCursor cursor = {};
            if (zoltLogOsListLogFilesBegin(&cursor, "./") != ZOLTLOG_OS_OK || dirfd(cursor.stream) <= 2 ||
                !closesOnExec(dirfd(cursor.stream)))
                return 3;
            zoltLogOsListLogFilesEnd(&cursor);
            for (int descriptor : {0, 1, 2}) {
                if (fcntl(descriptor, F_GETFD) != -1)
                    return 4;
            }
            return 0;
        }));
}

// The host's other threads rely on the umask, which all threads share.
TEST(OsOpen, OtherThreadsNeverSeeAnotherUmask) {
    umask(022);
    support::makeDirectory("theirs");
    std::atomic<bool> stop{false};
    std::atomic<long> wrong{0};
    std::atomic<long> made{0};
    std::thread host([&] {
        while (!stop) {
            const int descriptor = ::open("theirs/host", O_WRONLY | O_CREAT | O_EXCL, 0666);
            struct stat status = {};
            ::fstat(descriptor, &status);
            if ((status.st_mode & 07777) != 0644)
                ++wrong;
            ::close(descriptor);
            unlink("theirs/host");
            ++made;
        }
    });
    for (int i = 0; i < 300 || made < 300; ++i) {
        File file;
        ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOs_open(&file, "ours", ZOLTLOG_OS_MODE_APPEND, 0666));
        ASSERT_EQ(0666u, modeOf("ours"));
        unlink("ours");
        ASSERT_EQ(0, zoltLogOs_mkdirp("./d/e", 0));
        rmdir("d/e");
        rmdir("d");
    }
    stop = true;
    host.join();
    EXPECT_EQ(0, wrong);
}

// ---- making directories ------------------------------------------------------------------

TEST(Mkdirp, NewDirectoriesHaveTheirParentsPermissionsUnderAnyUmask) {
    for (mode_t mask : {0, 022, 077, 0777}) {
        for (mode_t parent : {0700, 0755, 0775, 0777, 0711, 01777, 0300}) {
            umask(022);
            support::makeDirectory("a");
            ASSERT_EQ(0, chmod("a", parent));
            umask(mask);
            EXPECT_EQ(0, zoltLogOs_mkdirp("./a/b/c", 0123));
            EXPECT_EQ(mask, umaskNow());
            EXPECT_EQ(parent, modeOf("a/b"));
            EXPECT_EQ(parent, modeOf("a/b/c"));
            chmod("a/b", 0700);
            rmdir("a/b/c");
            rmdir("a/b");
            rmdir("a");
        }
    }
    umask(022);
}

TEST(Mkdirp, SetGroupIdAndStickyBitsAreInherited) {
    for (mode_t mask : {0, 077}) {
        support::makeDirectory("a");
        ASSERT_EQ(0, chmod("a", 03775));
        umask(mask);
        EXPECT_EQ(0, zoltLogOs_mkdirp("./a/b/c", 0));
        umask(022);
        EXPECT_EQ(03775u, modeOf("a/b"));
        EXPECT_EQ(03775u, modeOf("a/b/c"));
        rmdir("a/b/c");
        rmdir("a/b");
        rmdir("a");
    }
}

TEST(Mkdirp, WorksForAnOrdinaryUserWhoseUmaskTakesEverything) {
    support::makeDirectory("a");
    ASSERT_EQ(0, chmod("a", 0777));
    EXPECT_TRUE(support::asOrdinaryUser([] {
        umask(0777);
        EXPECT_EQ(0, zoltLogOs_mkdirp("./a/b/c", 0));
        EXPECT_EQ(0777u, modeOf("a/b"));
        EXPECT_EQ(0777u, modeOf("a/b/c"));
    }));
}

TEST(Mkdirp, AbsolutePathIsMade) {
    char here[4096];
    ASSERT_NE(nullptr, getcwd(here, sizeof here));
    const std::string path = std::string(here) + "/a/b";
    EXPECT_EQ(0, zoltLogOs_mkdirp(path.c_str(), 0));
    EXPECT_EQ(modeOf(here), modeOf(path));
}

TEST(Mkdirp, DirectoryUnderTheRootTakesAfterTheRoot) {
    const std::string path = "/qdul-mkdirp-test." + std::to_string(getpid());
    std::string asked;
    beforeMkdir = [&](const char *made) { asked = made; };
    mkdirError = EROFS; // nothing is made outside the test's directory
    EXPECT_EQ(1, zoltLogOs_mkdirp(path.c_str(), 0));
    EXPECT_EQ(path, asked);
    EXPECT_EQ(modeOf("/"), askedMode);
    beforeMkdir = nullptr;
    mkdirError = 0;
}

TEST(Mkdirp, TrailingAndDoubleSlashesDoNotMatter) {
    EXPECT_EQ(0, zoltLogOs_mkdirp("./a//b/", 0));
    EXPECT_TRUE(support::exists("a/b"));
    EXPECT_EQ(0, zoltLogOs_mkdirp("./a//b/", 0));
}

TEST(Mkdirp, PathOf1024CharactersIsTakenAndOf1025IsInvalid) {
    std::string path = "./d/";
    while (path.size() < 1024)
        path += std::string(99, 'n') + "/";
    path.resize(1024);
    EXPECT_EQ(0, zoltLogOs_mkdirp(path.c_str(), 0));
    EXPECT_TRUE(support::exists(path));
    EXPECT_EQ(3, zoltLogOs_mkdirp((path + "x").c_str(), 0));
    EXPECT_EQ(3, zoltLogOs_mkdirp(nullptr, 0));
}

TEST(Mkdirp, EmptyPathIsDone) {
    EXPECT_EQ(0, zoltLogOs_mkdirp("", 0));
}

TEST(Mkdirp, MissingNameWithoutSlashFails) {
    EXPECT_EQ(1, zoltLogOs_mkdirp("missing", 0));
    EXPECT_EQ(1, zoltLogOs_mkdirp("missing/b", 0));
    EXPECT_FALSE(support::exists("missing"));
    support::makeDirectory("there");
    EXPECT_EQ(0, zoltLogOs_mkdirp("there", 0));
    EXPECT_EQ(0, zoltLogOs_mkdirp("there/b", 0));
    EXPECT_TRUE(support::exists("there/b"));
}

TEST(Mkdirp, FileInTheWayFailsButAFileAtTheEndIsLeftAlone) {
    support::writeFile("f", "abc");
    EXPECT_EQ(1, zoltLogOs_mkdirp("./f/b", 0));
    EXPECT_EQ(0, zoltLogOs_mkdirp("./f", 0));
    EXPECT_EQ("abc", support::readFile("f"));
}

TEST(Mkdirp, DirectoryThatCannotBeMadeFails) {
    for (int error : {EACCES, EROFS, ENOSPC, EMLINK}) {
        mkdirError = error;
        EXPECT_EQ(1, zoltLogOs_mkdirp("./a", 0));
    }
    mkdirError = 0;
    EXPECT_FALSE(support::exists("a"));
}

TEST(Mkdirp, DirectoryThatSomebodyElseMakesMeanwhileIsLeftAsItIs) {
    beforeMkdir = [](const char *path) {
        beforeMkdir = nullptr;
        support::makeDirectory(path);
        chmod(path, 0711);
    };
    EXPECT_EQ(0, zoltLogOs_mkdirp("./a", 0));
    EXPECT_EQ(0711u, modeOf("a"));
}

TEST(Mkdirp, PermissionsThatCannotBeSetDoNotFail) {
    support::makeDirectory("a");
    ASSERT_EQ(0, chmod("a", 0777));
    umask(022);
    fchmodError = EPERM;
    EXPECT_EQ(0, zoltLogOs_mkdirp("./a/b", 0));
    EXPECT_EQ(0755u, modeOf("a/b"));
}

TEST(Mkdirp, DanglingLinkIsNotMadeADirectory) {
    ASSERT_EQ(0, symlink("nowhere", "link"));
    EXPECT_EQ(0, zoltLogOs_mkdirp("./link", 0)); // the name exists
    EXPECT_EQ(1, zoltLogOs_mkdirp("./link/b", 0));
    EXPECT_FALSE(support::exists("nowhere"));
}

TEST(Mkdirp, PathThatCannotBeLookedAtForAnotherReasonIsPassedOver) {
    ASSERT_EQ(0, symlink("loop", "loop"));
    EXPECT_EQ(0, zoltLogOs_mkdirp("./loop/b", 0)); // ELOOP
    const std::string tooLong(300, 'n');           // ENAMETOOLONG
    EXPECT_EQ(0, zoltLogOs_mkdirp(("./" + tooLong + "/b").c_str(), 0));
    EXPECT_EQ(std::vector<std::string>{"loop"}, support::listFiles("."));
}

TEST(Mkdirp, LeavesNoDescriptorOpen) {
    const size_t before = support::openDescriptors();
    EXPECT_EQ(0, zoltLogOs_mkdirp("./a/b/c/d", 0));
    EXPECT_EQ(before, support::openDescriptors());
}

// ---- host --------------------------------------------------------------------------------

namespace {

// The answer of the name service, address by address.
struct Answer {
    Answer() { lookupResult = nullptr; }
    void add4(const char *address) {
        auto *in = new sockaddr_in{};
        in->sin_family = AF_INET;
        EXPECT_EQ(1, inet_pton(AF_INET, address, &in->sin_addr));
        add(AF_INET, reinterpret_cast<sockaddr *>(in), sizeof *in);
    }
    void add6(const char *address) {
        auto *in = new sockaddr_in6{};
        in->sin6_family = AF_INET6;
        EXPECT_EQ(1, inet_pton(AF_INET6, address, &in->sin6_addr));
        add(AF_INET6, reinterpret_cast<sockaddr *>(in), sizeof *in);
    }
    void addOther() {
        auto *in = new sockaddr_in{};
        in->sin_family = AF_UNIX;
        in->sin_addr.s_addr = 0x01020304;
        add(AF_UNIX, reinterpret_cast<sockaddr *>(in), sizeof *in);
    }
    void add(int family, sockaddr *address, socklen_t length) {
        auto *entry = new addrinfo{};
        entry->ai_family = family;
        entry->ai_addr = address;
        entry->ai_addrlen = length;
        *last = entry;
        last = &entry->ai_next;
    }
    addrinfo **last = &lookupResult;
    ~Answer() {
        while (lookupResult != nullptr) {
            addrinfo *entry = lookupResult;
            lookupResult = entry->ai_next;
            if (entry->ai_family == AF_INET6)
                delete reinterpret_cast<sockaddr_in6 *>(entry->ai_addr);
            else
                delete reinterpret_cast<sockaddr_in *>(entry->ai_addr);
            delete entry;
        }
    }
    Answer(const Answer &) = delete;
    Answer &operator=(const Answer &) = delete;
};

} // namespace

TEST(HostName, IsTheSystems) {
    hostName = "some-host";
    char name[64] = {};
    EXPECT_EQ(0, osGetHostName(name, sizeof name));
    EXPECT_STREQ("some-host", name);
    hostNameFails = true;
    EXPECT_EQ(ZOLTLOG_OS_FAILED, osGetHostName(name, sizeof name));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, osGetHostName(nullptr, 10));
}

TEST(HostId, Ipv4AddressIsReadLittleEndian) {
    hostName = "h";
    Answer answer;
    answer.add4("10.0.0.5");
    EXPECT_EQ(0x0500000Au, osGetHostID());
    EXPECT_EQ(1, freedLists);
}

TEST(HostId, HighAddressIsNotSignExtended) {
    hostName = "h";
    Answer answer;
    answer.add4("192.168.1.254");
    EXPECT_EQ(0xFE01A8C0u, osGetHostID());
}

TEST(HostId, LookupAsksForStreamAddressesOfTheConfiguredFamilies) {
    hostName = "some-host";
    Answer answer;
    answer.add4("10.0.0.5");
    osGetHostID();
    EXPECT_EQ(1, lookups);
    EXPECT_EQ("some-host", lookedUpName);
    EXPECT_EQ("0", lookedUpService);
    EXPECT_EQ(AF_UNSPEC, lookupHints.ai_family);
    EXPECT_EQ(SOCK_STREAM, lookupHints.ai_socktype);
    EXPECT_EQ(AI_ADDRCONFIG, lookupHints.ai_flags);
    EXPECT_EQ(0, lookupHints.ai_protocol);
}

TEST(HostId, Ipv6AddressFoldsItsLastEightBytes) {
    hostName = "h";
    Answer answer;
    // b8..b11 = 01 02 03 04, b12..b15 = 10 20 30 40: sums 11 22 33 44
    answer.add6("2001:db8:ffff:ffff:0102:0304:1020:3040");
    EXPECT_EQ(0x11223344u, osGetHostID());
}

TEST(HostId, Ipv6SumsCarryBeyond32Bits) {
    hostName = "h";
    Answer answer;
    answer.add6("fe80::ffff:ffff:ffff:ffff"); // four sums of 510
    EXPECT_EQ(((510u * UINT64_C(256) + 510u) * 256u + 510u) * 256u + 510u, osGetHostID());
    EXPECT_EQ(UINT64_C(0x1FFFFFFFE), osGetHostID());
}

TEST(HostId, LoopbackIsSkippedAndTheFirstOtherAddressWins) {
    hostName = "h";
    Answer answer;
    answer.add4("127.0.0.1");
    answer.add6("::1");
    answer.addOther();
    answer.add4("0.0.0.0");
    answer.add6("2001:db8::"); // its interface half is zero
    answer.add4("127.0.1.1");  // only 127.0.0.1 counts as loopback
    answer.add4("10.0.0.5");
    EXPECT_EQ(0x0101007Fu, osGetHostID());
    EXPECT_EQ(1, freedLists);
}

TEST(HostId, LoopbackOnlyIsTheLoopbackId) {
    hostName = "h";
    Answer answer;
    answer.add4("127.0.0.1");
    answer.add6("::1");
    EXPECT_EQ(0x0100007Fu, osGetHostID());
    EXPECT_EQ(1, freedLists);
}

TEST(HostId, FailedLookupIsTheLoopbackId) {
    hostName = "h";
    lookupError = EAI_AGAIN;
    EXPECT_EQ(0x0100007Fu, osGetHostID());
    EXPECT_EQ(0, freedLists);
}

TEST(HostId, EmptyAnswerIsTheLoopbackId) {
    hostName = "h";
    EXPECT_EQ(0x0100007Fu, osGetHostID());
}

TEST(HostId, WithoutHostNameIsZero) {
    hostNameFails = true;
    EXPECT_EQ(0u, osGetHostID());
    EXPECT_EQ(0, lookups);
}

TEST(HostId, LongHostNameIsCutWithinItsBuffer) {
    const std::string longName(600, 'h');
    hostName = longName.c_str();
    Answer answer;
    answer.add4("10.0.0.5");
    EXPECT_EQ(0x0500000Au, osGetHostID());
    EXPECT_EQ(std::string(511, 'h'), lookedUpName);
}

TEST(Sockets, StartAndEndDoNothing) {
    EXPECT_EQ(0, osSocketStartup());
    osSocketCleanup();
}

// ---- process, time -----------------------------------------------------------------------

TEST(Process, IdIsThatOfTheProcessAlsoInForkedChildren) {
    EXPECT_EQ(static_cast<uint64_t>(getpid()), getPID());
    const auto parent = getPID();
    EXPECT_EQ(0, support::inChild([&] {
                  if (getPID() != static_cast<uint64_t>(getpid()) || getPID() == parent)
                      return 1;
                  return support::inChild([] { return getPID() == static_cast<uint64_t>(getpid()) ? 0 : 1; });
              }));
    EXPECT_EQ(static_cast<uint64_t>(getpid()), getPID());
}

TEST(Process, ThreadIdIsTheThreadsOwn) {
    EXPECT_EQ(static_cast<uint64_t>(pthread_self()), getTID());
    uint64_t other = 0;
    std::thread([&] {
        other = getTID();
        EXPECT_EQ(static_cast<uint64_t>(pthread_self()), other);
    }).join();
    EXPECT_NE(getTID(), other);
}

TEST(BrokenDownTime, IsLocalOrUtc) {
    setenv("TZ", "XYZ-3:30", 1); // east of Greenwich
    tzset();
    tm out = {};
    EXPECT_EQ(&out, zoltLogOs_gmtime_r(1709300702, &out)); // 2024-03-01 13:45:02
    EXPECT_EQ(124, out.tm_year);
    EXPECT_EQ(2, out.tm_mon);
    EXPECT_EQ(1, out.tm_mday);
    EXPECT_EQ(13, out.tm_hour);
    EXPECT_EQ(45, out.tm_min);
    EXPECT_EQ(2, out.tm_sec);
    EXPECT_EQ(&out, zoltLogOs_localtime_r(1709300702, &out));
    EXPECT_EQ(17, out.tm_hour);
    EXPECT_EQ(15, out.tm_min);
    EXPECT_EQ(nullptr, zoltLogOs_gmtime_r(0, nullptr));
    EXPECT_EQ(nullptr, zoltLogOs_localtime_r(0, nullptr));
    EXPECT_EQ(nullptr, zoltLogOs_gmtime_r(INT64_MAX, &out)); // a year that no tm holds
    EXPECT_EQ(nullptr, zoltLogOs_localtime_r(INT64_MAX, &out));
}

// ---- library names -----------------------------------------------------------------------

TEST(LibraryName, StemIsCutAndTheMajorVersionAppended) {
    const struct {
        const char *name;
        const char *expected;
    } rows[] = {
        {"libzoltLogFormatMsg", "libzoltLogFormatMsg.so.3"},
        {"/opt/x/libfooD.so", "/opt/x/libfoo.so.3"},
        {"fooST", "foo.so.3"},
        {"fooSTD", "foo.so.3"},     // D goes first, then ST
        {"fooDST", "fooD.so.3"},    // but not a D before it
        {"fooSTST", "fooST.so.3"},  // once only
        {"fooDD", "fooD.so.3"},     //
        {"foo", "foo.so.3"},        //
        {"foo.so.1.2", "foo.so.3"}, // the first dot cuts
        {"/a.b/foo", "/a.b/foo.so.3"},
        {"/a.bD/foo.x", "/a.bD/foo.so.3"},
        {"dir/", "dir/.so.3"},
        {"dirD/", "dirD/.so.3"}, // the directory is left alone
        {"", ".so.3"},
        {".x", ".so.3"},
        {"D", ".so.3"},
        {"ST", ".so.3"},
        {"T", "T.so.3"},
        {"S/T", "S/T.so.3"},
        {"food", "food.so.3"},
        {"foost", "foost.so.3"},
    };
    for (const auto &row : rows) {
        char *out = nullptr;
        EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOs_getLibName(row.name, &out)) << row.name;
        EXPECT_STREQ(row.expected, out);
        zoltLogFree(out);
    }
}

TEST(LibraryName, NullOrNoMemoryIsInvalid) {
    char sentinel;
    char *out = &sentinel;
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_getLibName(nullptr, &out));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_getLibName("x", nullptr));
    if (!support::allocationsCanFail())
        GTEST_SKIP() << "allocations cannot fail here";
    const support::FailingAllocation failing(0);
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOs_getLibName("x", &out));
    EXPECT_EQ(nullptr, out);
}

// ---- listing -----------------------------------------------------------------------------

namespace {

std::vector<std::string> listed(const char *directory) {
    std::vector<std::string> names;
    OsLogFileCursor cursor = {};
    int32_t result = zoltLogOsListLogFilesBegin(&cursor, directory);
    for (; result == ZOLTLOG_OS_OK; result = zoltLogOsListLogFilesNext(&cursor))
        names.emplace_back(zoltLogOsListLogFilesName(&cursor));
    EXPECT_EQ(ZOLTLOG_OS_LISTING_END, result);
    zoltLogOsListLogFilesEnd(&cursor);
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

TEST(Listing, TakesNamesWithADashThatEndInLog) {
    support::makeDirectory("d");
    for (const char *name :
         {"app-1.log", "app.log", "app-1.log.1", "app-1.LOG", "app-1.logx", "app-1.lo", "-.log", "a.b-c.log",
          "a-b.c.log", "log-x", "app-1log", "x.log-1", ".log", "a-b"})
        support::writeFile(std::string("d/") + name, "");
    const std::vector<std::string> expected = {"-.log", "a-b.c.log", "a.b-c.log", "app-1.log"};
    EXPECT_EQ(expected, listed("d/"));
    EXPECT_EQ(expected, listed("d"));
}

TEST(Listing, LongestNamesAreListedWhole) {
    const std::string name = "a-" + std::string(249, 'n') + ".log"; // 255 bytes
    support::writeFile(name, "");
    EXPECT_EQ(std::vector<std::string>{name}, listed("./"));
}

TEST(Listing, DirectoryWithoutLogFilesEndsAtOnce) {
    OsLogFileCursor cursor = {};
    support::writeFile("other", "");
    EXPECT_EQ(ZOLTLOG_OS_LISTING_END, zoltLogOsListLogFilesBegin(&cursor, "./"));
    EXPECT_EQ(ZOLTLOG_OS_LISTING_END, zoltLogOsListLogFilesNext(&cursor));
    zoltLogOsListLogFilesEnd(&cursor);
}

TEST(Listing, FailedReadingIsAnEnd) {
    support::writeFile("a-1.log", "");
    OsLogFileCursor cursor = {};
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOsListLogFilesBegin(&cursor, "./"));
    readdirError = EIO;
    EXPECT_EQ(ZOLTLOG_OS_LISTING_END, zoltLogOsListLogFilesNext(&cursor));
    zoltLogOsListLogFilesEnd(&cursor);
    EXPECT_EQ(ZOLTLOG_OS_LISTING_END, zoltLogOsListLogFilesBegin(&cursor, "./"));
    zoltLogOsListLogFilesEnd(&cursor);
}

TEST(Listing, BeginKeepsThePathAsGivenAndLeavesTheFirstWordAlone) {
    support::writeFile("a-1.log", "");
    OsLogFileCursor cursor;
    std::memset(&cursor, 0x5A, sizeof cursor);
    EXPECT_EQ(ZOLTLOG_OS_OK, zoltLogOsListLogFilesBegin(&cursor, ".//"));
    EXPECT_STREQ(".//", cursor.directory);
    EXPECT_EQ(UINT64_C(0x5A5A5A5A5A5A5A5A), cursor.word);
    EXPECT_NE(nullptr, cursor.stream);
    EXPECT_TRUE(closesOnExec(dirfd(cursor.stream)));
    EXPECT_STREQ("a-1.log", cursor.entry->d_name);
    zoltLogOsListLogFilesEnd(&cursor);
    EXPECT_EQ(nullptr, cursor.directory);
    EXPECT_EQ(nullptr, cursor.stream);
    EXPECT_EQ(nullptr, cursor.entry);
    zoltLogOsListLogFilesEnd(&cursor); // once more does no harm
}

TEST(Listing, NullArgumentsAreInvalid) {
    OsLogFileCursor cursor = {};
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOsListLogFilesBegin(nullptr, "./"));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOsListLogFilesBegin(&cursor, nullptr));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, zoltLogOsListLogFilesNext(nullptr));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, CopyLogOsListLogFiles(nullptr, &cursor));
    EXPECT_EQ(ZOLTLOG_OS_INVALID_ARGUMENT, CopyLogOsListLogFiles(&cursor, nullptr));
    EXPECT_EQ(nullptr, zoltLogOsListLogFilesName(nullptr));
    EXPECT_EQ(nullptr, zoltLogOsListLogFilesName(&cursor));
    EXPECT_EQ(0, zoltLogOsListLogFilesModtime(nullptr));
    EXPECT_EQ(0, zoltLogOsListLogFilesModtime(&cursor));
    EXPECT_EQ(0, zoltLogOsListLogFilesCreattime(nullptr));
    EXPECT_EQ(0, zoltLogOsListLogFilesCreattime(&cursor));
    zoltLogOsListLogFilesEnd(nullptr);
}

TEST(Listing, DirectoryThatCannotBeOpenedFails) {
    support::writeFile("file", "");
    ASSERT_EQ(0, mkfifo("fifo", 0600));
    OsLogFileCursor cursor;
    std::memset(&cursor, 0x5A, sizeof cursor);
    for (const char *path : {"missing/", "file", "fifo", ""}) {
        EXPECT_LT(secondsOf([&] { EXPECT_EQ(ZOLTLOG_OS_FAILED, zoltLogOsListLogFilesBegin(&cursor, path)); }),
                  1.0);
        EXPECT_EQ(nullptr, cursor.directory);
        EXPECT_EQ(nullptr, cursor.stream);
        EXPECT_EQ(nullptr, cursor.entry);
    }
}

TEST(Listing, WithoutMemoryFailsAndLeavesNothingBehind) {
    if (!support::allocationsCanFail())
        GTEST_SKIP() << "allocations cannot fail here";
    support::writeFile("a-1.log", "");
    const size_t before = support::openDescriptors();
    for (long passing = 0; passing < 3; ++passing) { // stream, path, entry
        OsLogFileCursor cursor = {};
        const support::FailingAllocation failing(passing);
        EXPECT_EQ(ZOLTLOG_OS_FAILED, zoltLogOsListLogFilesBegin(&cursor, "./")) << passing;
        EXPECT_TRUE(failing.happened());
        EXPECT_EQ(nullptr, cursor.directory);
        EXPECT_EQ(nullptr, cursor.stream);
        EXPECT_EQ(nullptr, cursor.entry);
    }
    EXPECT_EQ(before, support::openDescriptors());
}

TEST(Listing, ModificationTimeIsThatOfARegularFile) {
    support::writeFile("a-1.log", "x");
    const utimbuf times = {1000000000, 1234567890};
    ASSERT_EQ(0, utime("a-1.log", &times));
    OsLogFileCursor cursor = {};
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOsListLogFilesBegin(&cursor, "./"));
    EXPECT_EQ(1234567890, zoltLogOsListLogFilesModtime(&cursor));
    unlink("a-1.log");
    EXPECT_EQ(0, zoltLogOsListLogFilesModtime(&cursor));
    mkdir("a-1.log", 0700);
    EXPECT_EQ(0, zoltLogOsListLogFilesModtime(&cursor));
    rmdir("a-1.log");
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0); // whose type shares a bit with files
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "a-1.log");
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address));
    EXPECT_EQ(0, zoltLogOsListLogFilesModtime(&cursor));
    close(listener);
    zoltLogOsListLogFilesEnd(&cursor);
}

TEST(Listing, NamesAreJoinedToTheDirectoryWithoutSeparator) {
    support::makeDirectory("d");
    support::writeFile("d/a-1.log", "x");
    support::writeFile("da-1.log", "x");
    const utimbuf times = {1000000000, 1234567890};
    ASSERT_EQ(0, utime("da-1.log", &times));
    OsLogFileCursor cursor = {};
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOsListLogFilesBegin(&cursor, "d"));
    EXPECT_EQ(1234567890, zoltLogOsListLogFilesModtime(&cursor));
    zoltLogOsListLogFilesEnd(&cursor);
}

TEST(Listing, CopyRemembersTheEntryWithoutAStream) {
    support::writeFile("a-1.log", "x");
    const utimbuf times = {1000000000, 1234567890};
    ASSERT_EQ(0, utime("a-1.log", &times));
    OsLogFileCursor cursor = {};
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOsListLogFilesBegin(&cursor, "./"));
    cursor.word = 77;
    OsLogFileCursor copy;
    std::memset(&copy, 0x5A, sizeof copy);
    ASSERT_EQ(0, CopyLogOsListLogFiles(&cursor, &copy));
    const ino_t inode = cursor.entry->d_ino;
    EXPECT_EQ(ZOLTLOG_OS_LISTING_END, zoltLogOsListLogFilesNext(&cursor));
    zoltLogOsListLogFilesEnd(&cursor);
    EXPECT_EQ(77u, copy.word);
    EXPECT_STREQ("./", copy.directory);
    EXPECT_EQ(nullptr, copy.stream);
    EXPECT_EQ(inode, copy.entry->d_ino);
    EXPECT_STREQ("a-1.log", zoltLogOsListLogFilesName(&copy));
    EXPECT_EQ(1234567890, zoltLogOsListLogFilesModtime(&copy));
    EXPECT_EQ(ZOLTLOG_OS_LISTING_END, zoltLogOsListLogFilesNext(&copy));
    EXPECT_STREQ("a-1.log", zoltLogOsListLogFilesName(&copy));
    OsLogFileCursor second = {}; // of a copy
    ASSERT_EQ(0, CopyLogOsListLogFiles(&copy, &second));
    zoltLogOsListLogFilesEnd(&copy);
    EXPECT_STREQ("a-1.log", zoltLogOsListLogFilesName(&second));
    zoltLogOsListLogFilesEnd(&second);
}

TEST(Listing, CopyIsBoundedByItsBlock) {
    OsLogFileCursor cursor = {};
    std::string longName(9000, 'n');
    std::vector<char> storage(sizeof(struct dirent) + longName.size());
    cursor.entry = reinterpret_cast<struct dirent *>(storage.data());
    std::string directory = "./";
    cursor.directory = directory.data();
    std::memcpy(storage.data() + offsetof(struct dirent, d_name), longName.c_str(), longName.size() + 1);
    OsLogFileCursor copy = {};
    EXPECT_EQ(ZOLTLOG_OS_FAILED, CopyLogOsListLogFiles(&cursor, &copy));
    EXPECT_EQ(nullptr, copy.entry);
    EXPECT_EQ(nullptr, copy.directory);
    storage[offsetof(struct dirent, d_name) + 8000] = '\0'; // fits
    ASSERT_EQ(0, CopyLogOsListLogFiles(&cursor, &copy));
    EXPECT_EQ(8000u, std::strlen(zoltLogOsListLogFilesName(&copy)));
    zoltLogOsListLogFilesEnd(&copy);
}

TEST(Listing, CopyOfAnEndedListingOrWithoutMemoryFails) {
    OsLogFileCursor cursor = {};
    OsLogFileCursor copy = {};
    EXPECT_EQ(ZOLTLOG_OS_FAILED, CopyLogOsListLogFiles(&cursor, &copy));
    if (!support::allocationsCanFail())
        GTEST_SKIP() << "allocations cannot fail here";
    support::writeFile("a-1.log", "x");
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOsListLogFilesBegin(&cursor, "./"));
    for (long passing = 0; passing < 2; ++passing) {
        const support::FailingAllocation failing(passing);
        EXPECT_EQ(ZOLTLOG_OS_FAILED, CopyLogOsListLogFiles(&cursor, &copy));
        EXPECT_TRUE(failing.happened());
        EXPECT_EQ(nullptr, copy.entry);
        EXPECT_EQ(nullptr, copy.directory);
    }
    zoltLogOsListLogFilesEnd(&cursor);
}

TEST(Listing, CreationTimeIsThatOfTheHeader) {
    support::writeFile("a-1.log", "$Header 65543,5,7,1709300702,3600,hostA\n1,2,3\n");
    OsLogFileCursor cursor = {};
    ASSERT_EQ(ZOLTLOG_OS_OK, zoltLogOsListLogFilesBegin(&cursor, "./"));
    const size_t before = support::openDescriptors();
    EXPECT_EQ(1709300702, zoltLogOsListLogFilesCreattime(&cursor));
    EXPECT_EQ(before, support::openDescriptors());
    for (const char *content :
         {"", "$Header 65543,5,7,1709300702,3600,hostA", "no header\n", "$Headers 65543,5,7,9,0,h\n",
          "$Header 65545,5,7,1709300702,3600,hostA\n", "$Header 65544,3600,hostA\n"}) {
        support::writeFile("a-1.log", content);
        EXPECT_EQ(0, zoltLogOsListLogFilesCreattime(&cursor)) << content;
    }
    unlink("a-1.log");
    EXPECT_EQ(0, zoltLogOsListLogFilesCreattime(&cursor));
    ASSERT_EQ(0, mkfifo("a-1.log", 0600));
    EXPECT_LT(secondsOf([&] { EXPECT_EQ(0, zoltLogOsListLogFilesCreattime(&cursor)); }), 1.0);
    EXPECT_EQ(before, support::openDescriptors());
    zoltLogOsListLogFilesEnd(&cursor);
}
