// SPDX-License-Identifier: Apache-2.0
// Handles that share a file, and the order in which they are closed.
#include "support/results.h"
#include "write_series.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <unistd.h>

using namespace series;

namespace {

struct WriteFileHandles : testing::Test {
    WriteFileHandles() {
        setZone("UTC");
        setClock(localTime(2024, 3, 1, 10));
        support::makeDirectory("logs");
        descriptors = support::openDescriptors();
    }
    ~WriteFileHandles() override { EXPECT_EQ(support::openDescriptors(), descriptors); }

    size_t descriptors;
};

const char FILE7[] = "logs/5-7-83886090-240301-0000000000.log";

uint32_t createContext(LogHandle *parent, LogHandle *context, const char *token) {
    *context = {};
    zoltLogInitMsg(&context->contextMsg, parent, ZOLTLOG_MSG_CONTEXT, "about");
    zoltLogSetContextAttr(&context->contextMsg, token);
    return zoltLogCreateContextToFile(parent, context, &context->contextMsg);
}

uint32_t destroyContext(LogHandle *context) {
    zoltLogFreeMsg(&context->contextMsg);
    context->noContext = 1;
    return zoltLogCloseFile(context);
}

} // namespace

TEST_F(WriteFileHandles, TwoHandlesOfASeriesShareOneFile) {
    LogHandle one;
    LogHandle two;
    ASSERT_RESULT(ZOLTLOG_OK, open(&one, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, open(&two, settings()));
    EXPECT_EQ(one.file, two.file);
    EXPECT_EQ(support::openDescriptors(), descriptors + 1);
    EXPECT_EQ(one.file->handles, &two) << "added at the front";
    EXPECT_EQ(two.nextOnFile, &one);
    EXPECT_RESULT(ZOLTLOG_OK, send(&one, "one"));
    EXPECT_RESULT(ZOLTLOG_OK, send(&two, "two"));
    EXPECT_EQ(textsIn(FILE7), (Texts{"one", "two"}));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&one));
    EXPECT_RESULT(ZOLTLOG_OK, send(&two, "three"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&two));
    EXPECT_EQ(textsIn(FILE7), (Texts{"one", "two", "three"}));
}

TEST_F(WriteFileHandles, ClosedHandleHasNoFile) {
    LogHandle one;
    LogHandle two;
    ASSERT_RESULT(ZOLTLOG_OK, open(&one, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, open(&two, settings()));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&two));
    EXPECT_EQ(two.file, nullptr);
    EXPECT_EQ(two.nextOnFile, nullptr);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCloseFile(&two));
    EXPECT_RESULT(ZOLTLOG_NO_FILE_STATE, send(&two, "nowhere"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&one));
    EXPECT_EQ(one.file, nullptr);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCloseFile(nullptr));
}

TEST_F(WriteFileHandles, OriginatorsShareTheFileOfAnother) {
    LogHandle one;
    LogHandle two;
    ASSERT_RESULT(ZOLTLOG_OK, open(&one, settings(7), settings(7)));
    ASSERT_RESULT(ZOLTLOG_OK, open(&two, settings(8), settings(7)));
    EXPECT_EQ(one.file, two.file);
    EXPECT_EQ(two.originatorId, 8u);
    EXPECT_RESULT(ZOLTLOG_OK, send(&two, "two"));
    EXPECT_EQ(support::lines(support::readFile(FILE7))[1].substr(0, 10), "2,5,8,7,1,");
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&one));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&two));
}

TEST_F(WriteFileHandles, OnlyOneStateIsRemembered) {
    LogHandle seven;
    LogHandle nine;
    LogHandle again;
    ASSERT_RESULT(ZOLTLOG_OK, open(&seven, settings(7)));
    ASSERT_RESULT(ZOLTLOG_OK, open(&nine, settings(9)));
    ASSERT_RESULT(ZOLTLOG_OK, open(&again, settings(9)));
    EXPECT_NE(nine.file, again.file);
    EXPECT_EQ(support::openDescriptors(), descriptors + 3);
    EXPECT_RESULT(ZOLTLOG_OK, send(&nine, "one"));
    EXPECT_RESULT(ZOLTLOG_OK, send(&again, "two"));
    EXPECT_EQ(textsIn("logs/5-9-83886090-240301-0000000000.log"), (Texts{"one", "two"}));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&seven));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&nine));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&again));
}

