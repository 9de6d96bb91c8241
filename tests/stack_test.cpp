// SPDX-License-Identifier: Apache-2.0
// How much stack the operations need: the manual promises 24 KB at most, so that threads
// of 32 KB can log. Small accessors are left out.
#include "support/lis_items.h"
#include "support/log_records.h"
#include "support/results.h"
#include "support/support.h"

#include <climits>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <vector>

#include "qdlis.h"
#include "zoltlog.h"

namespace {

constexpr size_t PROMISED = 24 * 1024;
constexpr size_t SMALL_THREAD = 32 * 1024;

constexpr size_t PAGE = 4096;
constexpr size_t OURS = 512; // of the test's own calls, above the boundary

struct Call {
    const std::function<void()> &body;
    uintptr_t boundary; // of pages, below which everything is the body's
};

// Puts the stack pointer just above a boundary of pages.
void *call(void *given) {
    auto *call = static_cast<Call *>(given);
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    call->boundary = (here - PAGE) / PAGE * PAGE;
    volatile char *padding = static_cast<char *>(__builtin_alloca(here - call->boundary - OURS));
    *padding = 0;
    call->body();
    return nullptr;
}

// Runs a thread with the given stack.
void onStack(void *stack, size_t size, void *(*function)(void *), void *argument) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, size);
    pthread_t thread;
    EXPECT_EQ(0, pthread_create(&thread, &attributes, function, argument));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

void *mapped(size_t size) {
    return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
}

// Bytes of stack that body touches, in whole pages: also those that the compiler only probes.
size_t stackOf(const std::function<void()> &body) {
    constexpr size_t SIZE = 1024 * 1024;
    auto *stack = static_cast<char *>(mapped(SIZE));
    Call given = {body, 0};
    onStack(stack, SIZE, call, &given);
    std::vector<unsigned char> resident(SIZE / PAGE);
    EXPECT_EQ(0, mincore(stack, SIZE, resident.data()));
    size_t lowest = 0;
    while (lowest < resident.size() && (resident[lowest] & 1) == 0)
        ++lowest;
    const uintptr_t touched = reinterpret_cast<uintptr_t>(stack) + lowest * PAGE;
    munmap(stack, SIZE);
    return touched < given.boundary ? given.boundary - touched : 0;
}

struct Stack : testing::Test {
    void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "a sanitizer's frames are larger";
#endif
        configure();
        EXPECT_EQ(0u, stackOf([] {}));
        EXPECT_EQ(16 * PAGE, stackOf([] {
                      char block[15 * PAGE + 1000];
                      *static_cast<volatile char *>(block) = 0;
                  }));
    }
    static void configure() {
        logs::configure({"Default.DebugLevel=6", "Default.DiagnosticLevel=6", "Default.DynaReloadInSec=60",
                         "Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=1",
                         "Default.LogRecycle=true", "Default.NumberOfLogFiles=3", "7.DebugLevel=6",
                         "LOGSET.set.LogDirectory=./log/", "LOGSET.set.RolloverMode=FileSize",
                         "LOGSET.set.MaxLogFileSizeKB=1", "LOGSET.set.LogRecycle=true",
                         "LOGSET.set.NumberOfLogFiles=3"});
    }
    void need(const char *name, const std::function<void()> &body) {
        const size_t needed = stackOf(body);
        EXPECT_GE(PROMISED, needed) << name;
        if (needed > largest) {
            largest = needed;
            RecordProperty("largest", std::to_string(largest) + " " + name);
        }
    }
    void TearDown() override {
        RecordProperty("bytes", static_cast<int>(largest));
    }
    size_t largest = 0;
};

uint32_t formatted(char **text, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t result = listxt_svnprintf(text, format, args);
    va_end(args);
    return result;
}

} // namespace

