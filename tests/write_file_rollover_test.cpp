// SPDX-License-Identifier: Apache-2.0
// Rollover by size, what rolls and what does not, and contexts in new files.
#include "support/results.h"
#include "write_series.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace series;

namespace {

const char FIRST[] = "logs/5-7-83886090-240301-0000000000.log";
const char SECOND[] = "logs/5-7-83886090-240301-0000000001.log";
const char THIRD[] = "logs/5-7-83886090-240301-0000000002.log";

struct WriteFileRollover : testing::Test {
    WriteFileRollover() {
        setZone("UTC");
        setClock(localTime(2024, 3, 1, 10));
    }
    ~WriteFileRollover() override {
        if (handle.file != nullptr)
            zoltLogCloseFile(&handle);
    }
    void openSized(uint64_t kilobytes, uint32_t mode = 1) {
        LogCfg cfg = settings();
        cfg.rolloverMode = mode;
        cfg.maxFileSizeKB = kilobytes;
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    }
    // A text that makes the next record of handle bytes long.
    std::string textForRecord(size_t bytes) {
        for (size_t length = bytes - 100; length < bytes; ++length) {
            LogMsg msg;
            zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, std::string(length, 'x').c_str());
            --handle.sequenceNumber;
            msg.recordVersion = ZOLTLOG_RECORD_VERSION_ORIGINATOR;
            msg.fileOriginatorId = 7;
            zoltLogSetAppAttrEx(&msg, "mgr", ZOLTLOG_SEVERITY_CRITICAL);
            TextBuffer buffer;
            zoltLogMsgSerialize(&msg, &buffer);
            const size_t record = buffer.capacity - buffer.free;
            free_text_msg(&buffer);
            zoltLogFreeMsg(&msg);
            if (record == bytes)
                return std::string(length, 'x');
        }
        ADD_FAILURE() << "no text gives a record of " << bytes;
        return "";
    }

    LogHandle handle = {};
};

const size_t HEADER = strlen("$Header 65543,5,7,1709287200,0,hostA\n");

} // namespace

TEST(WriteFileRolloverMode, OnlyZeroToFiveAreValid) {
    for (uint32_t mode = 0; mode <= 5; ++mode)
        EXPECT_EQ(IsValidRolloverMode(mode), 1) << mode;
    for (const uint32_t mode : {6u, 7u, 8u, 9u, 1u << 31, UINT32_MAX})
        EXPECT_EQ(IsValidRolloverMode(mode), 0) << mode;
}

TEST_F(WriteFileRollover, ModeNoneNeverRolls) {
    openSized(1, 0);
    for (int record = 0; record < 5; ++record)
        ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'x')));
    advance(400 * 86400L);
    handle.file->lastReopenTime = 0; // the periodic reopen is another matter
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "later"));
    EXPECT_EQ(logFiles().size(), 1u);
}

TEST_F(WriteFileRollover, MaxSizeZeroNeverRolls) {
    openSized(0);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(5000, 'x')));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(5000, 'x')));
    EXPECT_EQ(logFiles().size(), 1u);
}

TEST_F(WriteFileRollover, FirstRecordBeyondTheLimitRollsBeforeItIsWritten) {
    openSized(1);
    const std::string text = textForRecord(1100);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, text));
    EXPECT_EQ(support::readFile(FIRST), "$Header 65543,5,7,1709287200,0,hostA\n");
    EXPECT_EQ(textsIn(SECOND), Texts{text});
    EXPECT_EQ(support::readFile(SECOND).size(), HEADER + 1100);
}

TEST_F(WriteFileRollover, ReachingTheLimitExactlyRolls) {
    openSized(2);
    const std::string text = textForRecord(2048 - HEADER);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, text));
    EXPECT_EQ(textsIn(FIRST), Texts{});
    EXPECT_EQ(textsIn(SECOND), Texts{text});
}

TEST_F(WriteFileRollover, OneByteBelowTheLimitDoesNotRoll) {
    openSized(2);
    const std::string text = textForRecord(2047 - HEADER);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, text));
    EXPECT_EQ(textsIn(FIRST), Texts{text});
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "next"));
    EXPECT_EQ(textsIn(SECOND), Texts{"next"});
}

TEST_F(WriteFileRollover, SizeCountsWhatOthersAppended) {
    openSized(2);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    support::writeFile(FIRST, support::readFile(FIRST) + std::string(2000, '-') + "\n");
    usleep(1000); // beyond the time in which they could not have
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn(SECOND), Texts{"two"});
}

TEST_F(WriteFileRollover, TruncatedFileIsContinuedWithoutAHole) {
    openSized(2);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1500, 'x')));
    ASSERT_EQ(truncate(FIRST, 0), 0);
    usleep(1000);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "after"));
    EXPECT_EQ(textsIn(FIRST), Texts{"after"});
    EXPECT_EQ(logFiles().size(), 1u);
}