TEST_F(WriteFileHandles, SameOriginatorOfAnotherProductIsAnotherSeries) {
    LogHandle five;
    LogHandle six;
    LogCfg cfg = settings();
    cfg.productId = 6;
    ASSERT_RESULT(ZOLTLOG_OK, open(&five, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, open(&six, cfg));
    EXPECT_NE(five.file, six.file);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&six));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&five));
}

TEST_F(WriteFileHandles, StateIsForgottenByIdentityNotByEqualIds) {
    LogHandle seven;
    LogHandle nine;
    LogHandle second;
    LogHandle third;
    ASSERT_RESULT(ZOLTLOG_OK, open(&seven, settings(7))); // remembered
    ASSERT_RESULT(ZOLTLOG_OK, open(&nine, settings(9)));  // not remembered
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&seven));
    ASSERT_RESULT(ZOLTLOG_OK, open(&second, settings(9))); // now remembered, with equal ids
    EXPECT_NE(nine.file, second.file);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&nine));
    ASSERT_RESULT(ZOLTLOG_OK, open(&third, settings(9)));
    EXPECT_EQ(third.file, second.file);
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&second));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&third));
}

TEST_F(WriteFileHandles, ReusedStateIsReconfigured) {
    LogHandle one;
    LogHandle two;
    ASSERT_RESULT(ZOLTLOG_OK, open(&one, settings()));
    LogCfg cfg = settings();
    strcpy(cfg.directory, "./other/");
    cfg.maxFileSizeKB = 3;
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.rolloverTime = 99;
    cfg.rolloverPeriod = 98;
    cfg.permissions.mode = 0600;
    ASSERT_RESULT(ZOLTLOG_OK, open(&two, cfg));
    const LogFileState *state = one.file;
    EXPECT_STREQ(state->directory, "./other/");
    EXPECT_EQ(state->maxFileSizeKB, 3u);
    EXPECT_EQ(state->rolloverMode, ZOLTLOG_ROLLOVER_FILE_SIZE);
    EXPECT_EQ(state->logRecycling, 0u);
    EXPECT_EQ(state->rolloverTime, 99u);
    EXPECT_EQ(state->rolloverPeriod, 98u);
    EXPECT_EQ(state->permissions.mode, 0660u) << "set with the first file only";
    ASSERT_RESULT(ZOLTLOG_OK, send(&one, "here"));
    EXPECT_EQ(textsIn(FILE7), Texts{"here"});
    ASSERT_RESULT(ZOLTLOG_OK, send(&one, std::string(4000, 'x')));
    EXPECT_EQ(support::listFiles("other"), Names{"5-7-83886090-240301-0000000001.log"});
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&one));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&two));
}

TEST_F(WriteFileHandles, ChangedScheduleOfAReusedStateIsComputedAnew) {
    LogHandle handles[4];
    ASSERT_RESULT(ZOLTLOG_OK, open(&handles[0], settings()));
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_PERIODIC;
    cfg.rolloverPeriod = 1000;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handles[1], cfg));
    const LogFileState *state = handles[0].file;
    EXPECT_EQ(state->nextRolloverTime, localTime(2024, 3, 1, 10) + 1000);
    cfg.rolloverPeriod = 2000;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handles[2], cfg));
    EXPECT_EQ(state->nextRolloverTime, localTime(2024, 3, 1, 10) + 2000);
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_LOCAL_TIME;
    cfg.rolloverTime = uint64_t{11} * 3600;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handles[3], cfg));
    EXPECT_EQ(state->nextRolloverTime, localTime(2024, 3, 1, 11));
    for (LogHandle &handle : handles)
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
}

