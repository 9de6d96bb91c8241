// SPDX-License-Identifier: Apache-2.0
// Whatever kind of node lies where the library reads: its calls end, and nothing but regular
// files is opened, since opening a terminal, a watchdog or a tape has effects of its own.
#include "support/log_records.h"
#include "support/support.h"
#include "support/syscalls.h"
#include "zoltlog.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "qdlis.h"

namespace {

// ---- what is opened ------------------------------------------------------------------------

std::mutex guard;
std::vector<std::string> oddOpened; // by the calls under test
std::atomic<bool> watching{false};
void (*beforeOpening)(int flags); // what others do in the meantime

bool onlyLooks(int flags) {
    return (flags & (O_PATH | O_DIRECTORY)) != 0 || ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) ||
           (flags & O_TMPFILE) == O_TMPFILE;
}

void look(int directory, const char *path, int flags) {
    if (!watching)
        return;
    if (beforeOpening != nullptr)
        beforeOpening(flags);
    struct stat status;
    if (onlyLooks(flags) ||
        fstatat(directory, path, &status, (flags & O_NOFOLLOW) != 0 ? AT_SYMLINK_NOFOLLOW : 0) != 0 ||
        S_ISREG(status.st_mode) || S_ISLNK(status.st_mode)) // a link that is not followed is not opened
        return;
    const std::lock_guard<std::mutex> lock(guard);
    oddOpened.emplace_back(path);
}

const bool PREPARED = support::eachCase([] {
    oddOpened.clear();
    watching = false;
    beforeOpening = nullptr;
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        look(AT_FDCWD, path, flags);
        return libc::open.real(path, flags, mode);
    };
    libc::openat.hook = [](int directory, const char *path, int flags, mode_t mode) {
        look(directory, path, flags);
        return libc::openat.real(directory, path, flags, mode);
    };
});

// ---- the nodes -------------------------------------------------------------------------------

struct Node {
    const char *kind;
    std::function<int(const char *path)> make; // 0 when it is there
};

int makeSocket(const char *path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path)
        return -1;
    memcpy(address.sun_path, path, strlen(path));
    const int bound = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int result = bind(bound, reinterpret_cast<sockaddr *>(&address), sizeof address);
    close(bound); // the node stays
    return result;
}

std::string terminal() {
    static const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master == -1 || grantpt(master) != 0 || unlockpt(master) != 0)
        return "/dev/tty";
    return ptsname(master);
}

// Every kind of node, and links to those that stand beside as "fifo", "socket", "directory".
std::vector<Node> oddNodes() {
    std::vector<Node> nodes = {
        {"FIFO", [](const char *path) { return mkfifo(path, 0600); }},
        {"socket", makeSocket},
        {"directory", [](const char *path) { return mkdir(path, 0700); }},
        {"loop",
         [](const char *path) {
             return symlink(strrchr(path, '/') != nullptr ? strrchr(path, '/') + 1 : path, path);
         }},
    };
    if (geteuid() == 0) {
        if (mknod("device", S_IFCHR | 0666, makedev(1, 5)) == 0) // the kernel's zeros
            nodes.push_back(
                {"device", [](const char *path) { return mknod(path, S_IFCHR | 0666, makedev(1, 5)); }});
    }
    char *const here = get_current_dir_name();
    const std::string beside = std::string(here) + "/";
    free(here);
    const std::string targets[] = {beside + "fifo", beside + "socket", beside + "directory",
                                   "/dev/null",     "/dev/zero",       "/dev/ptmx",
                                   terminal(),      beside + "nowhere"};
    for (const std::string &target : targets)
        nodes.push_back({"link", [target](const char *path) { return symlink(target.c_str(), path); }});
    return nodes;
}

void makeTargets() {
    ASSERT_EQ(0, mkfifo("fifo", 0600));
    ASSERT_EQ(0, makeSocket("socket"));
    ASSERT_EQ(0, mkdir("directory", 0700));
}