TEST_F(WriteFileRollover, EveryMessageExactlyOnceOverManyFiles) {
    openSized(4);
    Texts sent;
    for (int record = 0; record < 2000; ++record) {
        sent.push_back("message " + std::to_string(record));
        ASSERT_RESULT(ZOLTLOG_OK, send(&handle, sent.back()));
    }
    Texts found;
    const Names files = logFiles();
    EXPECT_GT(files.size(), 20u);
    for (size_t file = 0; file < files.size(); ++file) {
        char name[64];
        snprintf(name, sizeof name, "5-7-83886090-240301-%010zu.log", file);
        EXPECT_EQ(files[file], name);
        EXPECT_LT(support::readFile("logs/" + files[file]).size(), 4096u);
        const Texts texts = textsIn("logs/" + files[file]);
        found.insert(found.end(), texts.begin(), texts.end());
    }
    EXPECT_EQ(found, sent);
}

TEST_F(WriteFileRollover, InvalidModeSwitchesRolloverOff) {
    openSized(1, 6);
    EXPECT_EQ(handle.file->rolloverMode, uint32_t{ZOLTLOG_ROLLOVER_LOCAL_TIME | ZOLTLOG_ROLLOVER_PERIODIC});
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(3000, 'x')));
    EXPECT_EQ(handle.file->rolloverMode, 0u);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(logFiles().size(), 1u);
}

TEST_F(WriteFileRollover, FilesThatExistAndAreFullArePassedOver) {
    openSized(1);
    support::writeFile(SECOND, "$Header 65543,5,7,1709287200,0,hostA\n" + std::string(1100, '-') + "\n");
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'x')));
    EXPECT_EQ(textsIn(THIRD).size(), 1u);
    EXPECT_EQ(handle.file->counter, 2);
}

TEST_F(WriteFileRollover, FileThatExistsWithRoomIsContinued) {
    openSized(1);
    support::writeFile(SECOND, "$Header 65543,5,7,1709287100,0,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'x')));
    EXPECT_EQ(textsIn(SECOND).size(), 1u);
    EXPECT_EQ(handle.file->fileStartTime, 1709287100);
    EXPECT_EQ(logFiles().size(), 2u);
}

TEST_F(WriteFileRollover, FilesOfOlderVersionsArePassedOver) {
    openSized(1);
    support::writeFile(SECOND, "$Header 65540,5,7,1709287100,hostA\n");
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(1000, 'x')));
    EXPECT_EQ(support::readFile(SECOND), "$Header 65540,5,7,1709287100,hostA\n");
    EXPECT_EQ(textsIn(THIRD).size(), 1u);
}

// ---- files that were ended -----------------------------------------------------------

TEST_F(WriteFileRollover, EndedFileIsLeftAtTheNextLook) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "before"));
    ASSERT_EQ(0, chmod(FIRST, 01660));
    usleep(950000); // within 900 ms of the last look it may go on
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "behind"));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "and on"));
    EXPECT_EQ(Texts({"before"}), textsIn(FIRST));
    EXPECT_EQ(Texts({"behind", "and on"}), textsIn(SECOND));
    EXPECT_EQ(Names({FIRST + 5, SECOND + 5}), logFiles());
}

TEST_F(WriteFileRollover, EndedFilesAreNotContinued) {
    support::makeDirectory("logs");
    for (const char *path : {FIRST, SECOND}) {
        support::writeFile(path, "$Header 65543,5,7,1709287200,0,hostA\n");
        ASSERT_EQ(0, chmod(path, 01660));
    }
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(Texts(), textsIn(FIRST));
    EXPECT_EQ(Texts(), textsIn(SECOND));
    EXPECT_EQ(Texts({"one"}), textsIn(THIRD));
}

TEST_F(WriteFileRollover, EndedFileIsLeftForTheNextOneThatIsThere) {
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    support::writeFile(SECOND, "$Header 65543,5,7,1709287200,0,hostA\n");
    ASSERT_EQ(0, chmod(FIRST, 01660));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one")); // the first record is looked at, too
    EXPECT_EQ(Texts(), textsIn(FIRST));
    EXPECT_EQ(Texts({"one"}), textsIn(SECOND));
}

TEST_F(WriteFileRollover, ConfiguredStickyBitEndsNoFile) {
    LogCfg cfg = settings();
    cfg.permissions.mode = 01660;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(Texts({"one", "two"}), textsIn(FIRST));
    EXPECT_EQ(Names({FIRST + 5}), logFiles());
}

TEST_F(WriteFileRollover, PeriodOfNothingDoesNotLoop) {
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_PERIODIC;
    cfg.rolloverPeriod = 0;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "two"));
    EXPECT_EQ(textsIn(SECOND), Texts{"one"});
    EXPECT_EQ(textsIn(THIRD), Texts{"two"});
    EXPECT_EQ(logFiles().size(), 3u);
}

