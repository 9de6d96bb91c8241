// SPDX-License-Identifier: Apache-2.0
// Rewrites of configuration files under faults: every system call fails once, the disk is
// full at every point, the process is killed at any time.
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// Which call of which name fails, and how; calls are counted from 1.
const char *failing = "";
int failingCall, failure;
size_t shortWrite; // a write takes at most this many bytes when not 0
std::map<std::string, int> *counts;
std::string *plant; // a link planted under this name after each unlink of it
void (*at)(const char *call) = nullptr;

bool fails(const char *call) {
    if (at != nullptr)
        at(call);
    if (counts == nullptr)
        return false;
    const int number = ++(*counts)[call];
    if (std::string(call) != failing || number != failingCall)
        return false;
    errno = failure;
    return true;
}

const bool PREPARED = support::eachCase([] {
    failing = "";
    shortWrite = 0;
    counts = nullptr;
    plant = nullptr;
    at = nullptr;
    libc::write.hook = [](int descriptor, const void *bytes, size_t size) -> ssize_t {
        if (fails("write"))
            return -1;
        if (shortWrite != 0 && size > shortWrite)
            size = shortWrite;
        return libc::write.real(descriptor, bytes, size);
    };
    libc::fsync.hook = [](int) { return fails("fsync") ? -1 : 0; };
    libc::fclose.hook = [](FILE *stream) {
        const int result = libc::fclose.real(stream);
        return fails("fclose") ? EOF : result;
    };
    libc::rename.hook = [](const char *from, const char *to) {
        return fails("rename") ? -1 : libc::rename.real(from, to);
    };
    libc::fchmod.hook = [](int descriptor, mode_t mode) {
        return fails("fchmod") ? -1 : libc::fchmod.real(descriptor, mode);
    };
    libc::fdopen.hook = [](int descriptor, const char *mode) {
        return fails("fdopen") ? nullptr : libc::fdopen.real(descriptor, mode);
    };
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        return fails("open") ? -1 : libc::open.real(path, flags, mode);
    };
    libc::flock.hook = [](int descriptor, int operation) {
        return fails("flock") ? -1 : libc::flock.real(descriptor, operation);
    };
    libc::fcntl.hook = [](int descriptor, int command, void *argument) {
        return fails("fcntl") ? -1 : libc::fcntl.real(descriptor, command, argument);
    };
    libc::fstat.hook = [](int descriptor, struct stat *status) {
        return fails("fstat") ? -1 : libc::fstat.real(descriptor, status);
    };
    libc::unlink.hook = [](const char *path) {
        if (fails("unlink"))
            return -1;
        const int result = libc::unlink.real(path);
        if (plant != nullptr && *plant == path) {
            EXPECT_EQ(0, symlink("victim", path));
            plant = nullptr;
        }
        return result;
    };
});

} // namespace

namespace {

using support::exists;
using support::readFile;
using support::writeFile;

std::string manyLines(size_t count) {
    std::string bytes;
    for (size_t i = 0; i < count; ++i)
        bytes +=
            std::to_string(i % 7 + 1) + ".key" + std::to_string(i) + "=value " + std::to_string(i) + "\n";
    return bytes;
}

struct Fault {
    Fault(const char *call, int number, int error) {
        counts = &seen;
        failing = call;
        failingCall = number;
        failure = error;
    }
    ~Fault() {
        counts = nullptr;
        failing = "";
    }
    Fault(const Fault &) = delete;
    Fault &operator=(const Fault &) = delete;
    std::map<std::string, int> seen;
};

const struct {
    const char *what;
    std::function<uint32_t(PropertyStore *)> change;
    std::function<std::string(std::string)> after; // what the change makes of the file
} CHANGES[] = {
    {"set", [](PropertyStore *store) { return utiSetPropertyAsStr(store, "new", "1"); },
     [](const std::string &bytes) { return bytes.substr(0, 9) + "9.new=1\n" + bytes.substr(9); }},
    {"remove", [](PropertyStore *store) { return utiRemoveProperty(store, "gone"); },
     [](const std::string &bytes) { return bytes.substr(9); }},
    {"remove root", [](PropertyStore *store) { return utiRemovePropertyRoot(store, "9"); },
     [](const std::string &bytes) { return bytes.substr(9); }},
};

} // namespace