// Runs the calls with each node at the path; what was there before is put back.
void withEachNode(const std::string &path, const std::function<void(const std::string &kind)> &calls) {
    const bool wasThere = support::exists(path);
    if (wasThere) {
        ASSERT_EQ(0, rename(path.c_str(), "kept"));
    }
    for (const Node &node : oddNodes()) {
        ASSERT_EQ(0, node.make(path.c_str())) << node.kind << ": " << strerror(errno);
        char target[4096] = "";
        (void)!readlink(path.c_str(), target, sizeof target - 1);
        const std::string kind = std::string(node.kind) + " " + target + " at " + path;
        const size_t descriptors = support::openDescriptors();
        watching = true;
        calls(kind);
        watching = false;
        EXPECT_EQ(std::vector<std::string>(), oddOpened) << kind;
        EXPECT_EQ(descriptors, support::openDescriptors()) << kind;
        oddOpened.clear();
        ASSERT_EQ(0, remove(path.c_str()));
    }
    if (wasThere) {
        ASSERT_EQ(0, rename("kept", path.c_str()));
    }
    (void)remove("device");
}

std::string first() {
    return "log/5-7-" + std::to_string(osGetHostID()) + "-240301-0000000000.log";
}
std::string second() {
    return "log/5-7-" + std::to_string(osGetHostID()) + "-240301-0000000001.log";
}
const char HEADER[] = "$Header 65543,5,7,1709300000,0,hostA\n";

void configureWithFile() {
    logs::configure();
    support::makeDirectory("log");
    support::writeFile(first(), HEADER);
    makeTargets();
}

void freeFiles(LogListing *listing) {
    while (listing->files != nullptr) {
        LogFileEntry *next = listing->files->next;
        zoltLogFree(listing->files);
        listing->files = next;
    }
}

// Fetches all that is listed; yields how many files were fetched.
int fetched(LogListing *listing) {
    char *path = nullptr;
    int count = 0;
    for (; zoltLogFetchNextFile(listing, &path) == ZOLTLOG_OK; ++count)
        zoltLogFreeBuffer(&path);
    freeFiles(listing);
    return count;
}

} // namespace

// ---- the cases -----------------------------------------------------------------------------

FRESH_TEST(OddNodes, AmongTheLogFilesAreListedAndNotOpened) {
    configureWithFile();
    LogQueryNode host = {ZOLTLOG_TERM_ATTRIBUTE, 0, {}, 0, nullptr, nullptr};
    host.value.number = ZOLTLOG_ATTR_HOST_NAME;
    LogQueryNode name = {ZOLTLOG_TERM_TEXT, 0, {}, 0, nullptr, nullptr};
    name.value.text = "hostA";
    LogQueryNode query = {ZOLTLOG_OP_EQUAL, 0, {}, 0, &host, &name};
    withEachNode(second(), [&](const std::string &kind) {
        LogCfg cfg;
        ASSERT_EQ(0u, zoltLogReadCfg(5, 7, &cfg));
        LogCfg *cfgs = &cfg;
        LogListing listing = {};
        EXPECT_EQ(0u, GetLogFiles(&cfgs, 1, &listing)) << kind;
        EXPECT_EQ(1, fetched(&listing)) << kind;
        listing = {};
        listing.query = &query;
        EXPECT_EQ(0u, GetLogFiles(&cfgs, 1, &listing)) << kind;
        listing.query = nullptr;
        EXPECT_EQ(1, fetched(&listing)) << kind;
        zoltLogFreeCfg(&cfg);
        EXPECT_EQ(0u, zoltLogGetManageableLogFiles(5, 7, &listing)) << kind;
        freeFiles(&listing);
        LogFileEntry *latest = nullptr;
        EXPECT_EQ(1, zoltLogFindLatestLog("log/", 5, 7, 0, 0, &latest)) << kind;
        zoltLogFree(latest);
        OsLogFileCursor cursor = {};
        for (int32_t more = zoltLogOsListLogFilesBegin(&cursor, "log/"); more == 0;
             more = zoltLogOsListLogFilesNext(&cursor)) {
            char hostName[512] = "";
            (void)zoltLogOsListLogFilesCreattime(&cursor);
            (void)zoltLogOsListLogFilesModtime(&cursor);
            (void)getHostnameFromFile(&cursor, "log/", hostName);
        }
        zoltLogOsListLogFilesEnd(&cursor);
    });
}