TEST_F(Stack, OfMessagesOpensRolloversAndContextsIsSmall) {
    auto handle = std::make_unique<LogHandle>();
    auto set = std::make_unique<LogHandle>();
    auto secure = std::make_unique<LogHandle>();
    auto context = std::make_unique<LogHandle>();
    auto record = std::make_unique<LogMsg>();
    auto cfg = std::make_unique<LogCfg>();
    const std::string longText(100000, 'x');
    const std::string highText(300, '\xe4');
    uint32_t level = 0;
    ZoltLisBlock block = {};

    need("zoltLogOpen of a new series", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, handle.get())); });
    need("zoltLogClose", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(handle.get())); });
    need("zoltLogOpen2", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogOpen2(5, 8, 7, handle.get())); });
    need("zoltLogOpenLogSet", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogOpenLogSet(5, 7, "set", set.get())); });
    EXPECT_RESULT(ZOLTLOG_OK, InitLogCfg(5, 7, nullptr, cfg.get()));
    need("zoltLogSecureOpen",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogSecureOpen(5, 7, cfg.get(), secure.get())); });
    for (int i = 0; i < 60; ++i) // also with rollovers and recycling
        need("zoltLogAppMsg", [&] {
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(handle.get(), 0, 1, 0, "%s %d %f",
                                                    "disk /var of host seven", i, 0.5));
        });
    need("zoltLogAppMsg of a log set",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(set.get(), 0, 1, 0, "%d", 1)); });
    need("zoltLogAppMsg, catalogue",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(handle.get(), 8, 1, 42, "%s %d", "a", 1)); });
    need("zoltLogAppMsg, long",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(handle.get(), 0, 1, 0, "%s", longText.c_str())); });
    need("zoltLogAppMsg, double", [&] {
        EXPECT_RESULT(ZOLTLOG_OK,
                      zoltLogAppMsg(handle.get(), 0, 1, 0, "%f %Lg %ls %m", 1e308, 1.0L, L"wide"));
    });
    need("zoltLogAppMsg2LEx", [&] {
        block = support::textBlock("%s %f", "block", 0.25);
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg2LEx(handle.get(), 1, 0, 1, "mgr", nullptr, &block));
    });
    need("zoltLogDiagMsg with a reload", [&] {
        handle->lastReloadCheck = 0;
        handle->cfgTimestamp = 1;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogDiagMsg(handle.get(), 0, 1, "mgr", 0, "%d", 1));
    });
    need("zoltLogDebugMsg of a log set with a reload", [&] {
        set->reloadInterval = 60;
        set->lastReloadCheck = 0;
        set->cfgTimestamp = 1;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogDebugMsg(set.get(), 0, 1, "mgr", "%d", 1));
    });
    need("zoltLogFormattedDebugMsg", [&] {
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogFormattedDebugMsg(handle.get(), 0, 1, "mgr", highText.c_str()));
    });
    need("zoltLogAuditMsg",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogAuditMsg(handle.get(), 0, "mary", 1, 42, "%d", 1)); });
    need("zoltLogSecureAuditMsg",
         [&] { (void)zoltLogSecureAuditMsg(secure.get(), 0, "mary", 1, 42, "%d", 1); });
    need("copies to the console and the system log", [&] {
        EXPECT_EQ("", support::captured(2, [&] {
                      support::captured(1, [&] {
                          EXPECT_RESULT(ZOLTLOG_OK,
                                        zoltLogAppMsg(handle.get(), ZOLTLOG_OUT_STDOUT | ZOLTLOG_OUT_OSLOG, 1,
                                                      0, "%d", 1));
                      });
                  }));
    });
    need("zoltLogMsg", [&] {
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(record.get(), handle.get(), ZOLTLOG_MSG_APP, "text"));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsg(handle.get(), 0, record.get()));
        zoltLogFreeMsg(record.get());
    });
    need("zoltLogCreateContext", [&] {
        EXPECT_RESULT(ZOLTLOG_OK,
                      zoltLogCreateContext(handle.get(), context.get(), "T1", 42, "%s %f", "a", 1.5));
    });
    need("a rollover with a context", [&] {
        for (int i = 0; i < 20; ++i)
            EXPECT_RESULT(ZOLTLOG_OK,
                          zoltLogAppMsg(context.get(), 0, 1, 0, "%s",
                                        "a text that fills the file, a text that fills the file"));
    });
    need("zoltLogDestroyContext", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(context.get())); });
    need("zoltLogGetDebugLevel",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetDebugLevel(handle.get(), &level)); });
    ASSERT_TRUE(support::useLocale("ja_JP.EUC-JP"));
    need("conversions",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogAppMsg(handle.get(), 0, 1, 0, "%s", "\xc6\xfc\xcb\xdc")); });
    setlocale(LC_ALL, "C");
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(handle.get()));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(set.get()));
    zoltLogClose(secure.get());
}

