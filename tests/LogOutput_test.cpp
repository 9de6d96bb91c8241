// SPDX-License-Identifier: Apache-2.0
#include "support/results.h"
#include "support/sink_capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "plugins/test_formatter.h"
#include "zoltlog.h"

namespace {

struct LogOutput : testing::Test {
    void SetUp() override { sinks::reset(); }

    void use(const std::string &kind) { sinks::formatter = sinks::testFormatter(kind); }
    // What the plug-in in use was asked; the plug-in must be loaded
    SeenByFormatter &seen() {
        void *library = dlopen(sinks::formatter.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        EXPECT_NE(nullptr, library);
        auto *found = static_cast<SeenByFormatter *>(dlsym(library, "seen"));
        dlclose(library);
        return *found;
    }
    void output(uint32_t flags) {
        err = support::captured(2, [&] {
            out = support::captured(1, [&] { result = LogOutputBasedOnFlags(&handle, &msg, flags); });
        });
    }
    void message(uint32_t type) {
        msg = {};
        msg.type = type;
        msg.text = text;
    }

    char text[16] = "hello";
    LogHandle handle = {};
    LogMsg msg = {};
    uint32_t result = 0;
    std::string out;
    std::string err;
};

struct Row { // where a message goes
    uint32_t type;
    uint32_t flags;
    bool out;
    bool err;
    bool systemLog;
};
// Debug 0, diagnostic 1, application 2, context 3, audit 4, secure audit 5
constexpr Row ROWS[] = {
    {0, 0, false, false, false}, {0, 1, true, false, false},  {0, 2, false, false, false},
    {0, 3, true, false, false},  {0, 4, false, false, false}, {0, 7, true, false, false},
    {1, 0, false, false, false}, {1, 1, true, false, false},  {1, 2, false, true, false},
    {1, 3, true, true, false},   {1, 4, false, false, false}, {1, 7, true, true, false},
    {2, 0, false, false, false}, {2, 1, true, false, false},  {2, 2, false, true, false},
    {2, 3, true, true, false},   {2, 4, false, false, true},  {2, 7, true, true, true},
    {3, 1, true, false, false},  {3, 2, false, false, false}, {3, 7, true, false, false},
    {4, 0, false, false, false}, {4, 1, false, false, false}, {4, 2, false, false, false},
    {4, 3, false, false, false}, {4, 4, false, false, false}, {4, 7, false, false, false},
    {5, 0, false, false, false}, {5, 1, true, false, false},  {5, 2, false, false, false},
    {5, 4, false, false, true},  {5, 7, true, false, true},   {2, 8 | 16, false, false, false},
    {5, 64, false, false, false}};

TEST_F(LogOutput, FlagsAndTypeDecideWhereAMessageGoes) {
    use("recording");
    for (const Row &row : ROWS) {
        for (const bool inHandle : {false, true}) {
            SCOPED_TRACE(testing::Message() << "type " << row.type << " flags " << row.flags
                                            << (inHandle ? " of the handle" : ""));
            sinks::sent.clear();
            message(row.type);
            handle.outputFlags = inHandle ? row.flags : 0;
            output(inHandle ? 0 : row.flags);
            EXPECT_RESULT(ZOLTLOG_OK, result);
            EXPECT_EQ(row.out ? "hello\n" : "", out);
            EXPECT_EQ(row.err ? "hello\n" : "", err);
            EXPECT_EQ(row.systemLog ? 1u : 0u, sinks::sent.size());
        }
    }
}

TEST_F(LogOutput, FlagsOfTheCallAndOfTheHandleAddUp) {
    use("recording");
    message(2);
    handle.outputFlags = ZOLTLOG_OUT_STDOUT;
    output(2);
    EXPECT_EQ("hello\n", out);
    EXPECT_EQ("hello\n", err);
}

TEST_F(LogOutput, NullArgumentsAreRefused) {
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, LogOutputBasedOnFlags(nullptr, &msg, 1));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, LogOutputBasedOnFlags(&handle, nullptr, 1));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, OutputToConsole(1, nullptr, &handle.localizers));
}

TEST_F(LogOutput, WithoutThePlugInNothingIsPrintedAndAllIsWell) {
    for (uint32_t type = 0; type <= 4; ++type) {
        message(type);
        output(7);
        EXPECT_RESULT(ZOLTLOG_OK, result) << type;
        EXPECT_EQ("", out + err) << type;
    }
    EXPECT_TRUE(sinks::sent.empty());
    EXPECT_EQ(nullptr, sh_handle);
}