TEST_F(WriteFileHandles, EveryHandleNumbersItsMessages) {
    LogHandle one;
    LogHandle two;
    ASSERT_RESULT(ZOLTLOG_OK, open(&one, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, send(&one, "one"));
    ASSERT_RESULT(ZOLTLOG_OK, open(&two, settings()));
    EXPECT_EQ(one.sequenceNumber, 2u);
    EXPECT_EQ(two.sequenceNumber, 1u);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&two));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&one));
}

// ---- failed opens ----------------------------------------------------------------------------

TEST_F(WriteFileHandles, HandleWhoseOpenFailedRecoversWithTheFirstMessage) {
    LogHandle handle;
    hostNameFails = true;
    EXPECT_RESULT(ZOLTLOG_FAILED, open(&handle, settings()));
    ASSERT_NE(handle.file, nullptr);
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, send(&handle, "lost"));
    hostNameFails = false;
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "kept"));
    EXPECT_EQ(textsIn(FILE7), Texts{"kept"});
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
}

TEST_F(WriteFileHandles, FailedOpenIsSharedAndTriedAgainByTheNext) {
    for (const bool firstClosesFirst : {true, false}) {
        LogHandle failed;
        LogHandle good;
        hostNameFails = true;
        EXPECT_RESULT(ZOLTLOG_FAILED, open(&failed, settings()));
        hostNameFails = false;
        EXPECT_RESULT(ZOLTLOG_OK, open(&good, settings()));
        EXPECT_EQ(failed.file, good.file);
        EXPECT_RESULT(ZOLTLOG_OK, send(&failed, "one"));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(firstClosesFirst ? &failed : &good));
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(firstClosesFirst ? &good : &failed));
    }
}

TEST_F(WriteFileHandles, HandleOnNoListClosesWith1AndFreesItsState) {
    LogHandle handle = {};
    handle.file = static_cast<LogFileState *>(calloc(1, sizeof(LogFileState)));
    handle.file->file.descriptor = -1;
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogCloseFile(&handle));
    EXPECT_EQ(handle.file, nullptr);
}

TEST_F(WriteFileHandles, HandleOnNoListOfAUsedStateLeavesItAlone) {
    LogHandle handle;
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    LogHandle stranger = {};
    stranger.file = handle.file;
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogCloseFile(&stranger));
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
}

TEST_F(WriteFileHandles, StateThatWasNeverOpenedIsWrittenThroughAllTheSame) {
    auto *state = static_cast<LogFileState *>(calloc(1, sizeof(LogFileState)));
    state->file.descriptor = -1;
    strcpy(state->directory, "./logs/");
    state->permissions.mode = 0660;
    state->productId = 5;
    state->fileOriginatorId = 7;
    state->rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    state->maxFileSizeKB = 1;
    LogHandle handle = {};
    handle.file = state;
    handle.originatorId = 7;
    handle.noContext = 1;
    for (const size_t length : {500u, 400u, 100u})
        EXPECT_RESULT(ZOLTLOG_OK, send(&handle, std::string(length, 'x')));
    EXPECT_EQ(logFiles().size(), 2u);
    EXPECT_RESULT(ZOLTLOG_FAILED, zoltLogCloseFile(&handle)) << "on no list";
}

TEST_F(WriteFileHandles, OpeningAnOpenHandleAgainListsItOnce) {
    LogHandle handle;
    LogCfg cfg = settings();
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg));
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogOpenFile(&handle, &cfg, &cfg));
    EXPECT_EQ(handle.file->handles, &handle);
    EXPECT_EQ(handle.nextOnFile, nullptr);
    ASSERT_RESULT(ZOLTLOG_OK, open(&handle, cfg)) << "a record that was not closed";
    EXPECT_EQ(handle.nextOnFile, nullptr);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handle, "one"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handle));
}

// ---- contexts ----------------------------------------------------------------------------------