TEST_F(Stack, OfListingCopyingAndRecyclingIsSmall) {
    {
        LogHandle handle;
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
        for (int i = 0; i < 100; ++i)
            EXPECT_RESULT(ZOLTLOG_OK,
                          zoltLogAppMsg(&handle, 0, 1, 0,
                                        "a text that fills the file, a text that fills the file %d", i));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
    }
    const std::string here = std::filesystem::current_path().string();
    const std::string first = here + "/log/" + support::listFiles("log").front();
    support::makeDirectory("copies");
    support::makeDirectory("links");
    auto listing = std::make_unique<LogListing>();
    auto cursor = std::make_unique<OsLogFileCursor>();
    auto cfg = std::make_unique<LogCfg>();
    char *path = nullptr;
    LogFileEntry *entry = nullptr;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogReadCfg(5, 7, cfg.get()));
    LogCfg *cfgs[] = {cfg.get()};

    need("zoltLogCopyFile",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogCopyFile(first.c_str(), (here + "/copies").c_str())); });
    need("zoltLogCopyFileEx",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogCopyFileEx(first.c_str(), (here + "/links").c_str())); });
    need("GetLogFiles", [&] { EXPECT_RESULT(ZOLTLOG_OK, GetLogFiles(cfgs, 1, listing.get())); });
    need("zoltLogFetchNextFile", [&] {
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogFetchNextFile(listing.get(), &path));
        zoltLogFreeBuffer(&path);
    });
    for (LogFileEntry *next; listing->files != nullptr; listing->files = next) {
        next = listing->files->next;
        zoltLogFree(listing->files);
    }
    need("zoltLogGetManageableLogFiles",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFiles(5, 7, listing.get())); });
    need("zoltLogGetManageableLogFiles of all",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogGetManageableLogFiles(0, 0, listing.get())); });
    need("zoltLogGetManageableLogFilesSL",
         [&] { (void)zoltLogGetManageableLogFilesSL(5, "set", listing.get()); });
    need("zoltLogFindLatestLog", [&] { EXPECT_NE(0, zoltLogFindLatestLog("log/", 5, 7, 0, 0, &entry)); });
    zoltLogFree(entry);
    need("zoltLogFindLatestLogSL",
         [&] { EXPECT_EQ(0, zoltLogFindLatestLogSL("log/", 5, "set", 0, 0, &entry)); });
    need("listing a directory", [&] {
        char host[512];
        EXPECT_EQ(0, zoltLogOsListLogFilesBegin(cursor.get(), "log/"));
        while (zoltLogOsListLogFilesNext(cursor.get()) == 0)
            (void)getHostnameFromFile(cursor.get(), "log/", host);
        zoltLogOsListLogFilesEnd(cursor.get());
    });
    need("zoltLogDeleteFile", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogDeleteFile(first.c_str())); });
    zoltLogFreeCfg(cfg.get());
}

TEST_F(Stack, OfTheConfigurationIsSmall) {
    auto cfg = std::make_unique<LogCfg>();
    std::vector<LogCfg *> cfgs(64);
    uint32_t count = 0;
    uint32_t enabled = 0;
    need("zoltLogAddProductCfg",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogAddProductCfg(9, "nine", "/nine.conf")); });
    need("zoltLogRemoveProductCfg", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogRemoveProductCfg(9)); });
    need("zoltLogReadCfg", [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogReadCfg(5, 7, cfg.get())); });
    need("zoltLogWriteCfg", [&] {
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogCfgSetDebugLevel(cfg.get(), 2));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogCfgSetDirectory(cfg.get(), "/tmp/", nullptr));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogWriteCfg(5, 7, cfg.get()));
    });
    zoltLogFreeCfg(cfg.get());
    need("zoltLogReadlogsetCfg",
         [&] { EXPECT_RESULT(ZOLTLOG_OK, zoltLogReadlogsetCfg(5, "set", cfg.get())); });
    need("zoltLogWritelogSetCfg", [&] {
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogCfgSetDebugLevel(cfg.get(), 2));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogWritelogSetCfg(5, "set", cfg.get()));
    });
    zoltLogFreeCfg(cfg.get());
    need("zoltLogReadProdIDCfg", [&] {
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogReadProdIDCfg(nullptr, 5, 64, cfgs.data(), &count));
        FreeConfigArray(cfgs.data(), count);
    });
    need("zoltLogReadAllCfg", [&] {
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogReadAllCfg(nullptr, 64, cfgs.data(), &count));
        FreeConfigArray(cfgs.data(), count);
    });
    need("GetProductLoggingLevel",
         [&] { (void)GetProductLoggingLevel(getenv("ZOLTLOG_CFG_LOC"), 5, &enabled); });
}