TEST_F(WriteFileRollover, RecordThatCannotBeEncodedRollsNothing) {
    openSized(1);
    LogMsg msg;
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogInitMsg(&msg, &handle, ZOLTLOG_MSG_APP, std::string(2000, 'x').c_str()));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogSetAppAttrEx(&msg, "mgr", 5));
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogWriteMsgWithRolloverToFile(handle.file, &msg));
    zoltLogFreeMsg(&msg);
    EXPECT_EQ(logFiles().size(), 1u);
    EXPECT_EQ(textsIn(FIRST), Texts{});
}

TEST_F(WriteFileRollover, NullStateIs57AndNullMessage1) {
    openSized(1);
    LogMsg msg = {};
    EXPECT_RESULT(ZOLTLOG_NO_FILE_STATE, zoltLogWriteMsgWithRolloverToFile(nullptr, &msg));
    EXPECT_RESULT(ZOLTLOG_NO_FILE_STATE, zoltLogWriteMsgWithRolloverToFile(nullptr, nullptr));
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogWriteMsgWithRolloverToFile(handle.file, nullptr));
}

// ---- contexts ------------------------------------------------------------------------------

namespace {

// Creates a context as zoltLogCreateContext does, with the title and token given.
uint32_t createContext(LogHandle *parent, LogHandle *context, const char *token) {
    *context = {};
    zoltLogInitMsg(&context->contextMsg, parent, ZOLTLOG_MSG_CONTEXT,
                   (std::string("about ") + token).c_str());
    zoltLogSetContextAttr(&context->contextMsg, token);
    return zoltLogCreateContextToFile(parent, context, &context->contextMsg);
}

uint32_t destroyContext(LogHandle *context) {
    zoltLogFreeMsg(&context->contextMsg);
    context->noContext = 1;
    return zoltLogCloseFile(context);
}

// The titles of the context records of a file, in order.
Texts contextsIn(const std::string &path) {
    Texts titles;
    for (const std::string &line : support::lines(support::readFile(path))) {
        const size_t end = line.rfind(",(0|)");
        if (line.compare(0, 2, "3,") == 0 && end != std::string::npos)
            titles.push_back(line.substr(line.rfind(':', end) + 1, end - line.rfind(':', end) - 1));
    }
    return titles;
}

} // namespace

TEST_F(WriteFileRollover, ContextsAreRewrittenAtTheTopOfEveryNewFileInListOrder) {
    openSized(1);
    LogHandle one;
    LogHandle two;
    ASSERT_RESULT(ZOLTLOG_OK, createContext(&handle, &one, "T1"));
    ASSERT_RESULT(ZOLTLOG_OK, createContext(&handle, &two, "T2"));
    EXPECT_EQ(contextsIn(FIRST), (Texts{"T1", "T2"}));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(900, 'x')));
    EXPECT_EQ(contextsIn(SECOND), (Texts{"T2", "T1"})) << "the newest handle is the first of the list";
    const std::vector<std::string> found = support::lines(support::readFile(SECOND));
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found[0], "$Header 65543,5,7,1709287200,0,hostA");
    EXPECT_EQ(textOf(found[3]), std::string(900, 'x'));
    ASSERT_RESULT(ZOLTLOG_OK, destroyContext(&two));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(900, 'x')));
    EXPECT_EQ(contextsIn(THIRD), (Texts{"T1"}));
    ASSERT_RESULT(ZOLTLOG_OK, destroyContext(&one));
}

TEST_F(WriteFileRollover, ContextRecordIsRewrittenUnchanged) {
    openSized(1);
    LogHandle context;
    ASSERT_RESULT(ZOLTLOG_OK, createContext(&handle, &context, "T1"));
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(990, 'x')));
    EXPECT_EQ(support::lines(support::readFile(SECOND))[1], support::lines(support::readFile(FIRST))[1]);
    EXPECT_RESULT(ZOLTLOG_OK, destroyContext(&context));
}

TEST_F(WriteFileRollover, RewritingContextsNeverRolls) {
    openSized(1);
    LogHandle context;
    ASSERT_RESULT(ZOLTLOG_OK, createContext(&handle, &context, std::string(2000, 't').c_str()));
    EXPECT_EQ(contextsIn(SECOND).size(), 1u);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_EQ(contextsIn(THIRD).size(), 1u);
    EXPECT_EQ(textsIn(THIRD).back(), "one");
    EXPECT_EQ(logFiles().size(), 3u);
    EXPECT_RESULT(ZOLTLOG_OK, destroyContext(&context));
}

TEST_F(WriteFileRollover, ContextThatRollsIsNotDoubledInTheNewFile) {
    openSized(1);
    ASSERT_RESULT(ZOLTLOG_OK, send(&handle, std::string(900, 'x')));
    LogHandle context;
    ASSERT_RESULT(ZOLTLOG_OK, createContext(&handle, &context, "T1"));
    EXPECT_EQ(contextsIn(SECOND), Texts{"T1"});
    EXPECT_EQ(contextsIn(FIRST), Texts{});
    EXPECT_RESULT(ZOLTLOG_OK, destroyContext(&context));
}