// Every call of every kind fails once. The file is then the old one and the result a failure,
// or the new one and success; the handle works; no descriptor is lost; the next change succeeds.
TEST(FaultConfigRewrite, EveryCallFailsOnce) {
    const struct {
        const char *call;
        int error;
        uint32_t result;
    } faults[] = {{"write", ENOSPC, 6},  {"write", EIO, 6},   {"fsync", ENOSPC, 6}, {"fsync", EIO, 6},
                  {"fclose", ENOSPC, 6}, {"rename", EIO, 6},  {"fchmod", EPERM, 5}, {"fdopen", ENOMEM, 5},
                  {"open", EMFILE, 5},   {"flock", ENOLCK, 0}};
    for (const size_t lines : {1U, 100U, 5000U}) {
        const std::string before = "9.gone=1\n" + manyLines(lines);
        for (const auto &change : CHANGES) {
            for (const auto &fault : faults) {
                for (int number = 1;; ++number) {
                    SCOPED_TRACE(std::string(change.what) + " " + fault.call + " " + std::to_string(number) +
                                 " of " + std::to_string(lines) + " lines");
                    writeFile("s.conf", before);
                    ASSERT_EQ(chmod("s.conf", 0640), 0);
                    PropertyStore store;
                    ASSERT_EQ(utiOpenPropertyStore("s.conf", "9", &store), 0U);
                    const size_t descriptors = support::openDescriptors();
                    uint32_t result = 0;
                    bool reached = false;
                    {
                        Fault active(fault.call, number, fault.error);
                        result = change.change(&store);
                        reached = active.seen[fault.call] >= number;
                    }
                    if (!reached) {
                        EXPECT_EQ(result, 0U);
                        utiClosePropertyStore(&store);
                        break;
                    }
                    // A change is told as done exactly when the new file is in its place.
                    const std::string now = readFile("s.conf");
                    if (now == before)
                        EXPECT_NE(result, 0U);
                    else
                        EXPECT_EQ(now, change.after(before));
                    if (result == 0) {
                        EXPECT_NE(now, before);
                    }
                    if (store.stream != nullptr) { // the reopening failed otherwise
                        EXPECT_EQ(support::openDescriptors(), descriptors);
                        EXPECT_EQ(utiSetPropertyAsStr(&store, "later", "1"), 0U);
                        EXPECT_FALSE(exists("s.conf.tmp"));
                    } else {
                        EXPECT_EQ(result, 2U);
                    }
                    struct stat status;
                    ASSERT_EQ(stat("s.conf", &status), 0);
                    EXPECT_EQ(status.st_mode & 07777U, 0640U);
                    utiClosePropertyStore(&store);
                    if (number > 3 && lines == 5000)
                        break; // more writes of the same kind
                }
            }
        }
    }
}

TEST(FaultConfigRewrite, AFullDiskIsStoreResult6) {
    const std::string before = "9.gone=1\n" + manyLines(5000);
    const struct {
        const char *call;
        int number;
        bool leavesTemporary;
    } rows[] = {
        {"write", 1, true}, {"write", 2, true}, {"write", 4, true}, {"fsync", 1, true}, {"rename", 1, false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.call) + std::to_string(row.number));
        writeFile("s.conf", before);
        PropertyStore store;
        ASSERT_EQ(utiOpenPropertyStore("s.conf", "9", &store), 0U);
        {
            Fault active(row.call, row.number, ENOSPC);
            EXPECT_EQ(utiSetPropertyAsStr(&store, "new", "1"), ZOLTLOG_STORE_NOT_WRITTEN);
        }
        EXPECT_EQ(readFile("s.conf"), before);
        EXPECT_EQ(exists("s.conf.tmp"), row.leavesTemporary);
        char *text = nullptr;
        EXPECT_EQ(utiGetPropertyAsStr(&store, "gone", &text), 0U); // the handle is as it was
        zoltLogFree(text);
        EXPECT_EQ(utiRemoveProperty(&store, "absent"), 0U);
        EXPECT_FALSE(exists("s.conf.tmp"));
        EXPECT_EQ(readFile("s.conf"), before);
        utiClosePropertyStore(&store);
    }
}

TEST(FaultConfigRewrite, ARealFullDiskIsStoreResult6) {
    const std::string before = "9.gone=1\n" + manyLines(2000);
    writeFile("s.conf", before);
    const int status = support::inChild([] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {20000, 20000};
        setrlimit(RLIMIT_FSIZE, &limit);
        PropertyStore store;
        if (utiOpenPropertyStore("s.conf", "9", &store) != 0)
            return 1;
        const uint32_t result = utiSetPropertyAsStr(&store, "new", "1");
        utiClosePropertyStore(&store);
        return static_cast<int>(result);
    });
    EXPECT_EQ(status, 6);
    EXPECT_EQ(readFile("s.conf"), before);
}

TEST(FaultConfigRewrite, ShortAndInterruptedWritesAreGoneOnWith) {
    const std::string before = manyLines(300);
    writeFile("s.conf", before);
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("s.conf", "9", &store), 0U);
    shortWrite = 7;
    {
        Fault active("write", 5, EINTR);
        EXPECT_EQ(utiSetPropertyAsStr(&store, "new", "1"), 0U);
    }
    shortWrite = 0;
    EXPECT_EQ(readFile("s.conf"), before + "9.new=1\n");
    utiClosePropertyStore(&store);
}