TEST_F(WriteFileHandles, ContextTakesAfterItsParent) {
    LogHandle parent;
    LogCfg cfg = settings();
    cfg.debugLevel = 3;
    cfg.diagLevel = 4;
    cfg.outputFlags = ZOLTLOG_OUT_STDERR | ZOLTLOG_OUT_OSLOGX;
    cfg.reloadInterval = 61;
    ASSERT_RESULT(ZOLTLOG_OK, open(&parent, cfg));
    parent.secureAuditLevel = 5;
    parent.utf8 = 1;
    parent.sequenceNumber = 77;
    strcpy(parent.oslog.ident, "ident");
    parent.localizers.count = 2;
    parent.cfgTimestamp = 11;
    parent.lastReloadCheck = 12;
    LogHandle context;
    memset(static_cast<void *>(&context), 0xA5, sizeof context);
    ASSERT_RESULT(ZOLTLOG_OK, createContext(&parent, &context, "T1"));
    EXPECT_EQ(context.file, parent.file);
    EXPECT_EQ(context.originatorId, 7u);
    EXPECT_EQ(context.debugLevel, 3u);
    EXPECT_EQ(context.diagLevel, 4u);
    EXPECT_EQ(context.secureAuditLevel, 5u);
    EXPECT_EQ(context.outputFlags, uint32_t{ZOLTLOG_OUT_STDERR | ZOLTLOG_OUT_OSLOGX});
    EXPECT_EQ(context.utf8, 1u);
    EXPECT_STREQ(context.oslog.ident, "ident");
    EXPECT_EQ(context.localizers.count, 2u);
    EXPECT_EQ(context.reloadInterval, 61u);
    EXPECT_EQ(context.cfgTimestamp, 11);
    EXPECT_EQ(context.lastReloadCheck, 12);
    EXPECT_EQ(context.cfgCopy, nullptr);
    EXPECT_EQ(context.sequenceNumber, 1u);
    EXPECT_EQ(context.noContext, 0u);
    EXPECT_EQ(parent.sequenceNumber, 78u) << "the context record took a number of the parent's";
    EXPECT_EQ(context.file->handles, &context);
    EXPECT_EQ(context.nextOnFile, &parent);
    const std::string record = support::lines(support::readFile(FILE7)).at(1);
    EXPECT_EQ(record.substr(0, 11), "3,5,7,7,77,");
    EXPECT_EQ(record.substr(record.find(",0:,")), ",0:,5:about,2:T1,(0|)");
    EXPECT_RESULT(ZOLTLOG_OK, destroyContext(&context));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&parent));
}

TEST_F(WriteFileHandles, MessageThroughAContextCarriesItsToken) {
    LogHandle parent;
    LogHandle context;
    ASSERT_RESULT(ZOLTLOG_OK, open(&parent, settings()));
    ASSERT_RESULT(ZOLTLOG_OK, createContext(&parent, &context, "T1"));
    ASSERT_RESULT(ZOLTLOG_OK, send(&context, "one"));
    const std::string record = support::lines(support::readFile(FILE7)).at(2);
    EXPECT_NE(record.find(",2:T1,3:one,3:mgr,3,(0|)"), std::string::npos) << record;
    EXPECT_RESULT(ZOLTLOG_OK, destroyContext(&context));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&parent));
}

TEST_F(WriteFileHandles, ContextOutlivesItsParent) {
    LogHandle parent;
    LogHandle context;
    LogHandle nested;
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 1;
    ASSERT_RESULT(ZOLTLOG_OK, open(&parent, cfg));
    ASSERT_RESULT(ZOLTLOG_OK, createContext(&parent, &context, "T1"));
    ASSERT_RESULT(ZOLTLOG_OK, createContext(&context, &nested, "T2"));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&parent));
    ASSERT_RESULT(ZOLTLOG_OK, send(&nested, std::string(1000, 'x')));
    EXPECT_EQ(support::lines(support::readFile("logs/5-7-83886090-240301-0000000001.log")).size(), 4u);
    EXPECT_RESULT(ZOLTLOG_OK, destroyContext(&context));
    ASSERT_RESULT(ZOLTLOG_OK, send(&nested, "two"));
    EXPECT_RESULT(ZOLTLOG_OK, destroyContext(&nested));
}