// A directory that others may write to: there the name is looked at in another way.
FRESH_TEST(OddNodes, AmongTheLogFilesOfADirectoryOfAllAreNotOpened) {
    configureWithFile();
    ASSERT_EQ(0, chmod("log", 0777));
    withEachNode(second(), [&](const std::string &kind) {
        LogListing listing = {};
        EXPECT_EQ(0u, zoltLogGetManageableLogFiles(5, 7, &listing)) << kind;
        freeFiles(&listing);
    });
}

FRESH_TEST(OddNodes, AtTheNamesThatAreOpenedOneByOneAreRefused) {
    configureWithFile();
    support::makeDirectory("copies");
    withEachNode("file", [&](const std::string &kind) {
        OsFile file;
        EXPECT_NE(0, zoltLogOs_open(&file, "file", ZOLTLOG_OS_MODE_READ, 0660)) << kind;
        EXPECT_EQ(-1, file.descriptor);
        EXPECT_EQ(32u, zoltLogCopyFile("file", "copies/")) << kind;
        PropertyStore store;
        EXPECT_EQ(ZOLTLOG_STORE_NO_FILE, utiOpenPropertyStore("file", "5", &store)) << kind;
        char *text = nullptr;
        EXPECT_NE(0u, GetPropertyString("file", "5", "Names", &text)) << kind;
    });
    EXPECT_EQ(std::vector<std::string>(), support::listFiles("copies"));
}

FRESH_TEST(OddNodes, AtTheNextNameEndASeriesUntilTheyAreGone) {
    configureWithFile();
    LogHandle handle;
    ASSERT_EQ(0u, zoltLogOpen(5, 9, &handle));
    ASSERT_EQ(0u, zoltLogClose(&handle));
    std::string next;
    for (const std::string &name : support::listFiles("log")) {
        if (name.compare(0, 4, "5-9-") == 0)
            next = "log/" + name;
    }
    ASSERT_NE("", next);
    withEachNode(next, [&](const std::string &kind) { EXPECT_EQ(32u, zoltLogOpen(5, 9, &handle)) << kind; });
    EXPECT_EQ(0u, zoltLogOpen(5, 9, &handle));
    EXPECT_EQ(0u, zoltLogAppMsg(&handle, 0, 0, 0, "written"));
    EXPECT_EQ(0u, zoltLogClose(&handle));
}

FRESH_TEST(OddNodes, AsConfigurationFilesAreNone) {
    configureWithFile();
    const auto use = [](const std::string &kind) {
        LogCfg cfg;
        if (kind.find("nowhere") != std::string::npos) { // no file yet, which is another matter
            if (zoltLogReadCfg(5, 7, &cfg) == ZOLTLOG_OK)
                zoltLogFreeCfg(&cfg);
            return;
        }
        EXPECT_EQ(6u, zoltLogReadCfg(5, 7, &cfg)) << kind;
        zoltLogFreeCfg(&cfg);
        EXPECT_NE(0u, zoltLogReadlogsetCfg(5, "web", &cfg)) << kind;
        zoltLogFreeCfg(&cfg);
        LogCfg *cfgs[4];
        uint32_t count = 0;
        (void)zoltLogReadAllCfg(nullptr, 4, cfgs, &count);
        EXPECT_EQ(0u, count) << kind;
        LogHandle handle;
        EXPECT_NE(0u, zoltLogOpen(5, 7, &handle)) << kind;
        LogListing listing;
        EXPECT_NE(0u, zoltLogGetManageableLogFiles(5, 7, &listing)) << kind;
        EXPECT_EQ(nullptr, listing.files);
    };
    withEachNode("product.conf", use);
    withEachNode("zoltlog.conf", use);
    LogCfg cfg;
    EXPECT_EQ(0u, zoltLogReadCfg(5, 7, &cfg));
    zoltLogFreeCfg(&cfg);
}