TEST_F(LogOutput, WithoutThePlugInASecureAuditCopyFails) {
    message(5);
    output(4);
    EXPECT_EQ(4294967295u, result);
    EXPECT_TRUE(sinks::sent.empty());
}

TEST_F(LogOutput, ThePlugInIsAskedForByItsPlainName) {
    use("recording");
    message(2);
    output(5);
    EXPECT_EQ((std::vector<std::string>{"libzoltLogFormatMsg.so.3", "libzoltLogFormatMsg.so.3"}),
              sinks::asked);
}

TEST_F(LogOutput, APlugInWithoutEntryPrintsNull) {
    use("no_entry");
    message(2);
    output(3);
    EXPECT_RESULT(ZOLTLOG_OK, result);
    EXPECT_EQ("(null)\n", out);
    EXPECT_EQ("(null)\n", err);
    message(4);
    output(3);
    EXPECT_EQ("", out + err);
}

TEST_F(LogOutput, APlugInWithoutEntryIsUnloadedAgain) {
    use("no_entry");
    message(2);
    output(3);
    output(4);
    EXPECT_EQ(nullptr, dlopen(sinks::formatter.c_str(), RTLD_LAZY | RTLD_NOLOAD));
}

TEST_F(LogOutput, APlugInWithoutEntrySendsNothingToTheSystemLog) {
    use("no_entry");
    message(2);
    output(4);
    EXPECT_RESULT(ZOLTLOG_OK, result); // of an application message it does not count
    message(5);
    output(4);
    EXPECT_EQ(4294967295u, result);
    EXPECT_TRUE(sinks::sent.empty());
}

TEST_F(LogOutput, APlugInWithoutATextPrintsNull) {
    use("no_text");
    message(1);
    output(3);
    EXPECT_RESULT(ZOLTLOG_OK, result);
    EXPECT_EQ("(null)\n", out);
    EXPECT_EQ("(null)\n", err);
}

TEST_F(LogOutput, APlugInWithoutATextSendsNothingToTheSystemLogAndAllIsWell) {
    use("no_text");
    message(5);
    output(4);
    EXPECT_RESULT(ZOLTLOG_OK, result);
    EXPECT_TRUE(sinks::sent.empty());
}

TEST_F(LogOutput, AFailureOfThePlugInIsTheConsolesResult) {
    use("failing");
    message(1);
    output(3);
    EXPECT_EQ(77u, result);
    EXPECT_EQ("", out + err);
}

TEST_F(LogOutput, TheSystemLogsResultReplacesTheConsolesForSecureAudit) {
    use("failing");
    message(5);
    output(5);
    EXPECT_EQ(4294967295u, result);
    use("no_text");
    output(5);
    EXPECT_RESULT(ZOLTLOG_OK, result);
}

TEST_F(LogOutput, TheSystemLogsResultDoesNotCountForApplicationMessages) {
    use("failing");
    message(2);
    output(4);
    EXPECT_RESULT(ZOLTLOG_OK, result);
    output(5);
    EXPECT_EQ(77u, result);
    EXPECT_TRUE(sinks::sent.empty());
}

TEST_F(LogOutput, TheConsoleAsksForAllParts) {
    use("recording");
    message(2);
    output(1);
    const SeenByFormatter &call = seen();
    EXPECT_EQ(&handle.localizers, call.localizers);
    EXPECT_EQ(0u, call.zeros);
    EXPECT_STREQ("null", call.locale);
    EXPECT_EQ(1792u, call.formatFlags);
    EXPECT_EQ(&msg, call.msg);
    EXPECT_EQ(nullptr, call.handle);
}

TEST_F(LogOutput, TheSystemLogAsksForAllPartsButTheTime) {
    use("recording");
    message(2);
    output(4);
    const SeenByFormatter &call = seen();
    EXPECT_EQ(&handle.localizers, call.localizers);
    EXPECT_EQ(0u, call.zeros);
    EXPECT_STREQ("en_US", call.locale);
    EXPECT_EQ(1536u, call.formatFlags);
    EXPECT_EQ(&msg, call.msg);
    EXPECT_EQ(&handle, call.handle);
}