// A link planted between the unlink and the open of the temporary file is not followed.
TEST(FaultConfigRewrite, APlantedLinkIsNotFollowed) {
    writeFile("victim", "keep");
    writeFile("s.conf", "5.a=1\n");
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("s.conf", "5", &store), 0U);
    writeFile("s.conf.tmp", "left behind by a killed writer");
    std::string name = "s.conf.tmp";
    plant = &name;
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), 0U);
    EXPECT_EQ(plant, nullptr); // it was planted
    EXPECT_EQ(readFile("victim"), "keep");
    EXPECT_EQ(readFile("s.conf"), "5.a=2\n");
    struct stat status;
    ASSERT_EQ(lstat("s.conf", &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    utiClosePropertyStore(&store);
}

namespace {

std::string *order;

} // namespace

TEST(FaultConfigRewrite, TheNewFileIsOnTheDiskBeforeItTakesTheName) {
    writeFile("s.conf", "5.a=1\n");
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("s.conf", "5", &store), 0U);
    std::string calls;
    order = &calls;
    at = [](const char *call) {
        const std::string name = call;
        if (name == "write" || name == "fsync" || name == "rename")
            *order += name + " ";
    };
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), 0U);
    at = nullptr;
    EXPECT_EQ(calls, "write fsync rename fsync "); // the file, then its directory
    utiClosePropertyStore(&store);
}

// A writer that never ends stops the others after a bounded wait.
TEST(LongFaultConfigRewrite, TheWaitForTheLockIsBounded) {
    writeFile("s.conf", "5.a=1\n");
    const int held = open("s.conf.tmp", O_RDWR | O_CREAT, 0600);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(held, F_OFD_SETLK, &lock), 0);
    PropertyStore store;
    ASSERT_EQ(utiOpenPropertyStore("s.conf", "5", &store), 0U);
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), ZOLTLOG_STORE_NOT_WRITTEN);
    EXPECT_EQ(readFile("s.conf"), "5.a=1\n");
    close(held);
    EXPECT_EQ(utiSetPropertyAsStr(&store, "a", "2"), 0U);
    utiClosePropertyStore(&store);
}

// The process is killed at each of the calls of a rewrite in turn: the file is the old one or the
// new one, at most one file is left behind, and the next writer removes it.
TEST(FaultConfigRewrite, AKilledRewriteLeavesTheOldOrTheNewFile) {
    const std::string lines = manyLines(1500); // several writes
    const std::string before = "9.n=old\n" + lines;
    const std::string after = "9.n=new\n" + lines;
    int leftovers = 0;
    int changes = 0;
    for (int death = 1; death < 100; ++death) {
        writeFile("s.conf", before);
        static int left;
        left = death;
        const int status = support::inChild([] {
            PropertyStore store;
            if (utiOpenPropertyStore("s.conf", "9", &store) != ZOLTLOG_STORE_OK)
                return 1;
            at = [](const char *) {
                if (--left == 0)
                    raise(SIGKILL);
            };
            return static_cast<int>(utiSetPropertyAsStr(&store, "n", "new"));
        });
        const std::string now = readFile("s.conf");
        ASSERT_TRUE(now == before || now == after) << now.size();
        if (status == 0) { // no more calls
            EXPECT_EQ(now, after);
            EXPECT_GT(death, 12);
            EXPECT_GT(leftovers, 5);
            EXPECT_GT(changes, 1);
            return;
        }
        ASSERT_EQ(status, 128 + SIGKILL);
        changes += now == after ? 1 : 0;
        std::vector<std::string> names = support::listFiles(".");
        leftovers += names.size() == 2 ? 1 : 0;
        if (names.size() == 2) {
            EXPECT_EQ(names.back(), "s.conf.tmp");
            names.pop_back();
        }
        ASSERT_EQ(names, std::vector<std::string>{"s.conf"});
        PropertyStore store; // what is left of the killed one disturbs nothing
        ASSERT_EQ(utiOpenPropertyStore("s.conf", "9", &store), ZOLTLOG_STORE_OK);
        ASSERT_EQ(utiSetPropertyAsStr(&store, "n", "end"), ZOLTLOG_STORE_OK);
        utiClosePropertyStore(&store);
        ASSERT_EQ(readFile("s.conf"), "9.n=end\n" + lines);
        ASSERT_EQ(support::listFiles("."), std::vector<std::string>{"s.conf"});
    }
    FAIL() << "a rewrite that never ends";
}