FRESH_TEST(OddNodes, InACatalogueMeanThatAMessageIsMissing) {
    makeTargets();
    support::makeDirectory("catalogue");
    for (const char *name : {"catalogue/root.res", "catalogue/de_DE.res", "catalogue/de.res", "packed.dat"}) {
        int round = 0;
        withEachNode(name, [&](const std::string &kind) {
            const int status = support::inChild([&] {
                ZoltLisBlock block = {};
                int64_t identity = 0;
                const bool made = support::useLocale("de_DE.UTF-8") &&
                                  qdlisAddCatalog(name[0] == 'c' ? "catalogue" : "packed") == 0 &&
                                  qdlisBegin(&block, 0, 1) == 0 && qdlisLookUp(&block) == 0 &&
                                  zoltLisGetTextId(&block, &identity) == 0;
                zoltLisFree(&block);
                return made && identity == 1 && oddOpened.empty() ? 0 : 1;
            });
            EXPECT_EQ(0, status) << kind;
            ++round;
        });
        EXPECT_GT(round, 10);
    }
}

TEST(OddNodes, ALinkToARegularFileIsRead) {
    support::writeFile("regular", HEADER);
    ASSERT_EQ(0, symlink("regular", "link"));
    ASSERT_EQ(0, symlink("link", "second"));
    for (const char *path : {"regular", "link", "second"}) {
        OsFile file;
        ASSERT_EQ(0, zoltLogOs_open(&file, path, ZOLTLOG_OS_MODE_READ, 0660)) << path;
        LogFileHeader header;
        EXPECT_EQ(0u, ReadHeaderEx(&file, &header));
        EXPECT_EQ(5u, header.productId);
        EXPECT_EQ(0, fcntl(file.descriptor, F_GETFL) & (O_WRONLY | O_RDWR));
        EXPECT_EQ(FD_CLOEXEC, fcntl(file.descriptor, F_GETFD));
        zoltLogOs_close(&file);
    }
}

// What was looked at is what is opened, whatever the name leads to by then.
TEST(OddNodes, ANameThatIsExchangedAfterTheLookIsNotOpened) {
    ASSERT_EQ(0, mkfifo("fifo", 0600));
    support::writeFile("name", HEADER);
    watching = true;
    beforeOpening = [](int flags) {
        if ((flags & O_PATH) == 0)
            (void)rename("fifo", "name");
    };
    OsFile file;
    EXPECT_EQ(0, zoltLogOs_open(&file, "name", ZOLTLOG_OS_MODE_READ, 0660));
    watching = false;
    EXPECT_EQ(std::vector<std::string>(), oddOpened);
    LogFileHeader header;
    EXPECT_EQ(0u, ReadHeaderEx(&file, &header)) << "the file that was there";
    zoltLogOs_close(&file);
    struct stat status;
    ASSERT_EQ(0, lstat("name", &status));
    EXPECT_TRUE(S_ISFIFO(status.st_mode)) << "it was exchanged";
}

// In a root directory of its own a program may have no /proc.
TEST(OddNodes, AreRefusedAndFilesReadWithoutProcToo) {
    makeTargets();
    support::writeFile("file", HEADER);
    libc::open.hook = [](const char *path, int flags, mode_t mode) {
        look(AT_FDCWD, path, flags);
        return strncmp(path, "/proc/thread-self/", 18) == 0 ? (errno = ENOENT, -1)
                                                            : libc::open.real(path, flags, mode);
    };
    OsFile file;
    ASSERT_EQ(0, zoltLogOs_open(&file, "file", ZOLTLOG_OS_MODE_READ, 0660));
    zoltLogOs_close(&file);
    withEachNode("odd", [&](const std::string &kind) {
        EXPECT_NE(0, zoltLogOs_open(&file, "odd", ZOLTLOG_OS_MODE_READ, 0660)) << kind;
    });
}