TEST_F(LogOutput, BothStreamsAreServedByOneCallOfThePlugIn) {
    use("recording");
    message(2);
    output(1);
    const int before = seen().calls;
    output(3);
    EXPECT_EQ(before + 1, seen().calls);
}

TEST_F(LogOutput, TheStateObjectsPointAtThePlugInDuringACallOnly) {
    use("recording");
    message(2);
    output(1);
    void *entry = dlsym(sh_handle, "LogFormatMessage");
    EXPECT_EQ(sh_handle, seen().newfmtLib.library);
    EXPECT_EQ(entry, seen().newfmtLib.entry);
    EXPECT_EQ(nullptr, seen().fmtLib.library);
    EXPECT_EQ(nullptr, fmtLib);
    EXPECT_EQ(nullptr, newfmtLib);
    output(4);
    EXPECT_EQ(sh_handle, seen().fmtLib.library);
    EXPECT_EQ(entry, seen().fmtLib.entry);
    EXPECT_EQ(nullptr, seen().newfmtLib.library);
    EXPECT_EQ(nullptr, fmtLib);
    EXPECT_EQ(nullptr, newfmtLib);
    use("no_entry");
    output(7);
    EXPECT_EQ(nullptr, fmtLib);
    EXPECT_EQ(nullptr, newfmtLib);
}

TEST_F(LogOutput, EachCallAddsAReferenceToThePlugIn) {
    use("recording");
    const auto loaded = [] {
        void *library = dlopen(sinks::formatter.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (library != nullptr)
            dlclose(library);
        return library != nullptr;
    };
    while (void *library = dlopen(sinks::formatter.c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
        dlclose(library);
        dlclose(library); // a reference of an earlier test in this process
    }
    message(2);
    output(1);
    output(4);
    output(1 | 4);
    void *library = sh_handle;
    for (int reference = 1; reference <= 4; ++reference) {
        EXPECT_TRUE(loaded()) << reference;
        dlclose(library);
    }
    EXPECT_FALSE(loaded());
}

// ---- when a line is written ------------------------------------------------------------

// What a pipe holds now.
std::string held(int descriptor) {
    char bytes[4096];
    const ssize_t count = read(descriptor, bytes, sizeof bytes);
    return {bytes, count > 0 ? static_cast<size_t>(count) : 0};
}

// A pipe in the place of a standard stream, which is buffered in blocks then.
struct PipedStream {
    PipedStream(FILE *theStream, int theDescriptor) : stream(theStream), descriptor(theDescriptor) {
        std::fflush(stream);
        saved = dup(descriptor);
        EXPECT_EQ(0, pipe2(ends, O_NONBLOCK | O_CLOEXEC));
        dup2(ends[1], descriptor);
        std::setvbuf(stream, nullptr, _IOFBF, 4096);
    }
    ~PipedStream() {
        std::fflush(stream);
        dup2(saved, descriptor);
        for (const int each : {saved, ends[0], ends[1]})
            close(each);
    }
    PipedStream(const PipedStream &) = delete;
    PipedStream &operator=(const PipedStream &) = delete;

    FILE *stream;
    int descriptor;
    int saved;
    int ends[2];
};

TEST_F(LogOutput, ALineIsWrittenWhenTheCallReturns) {
    use("recording");
    message(2);
    PipedStream out1(stdout, 1);
    PipedStream err1(stderr, 2);
    EXPECT_EQ(0u, LogOutputBasedOnFlags(&handle, &msg, 3));
    EXPECT_EQ("hello\n", held(out1.ends[0]));
    EXPECT_EQ("hello\n", held(err1.ends[0]));
}

TEST_F(LogOutput, AChildOfForkWritesNoLineAgain) {
    use("recording");
    message(2);
    PipedStream out1(stdout, 1);
    PipedStream err1(stderr, 2);
    EXPECT_EQ(0u, LogOutputBasedOnFlags(&handle, &msg, 3));
    const pid_t child = fork();
    if (child == 0) {
        std::fflush(nullptr);
        _exit(0);
    }
    ASSERT_EQ(child, waitpid(child, nullptr, 0));
    EXPECT_EQ("hello\n", held(out1.ends[0]));
    EXPECT_EQ("hello\n", held(err1.ends[0]));
}

} // namespace