TEST_F(WriteFileHandles, FailedContextStaysAPlainHandleOnTheParentsFile) {
    LogHandle parent;
    LogHandle context;
    LogHandle closed = {};
    ASSERT_RESULT(ZOLTLOG_OK, open(&parent, settings()));
    EXPECT_RESULT(ZOLTLOG_NO_FILE_STATE, createContext(&closed, &context, "T1"));
    EXPECT_EQ(context.file, nullptr);
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, destroyContext(&context));
    for (const bool parentGoesFirst : {false, true}) {
        SCOPED_TRACE(parentGoesFirst);
        const int descriptor = parent.file->file.descriptor;
        parent.file->file.descriptor = 1000; // nothing is open there
        EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, createContext(&parent, &context, "T1"));
        parent.file->file.descriptor = descriptor;
        EXPECT_EQ(context.noContext, 1u);
        EXPECT_EQ(context.file, parent.file);
        EXPECT_EQ(parent.file->handles, &parent);
        EXPECT_EQ(parent.nextOnFile, nullptr);
        EXPECT_RESULT(ZOLTLOG_OK, send(&context, "one"));
        EXPECT_EQ(textOf(support::lines(support::readFile(FILE7)).back()), "one") << "without a token";
        if (parentGoesFirst) {
            EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&parent));
            EXPECT_RESULT(ZOLTLOG_OK, send(&context, "two"));
            EXPECT_EQ(textOf(support::lines(support::readFile(FILE7)).back()), "two");
        }
        EXPECT_RESULT(ZOLTLOG_FAILED, destroyContext(&context));
        EXPECT_EQ(context.file, nullptr);
        EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, destroyContext(&context));
        if (!parentGoesFirst) {
            EXPECT_RESULT(ZOLTLOG_OK, send(&parent, "three"));
        }
    }
    EXPECT_EQ(support::openDescriptors(), descriptors);
}

TEST_F(WriteFileHandles, FailedContextsFileIsSharedByTheNextOpen) {
    LogHandle parent;
    LogHandle context;
    LogHandle next;
    ASSERT_RESULT(ZOLTLOG_OK, open(&parent, settings()));
    const int descriptor = parent.file->file.descriptor;
    parent.file->file.descriptor = 1000;
    EXPECT_RESULT(ZOLTLOG_WRITE_FAILED, createContext(&parent, &context, "T1"));
    parent.file->file.descriptor = descriptor;
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&parent));
    ASSERT_RESULT(ZOLTLOG_OK, open(&next, settings()));
    EXPECT_EQ(next.file, context.file);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&next));
    EXPECT_RESULT(ZOLTLOG_OK, send(&context, "one"));
    EXPECT_RESULT(ZOLTLOG_FAILED, destroyContext(&context));
    EXPECT_EQ(support::openDescriptors(), descriptors);
}

// Neither making nor closing a context looks through the open ones.
TEST_F(WriteFileHandles, FortyThousandContextsComeAndGoInAnyOrder) {
    constexpr size_t CONTEXTS = 40000;
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    LogHandle parent;
    ASSERT_RESULT(ZOLTLOG_OK, open(&parent, cfg));
    std::vector<LogHandle> contexts(CONTEXTS);
    std::vector<size_t> order(CONTEXTS);
    for (size_t i = 0; i < CONTEXTS; ++i) {
        ASSERT_RESULT(ZOLTLOG_OK, createContext(&parent, &contexts[i], std::to_string(i).c_str()));
        order[i] = i;
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(7)); // NOLINT(cert-msc51-cpp): the same each time
    for (size_t i = 0; i < CONTEXTS - 100; ++i)
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&contexts[order[i]]));
    order.erase(order.begin(), order.end() - 100);
    // Those that are left are in the next file, the last one first.
    parent.file->maxFileSizeKB = 1;
    EXPECT_RESULT(ZOLTLOG_OK, send(&parent, "one"));
    std::sort(order.begin(), order.end(), std::greater<>());
    std::vector<std::string> expected;
    for (const size_t at : order)
        expected.push_back(std::to_string(at));
    std::vector<std::string> tokens;
    for (const std::string &line : support::lines(support::readFile("logs/" + logFiles().at(1)))) {
        const size_t about = line.find(",5:about,");
        const size_t colon = about != std::string::npos ? line.find(':', about + 9) : about;
        if (colon != std::string::npos)
            tokens.push_back(line.substr(colon + 1, line.find(',', colon) - colon - 1));
    }
    EXPECT_EQ(expected, tokens);
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&parent));
    for (const size_t at : order)
        EXPECT_RESULT(ZOLTLOG_OK, zoltLogDestroyContext(&contexts[at]));
    EXPECT_EQ(support::openDescriptors(), descriptors);
}