TEST_F(Stack, OfTextsIsSmall) {
    char *text = nullptr;
    wchar_t *wide = nullptr;
    auto buffer = std::make_unique<TextBuffer>();
    auto record = std::make_unique<LogMsg>();
    std::vector<char> room(4096);
    need("listxt_svnprintf", [&] {
        EXPECT_RESULT(ZOLTLOG_OK,
                      formatted(&text, "%s %.3f %20.5e %ls %5000d", "text", 1e300, 1.0, L"wide", 1));
        zoltLogFree(text);
    });
    need("nested blocks", [&] {
        ZoltLisBlock outer = support::textBlock("%d", 1);
        for (int depth = 0; depth < 20; ++depth) {
            ZoltLisBlock next = {};
            qdlisBegin(&next, 0, 0);
            if (qdlisAddBlock(&next, &outer) != 0) {
                zoltLisFree(&next);
                break;
            }
            outer = next;
        }
        *record = {};
        record->type = ZOLTLOG_MSG_APP;
        record->recordVersion = 65543;
        record->lis = outer;
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogMsgSerialize(record.get(), buffer.get()));
        free_text_msg(buffer.get());
        size_t size = room.size();
        room[0] = '\0';
        EXPECT_NE(nullptr, strncatlis(room.data(), &size, &outer));
        zoltLisFree(&outer);
    });
    need("dates", [&] {
        ZoltLisBlock block = {};
        qdlisBegin(&block, 0, 0);
        qdlisAddDateTime(&block, 1700000000, 0);
        qdlisAddDouble(&block, 1e308);
        ZoltLisIterator item = {};
        for (bool more = zoltLisGetArgsBegin(&block, &item) == 0; more; more = zoltLisGetNextArg(&item) == 0)
            if (zoltLogGetArg_asStringW(&item, &wide) == 0)
                zoltLogFree(wide);
        zoltLisFree(&block);
    });
    need("utf82mbs", [&] {
        EXPECT_RESULT(ZOLTLOG_OK, utf82mbs(&text, "text \xc3\xa4"));
        zoltLogFree(text);
    });
    need("mbs2utf8", [&] { (void)mbs2utf8(&text, "text \xe4"); });
}

// Threads that are as small as the manual allows, with nothing but the stack's end below.
TEST_F(Stack, OfThirtyTwoKilobytesIsEnough) {
    auto *area = static_cast<char *>(mapped(PAGE + SMALL_THREAD));
    ASSERT_EQ(0, mprotect(area, PAGE, PROT_NONE));
    static LogHandle handle;
    static std::string first;
    onStack(
        area + PAGE, SMALL_THREAD,
        [](void *) -> void * {
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogOpen(5, 7, &handle));
            for (int i = 0; i < 100; ++i)
                EXPECT_RESULT(
                    ZOLTLOG_OK,
                    zoltLogAppMsg(&handle, 0, 1, 0, "message %d with a text that fills a file %f", i, 0.5));
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogClose(&handle));
            return nullptr;
        },
        nullptr);
    EXPECT_LE(3u, logs::files().size());
    first = "log/" + support::listFiles("log").front();
    support::makeDirectory("copies");
    onStack(
        area + PAGE, SMALL_THREAD,
        [](void *) -> void * {
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogCopyFile(first.c_str(), "copies"));
            return nullptr;
        },
        nullptr);
    EXPECT_EQ(support::readFile(first), support::readFile("copies" + first.substr(3)));
    munmap(area, PAGE + SMALL_THREAD);
}