TEST_F(WriteFileHandles, NullArgumentsOfAContextAreInvalid) {
    LogHandle parent = {};
    LogHandle context = {};
    LogMsg msg = {};
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContextToFile(nullptr, &context, &msg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContextToFile(&parent, nullptr, &msg));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContextToFile(&parent, &context, nullptr));
    EXPECT_RESULT(ZOLTLOG_INVALID_ARGUMENT, zoltLogCreateContextToFile(&parent, &parent, &msg));
}

TEST_F(WriteFileHandles, ContextMessageOfTheCallersOwnRecordIsTakenOver) {
    LogHandle parent;
    LogHandle context = {};
    ASSERT_RESULT(ZOLTLOG_OK, open(&parent, settings()));
    LogMsg msg;
    zoltLogInitMsg(&msg, &parent, ZOLTLOG_MSG_CONTEXT, "about");
    zoltLogSetContextAttr(&msg, "T1");
    ASSERT_RESULT(ZOLTLOG_OK, zoltLogCreateContextToFile(&parent, &context, &msg));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogFreeMsg(&msg)) << "harmless: it was moved";
    ASSERT_RESULT(ZOLTLOG_OK, send(&context, "one"));
    EXPECT_NE(support::readFile(FILE7).find(",2:T1,3:one,"), std::string::npos);
    EXPECT_RESULT(ZOLTLOG_OK, destroyContext(&context));
    EXPECT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&parent));
}

// ---- any order -----------------------------------------------------------------------------------

TEST_F(WriteFileHandles, AnyOrderOfOpeningAndClosingIsSound) {
    std::mt19937 random(20240301);
    struct Slot {
        LogHandle handle = {};
        bool open = false;
        bool context = false;
    };
    std::vector<std::unique_ptr<Slot>> slots;
    for (int slot = 0; slot < 24; ++slot)
        slots.push_back(std::make_unique<Slot>());
    auto close = [](Slot *slot) {
        EXPECT_EQ(slot->context ? destroyContext(&slot->handle) : zoltLogCloseFile(&slot->handle), 0u);
        slot->open = slot->context = false;
    };
    for (int step = 0; step < 3000; ++step) {
        Slot *slot = slots[random() % slots.size()].get();
        Slot *other = slots[random() % slots.size()].get();
        if (slot->open && random() % 2 == 0) {
            close(slot);
        } else if (slot->open) {
            EXPECT_RESULT(ZOLTLOG_OK, send(&slot->handle, "message"));
        } else if (other->open && random() % 2 == 0) {
            EXPECT_RESULT(ZOLTLOG_OK, createContext(&other->handle, &slot->handle, "T"));
            slot->open = slot->context = true;
        } else {
            LogCfg cfg = settings(7 + random() % 3);
            cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
            cfg.maxFileSizeKB = 4;
            EXPECT_RESULT(ZOLTLOG_OK, open(&slot->handle, cfg));
            slot->open = true;
        }
    }
    for (auto &slot : slots)
        if (slot->open)
            close(slot.get());
}

TEST_F(WriteFileHandles, TenThousandHandlesOnOneFile) {
    std::vector<LogHandle> handles(10000);
    for (LogHandle &handle : handles)
        ASSERT_RESULT(ZOLTLOG_OK, open(&handle, settings()));
    EXPECT_EQ(support::openDescriptors(), descriptors + 1);
    EXPECT_RESULT(ZOLTLOG_OK, send(&handles[4711], "one"));
    for (size_t at = 0; at < handles.size(); ++at)
        ASSERT_RESULT(ZOLTLOG_OK, zoltLogCloseFile(&handles[(at * 7919) % handles.size()]));
}
