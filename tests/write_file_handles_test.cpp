// Handles that share a file, and the order in which they are closed.
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
    ASSERT_EQ(open(&one, settings()), 0u);
    ASSERT_EQ(open(&two, settings()), 0u);
    EXPECT_EQ(one.file, two.file);
    EXPECT_EQ(support::openDescriptors(), descriptors + 1);
    EXPECT_EQ(one.file->handles, &two) << "added at the front";
    EXPECT_EQ(two.nextOnFile, &one);
    EXPECT_EQ(send(&one, "one"), 0u);
    EXPECT_EQ(send(&two, "two"), 0u);
    EXPECT_EQ(textsIn(FILE7), (Texts{"one", "two"}));
    EXPECT_EQ(zoltLogCloseFile(&one), 0u);
    EXPECT_EQ(send(&two, "three"), 0u);
    EXPECT_EQ(zoltLogCloseFile(&two), 0u);
    EXPECT_EQ(textsIn(FILE7), (Texts{"one", "two", "three"}));
}

TEST_F(WriteFileHandles, ClosedHandleHasNoFile) {
    LogHandle one;
    LogHandle two;
    ASSERT_EQ(open(&one, settings()), 0u);
    ASSERT_EQ(open(&two, settings()), 0u);
    EXPECT_EQ(zoltLogCloseFile(&two), 0u);
    EXPECT_EQ(two.file, nullptr);
    EXPECT_EQ(two.nextOnFile, nullptr);
    EXPECT_EQ(zoltLogCloseFile(&two), ZOLTLOG_INVALID_ARGUMENT);
    EXPECT_EQ(send(&two, "nowhere"), 57u);
    EXPECT_EQ(zoltLogCloseFile(&one), 0u);
    EXPECT_EQ(one.file, nullptr);
    EXPECT_EQ(zoltLogCloseFile(nullptr), ZOLTLOG_INVALID_ARGUMENT);
}

TEST_F(WriteFileHandles, OriginatorsShareTheFileOfAnother) {
    LogHandle one;
    LogHandle two;
    ASSERT_EQ(open(&one, settings(7), settings(7)), 0u);
    ASSERT_EQ(open(&two, settings(8), settings(7)), 0u);
    EXPECT_EQ(one.file, two.file);
    EXPECT_EQ(two.originatorId, 8u);
    EXPECT_EQ(send(&two, "two"), 0u);
    EXPECT_EQ(support::lines(support::readFile(FILE7))[1].substr(0, 10), "2,5,8,7,1,");
    EXPECT_EQ(zoltLogCloseFile(&one), 0u);
    EXPECT_EQ(zoltLogCloseFile(&two), 0u);
}

TEST_F(WriteFileHandles, OnlyOneStateIsRemembered) {
    LogHandle seven;
    LogHandle nine;
    LogHandle again;
    ASSERT_EQ(open(&seven, settings(7)), 0u);
    ASSERT_EQ(open(&nine, settings(9)), 0u);
    ASSERT_EQ(open(&again, settings(9)), 0u);
    EXPECT_NE(nine.file, again.file);
    EXPECT_EQ(support::openDescriptors(), descriptors + 3);
    EXPECT_EQ(send(&nine, "one"), 0u);
    EXPECT_EQ(send(&again, "two"), 0u);
    EXPECT_EQ(textsIn("logs/5-9-83886090-240301-0000000000.log"), (Texts{"one", "two"}));
    EXPECT_EQ(zoltLogCloseFile(&seven), 0u);
    EXPECT_EQ(zoltLogCloseFile(&nine), 0u);
    EXPECT_EQ(zoltLogCloseFile(&again), 0u);
}

TEST_F(WriteFileHandles, SameOriginatorOfAnotherProductIsAnotherSeries) {
    LogHandle five;
    LogHandle six;
    LogCfg cfg = settings();
    cfg.productId = 6;
    ASSERT_EQ(open(&five, settings()), 0u);
    ASSERT_EQ(open(&six, cfg), 0u);
    EXPECT_NE(five.file, six.file);
    EXPECT_EQ(zoltLogCloseFile(&six), 0u);
    EXPECT_EQ(zoltLogCloseFile(&five), 0u);
}

TEST_F(WriteFileHandles, StateIsForgottenByIdentityNotByEqualIds) {
    LogHandle seven;
    LogHandle nine;
    LogHandle second;
    LogHandle third;
    ASSERT_EQ(open(&seven, settings(7)), 0u); // remembered
    ASSERT_EQ(open(&nine, settings(9)), 0u);  // not remembered
    ASSERT_EQ(zoltLogCloseFile(&seven), 0u);
    ASSERT_EQ(open(&second, settings(9)), 0u); // now remembered, with equal ids
    EXPECT_NE(nine.file, second.file);
    ASSERT_EQ(zoltLogCloseFile(&nine), 0u);
    ASSERT_EQ(open(&third, settings(9)), 0u);
    EXPECT_EQ(third.file, second.file);
    ASSERT_EQ(zoltLogCloseFile(&second), 0u);
    ASSERT_EQ(zoltLogCloseFile(&third), 0u);
}

TEST_F(WriteFileHandles, ReusedStateIsReconfigured) {
    LogHandle one;
    LogHandle two;
    ASSERT_EQ(open(&one, settings()), 0u);
    LogCfg cfg = settings();
    strcpy(cfg.directory, "./other/");
    cfg.maxFileSizeKB = 3;
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.rolloverTime = 99;
    cfg.rolloverPeriod = 98;
    cfg.permissions.mode = 0600;
    ASSERT_EQ(open(&two, cfg), 0u);
    const LogFileState *state = one.file;
    EXPECT_STREQ(state->directory, "./other/");
    EXPECT_EQ(state->maxFileSizeKB, 3u);
    EXPECT_EQ(state->rolloverMode, ZOLTLOG_ROLLOVER_FILE_SIZE);
    EXPECT_EQ(state->logRecycling, 0u);
    EXPECT_EQ(state->rolloverTime, 99u);
    EXPECT_EQ(state->rolloverPeriod, 98u);
    EXPECT_EQ(state->permissions.mode, 0660u) << "set with the first file only";
    ASSERT_EQ(send(&one, "here"), 0u);
    EXPECT_EQ(textsIn(FILE7), Texts{"here"});
    ASSERT_EQ(send(&one, std::string(4000, 'x')), 0u);
    EXPECT_EQ(support::listFiles("other"), Names{"5-7-83886090-240301-0000000001.log"});
    EXPECT_EQ(zoltLogCloseFile(&one), 0u);
    EXPECT_EQ(zoltLogCloseFile(&two), 0u);
}

TEST_F(WriteFileHandles, ChangedScheduleOfAReusedStateIsComputedAnew) {
    LogHandle handles[4];
    ASSERT_EQ(open(&handles[0], settings()), 0u);
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_PERIODIC;
    cfg.rolloverPeriod = 1000;
    ASSERT_EQ(open(&handles[1], cfg), 0u);
    const LogFileState *state = handles[0].file;
    EXPECT_EQ(state->nextRolloverTime, localTime(2024, 3, 1, 10) + 1000);
    cfg.rolloverPeriod = 2000;
    ASSERT_EQ(open(&handles[2], cfg), 0u);
    EXPECT_EQ(state->nextRolloverTime, localTime(2024, 3, 1, 10) + 2000);
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_LOCAL_TIME;
    cfg.rolloverTime = uint64_t{11} * 3600;
    ASSERT_EQ(open(&handles[3], cfg), 0u);
    EXPECT_EQ(state->nextRolloverTime, localTime(2024, 3, 1, 11));
    for (LogHandle &handle : handles)
        EXPECT_EQ(zoltLogCloseFile(&handle), 0u);
}

TEST_F(WriteFileHandles, EveryHandleNumbersItsMessages) {
    LogHandle one;
    LogHandle two;
    ASSERT_EQ(open(&one, settings()), 0u);
    ASSERT_EQ(send(&one, "one"), 0u);
    ASSERT_EQ(open(&two, settings()), 0u);
    EXPECT_EQ(one.sequenceNumber, 2u);
    EXPECT_EQ(two.sequenceNumber, 1u);
    EXPECT_EQ(zoltLogCloseFile(&two), 0u);
    EXPECT_EQ(zoltLogCloseFile(&one), 0u);
}

// ---- failed opens ----------------------------------------------------------------------------

TEST_F(WriteFileHandles, HandleWhoseOpenFailedRecoversWithTheFirstMessage) {
    LogHandle handle;
    hostNameFails = true;
    EXPECT_EQ(open(&handle, settings()), 1u);
    ASSERT_NE(handle.file, nullptr);
    EXPECT_EQ(send(&handle, "lost"), 5u);
    hostNameFails = false;
    EXPECT_EQ(send(&handle, "kept"), 0u);
    EXPECT_EQ(textsIn(FILE7), Texts{"kept"});
    EXPECT_EQ(zoltLogCloseFile(&handle), 0u);
}

TEST_F(WriteFileHandles, FailedOpenIsSharedAndTriedAgainByTheNext) {
    for (const bool firstClosesFirst : {true, false}) {
        LogHandle failed;
        LogHandle good;
        hostNameFails = true;
        EXPECT_EQ(open(&failed, settings()), 1u);
        hostNameFails = false;
        EXPECT_EQ(open(&good, settings()), 0u);
        EXPECT_EQ(failed.file, good.file);
        EXPECT_EQ(send(&failed, "one"), 0u);
        EXPECT_EQ(zoltLogCloseFile(firstClosesFirst ? &failed : &good), 0u);
        EXPECT_EQ(zoltLogCloseFile(firstClosesFirst ? &good : &failed), 0u);
    }
}

TEST_F(WriteFileHandles, HandleOnNoListClosesWith1AndFreesItsState) {
    LogHandle handle = {};
    handle.file = static_cast<LogFileState *>(calloc(1, sizeof(LogFileState)));
    handle.file->file.descriptor = -1;
    EXPECT_EQ(zoltLogCloseFile(&handle), ZOLTLOG_FAILED);
    EXPECT_EQ(handle.file, nullptr);
}

TEST_F(WriteFileHandles, HandleOnNoListOfAUsedStateLeavesItAlone) {
    LogHandle handle;
    ASSERT_EQ(open(&handle, settings()), 0u);
    LogHandle stranger = {};
    stranger.file = handle.file;
    EXPECT_EQ(zoltLogCloseFile(&stranger), ZOLTLOG_FAILED);
    EXPECT_EQ(send(&handle, "one"), 0u);
    EXPECT_EQ(zoltLogCloseFile(&handle), 0u);
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
        EXPECT_EQ(send(&handle, std::string(length, 'x')), 0u);
    EXPECT_EQ(logFiles().size(), 2u);
    EXPECT_EQ(zoltLogCloseFile(&handle), 1u) << "on no list";
}

TEST_F(WriteFileHandles, OpeningAnOpenHandleAgainListsItOnce) {
    LogHandle handle;
    LogCfg cfg = settings();
    ASSERT_EQ(open(&handle, cfg), 0u);
    ASSERT_EQ(zoltLogOpenFile(&handle, &cfg, &cfg), 0u);
    EXPECT_EQ(handle.file->handles, &handle);
    EXPECT_EQ(handle.nextOnFile, nullptr);
    ASSERT_EQ(open(&handle, cfg), 0u) << "a record that was not closed";
    EXPECT_EQ(handle.nextOnFile, nullptr);
    EXPECT_EQ(send(&handle, "one"), 0u);
    EXPECT_EQ(zoltLogCloseFile(&handle), 0u);
}

// ---- contexts ----------------------------------------------------------------------------------

TEST_F(WriteFileHandles, ContextTakesAfterItsParent) {
    LogHandle parent;
    LogCfg cfg = settings();
    cfg.debugLevel = 3;
    cfg.diagLevel = 4;
    cfg.outputFlags = ZOLTLOG_OUT_STDERR | ZOLTLOG_OUT_OSLOGX;
    cfg.reloadInterval = 61;
    ASSERT_EQ(open(&parent, cfg), 0u);
    parent.secureAuditLevel = 5;
    parent.utf8 = 1;
    parent.sequenceNumber = 77;
    strcpy(parent.oslog.ident, "ident");
    parent.localizers.count = 2;
    parent.cfgTimestamp = 11;
    parent.lastReloadCheck = 12;
    LogHandle context;
    memset(static_cast<void *>(&context), 0xA5, sizeof context);
    ASSERT_EQ(createContext(&parent, &context, "T1"), 0u);
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
    EXPECT_EQ(destroyContext(&context), 0u);
    EXPECT_EQ(zoltLogCloseFile(&parent), 0u);
}

TEST_F(WriteFileHandles, MessageThroughAContextCarriesItsToken) {
    LogHandle parent;
    LogHandle context;
    ASSERT_EQ(open(&parent, settings()), 0u);
    ASSERT_EQ(createContext(&parent, &context, "T1"), 0u);
    ASSERT_EQ(send(&context, "one"), 0u);
    const std::string record = support::lines(support::readFile(FILE7)).at(2);
    EXPECT_NE(record.find(",2:T1,3:one,3:mgr,3,(0|)"), std::string::npos) << record;
    EXPECT_EQ(destroyContext(&context), 0u);
    EXPECT_EQ(zoltLogCloseFile(&parent), 0u);
}

TEST_F(WriteFileHandles, ContextOutlivesItsParent) {
    LogHandle parent;
    LogHandle context;
    LogHandle nested;
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    cfg.maxFileSizeKB = 1;
    ASSERT_EQ(open(&parent, cfg), 0u);
    ASSERT_EQ(createContext(&parent, &context, "T1"), 0u);
    ASSERT_EQ(createContext(&context, &nested, "T2"), 0u);
    EXPECT_EQ(zoltLogCloseFile(&parent), 0u);
    ASSERT_EQ(send(&nested, std::string(1000, 'x')), 0u);
    EXPECT_EQ(support::lines(support::readFile("logs/5-7-83886090-240301-0000000001.log")).size(), 4u);
    EXPECT_EQ(destroyContext(&context), 0u);
    ASSERT_EQ(send(&nested, "two"), 0u);
    EXPECT_EQ(destroyContext(&nested), 0u);
}

TEST_F(WriteFileHandles, FailedContextStaysAPlainHandleOnTheParentsFile) {
    LogHandle parent;
    LogHandle context;
    LogHandle closed = {};
    ASSERT_EQ(open(&parent, settings()), 0u);
    EXPECT_EQ(createContext(&closed, &context, "T1"), 57u);
    EXPECT_EQ(context.file, nullptr);
    EXPECT_EQ(destroyContext(&context), 3u);
    for (const bool parentGoesFirst : {false, true}) {
        SCOPED_TRACE(parentGoesFirst);
        const int descriptor = parent.file->file.descriptor;
        parent.file->file.descriptor = 1000; // nothing is open there
        EXPECT_EQ(createContext(&parent, &context, "T1"), 5u);
        parent.file->file.descriptor = descriptor;
        EXPECT_EQ(context.noContext, 1u);
        EXPECT_EQ(context.file, parent.file);
        EXPECT_EQ(parent.file->handles, &parent);
        EXPECT_EQ(parent.nextOnFile, nullptr);
        EXPECT_EQ(send(&context, "one"), 0u);
        EXPECT_EQ(textOf(support::lines(support::readFile(FILE7)).back()), "one") << "without a token";
        if (parentGoesFirst) {
            EXPECT_EQ(zoltLogCloseFile(&parent), 0u);
            EXPECT_EQ(send(&context, "two"), 0u);
            EXPECT_EQ(textOf(support::lines(support::readFile(FILE7)).back()), "two");
        }
        EXPECT_EQ(destroyContext(&context), 1u);
        EXPECT_EQ(context.file, nullptr);
        EXPECT_EQ(destroyContext(&context), 3u);
        if (!parentGoesFirst) {
            EXPECT_EQ(send(&parent, "three"), 0u);
        }
    }
    EXPECT_EQ(support::openDescriptors(), descriptors);
}

TEST_F(WriteFileHandles, FailedContextsFileIsSharedByTheNextOpen) {
    LogHandle parent;
    LogHandle context;
    LogHandle next;
    ASSERT_EQ(open(&parent, settings()), 0u);
    const int descriptor = parent.file->file.descriptor;
    parent.file->file.descriptor = 1000;
    EXPECT_EQ(createContext(&parent, &context, "T1"), 5u);
    parent.file->file.descriptor = descriptor;
    EXPECT_EQ(zoltLogCloseFile(&parent), 0u);
    ASSERT_EQ(open(&next, settings()), 0u);
    EXPECT_EQ(next.file, context.file);
    EXPECT_EQ(zoltLogCloseFile(&next), 0u);
    EXPECT_EQ(send(&context, "one"), 0u);
    EXPECT_EQ(destroyContext(&context), 1u);
    EXPECT_EQ(support::openDescriptors(), descriptors);
}

// Neither making nor closing a context looks through the open ones.
TEST_F(WriteFileHandles, FortyThousandContextsComeAndGoInAnyOrder) {
    constexpr size_t CONTEXTS = 40000;
    LogCfg cfg = settings();
    cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
    LogHandle parent;
    ASSERT_EQ(open(&parent, cfg), 0u);
    std::vector<LogHandle> contexts(CONTEXTS);
    std::vector<size_t> order(CONTEXTS);
    for (size_t i = 0; i < CONTEXTS; ++i) {
        ASSERT_EQ(createContext(&parent, &contexts[i], std::to_string(i).c_str()), 0u);
        order[i] = i;
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(7)); // NOLINT(cert-msc51-cpp): the same each time
    for (size_t i = 0; i < CONTEXTS - 100; ++i)
        ASSERT_EQ(zoltLogDestroyContext(&contexts[order[i]]), 0u);
    order.erase(order.begin(), order.end() - 100);
    // Those that are left are in the next file, the last one first.
    parent.file->maxFileSizeKB = 1;
    EXPECT_EQ(send(&parent, "one"), 0u);
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
    EXPECT_EQ(zoltLogCloseFile(&parent), 0u);
    for (const size_t at : order)
        EXPECT_EQ(zoltLogDestroyContext(&contexts[at]), 0u);
    EXPECT_EQ(support::openDescriptors(), descriptors);
}

TEST_F(WriteFileHandles, NullArgumentsOfAContextAreInvalid) {
    LogHandle parent = {};
    LogHandle context = {};
    LogMsg msg = {};
    EXPECT_EQ(zoltLogCreateContextToFile(nullptr, &context, &msg), ZOLTLOG_INVALID_ARGUMENT);
    EXPECT_EQ(zoltLogCreateContextToFile(&parent, nullptr, &msg), ZOLTLOG_INVALID_ARGUMENT);
    EXPECT_EQ(zoltLogCreateContextToFile(&parent, &context, nullptr), ZOLTLOG_INVALID_ARGUMENT);
    EXPECT_EQ(zoltLogCreateContextToFile(&parent, &parent, &msg), ZOLTLOG_INVALID_ARGUMENT);
}

TEST_F(WriteFileHandles, ContextMessageOfTheCallersOwnRecordIsTakenOver) {
    LogHandle parent;
    LogHandle context = {};
    ASSERT_EQ(open(&parent, settings()), 0u);
    LogMsg msg;
    zoltLogInitMsg(&msg, &parent, ZOLTLOG_MSG_CONTEXT, "about");
    zoltLogSetContextAttr(&msg, "T1");
    ASSERT_EQ(zoltLogCreateContextToFile(&parent, &context, &msg), 0u);
    EXPECT_EQ(zoltLogFreeMsg(&msg), 0u) << "harmless: it was moved";
    ASSERT_EQ(send(&context, "one"), 0u);
    EXPECT_NE(support::readFile(FILE7).find(",2:T1,3:one,"), std::string::npos);
    EXPECT_EQ(destroyContext(&context), 0u);
    EXPECT_EQ(zoltLogCloseFile(&parent), 0u);
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
            EXPECT_EQ(send(&slot->handle, "message"), 0u);
        } else if (other->open && random() % 2 == 0) {
            EXPECT_EQ(createContext(&other->handle, &slot->handle, "T"), 0u);
            slot->open = slot->context = true;
        } else {
            LogCfg cfg = settings(7 + random() % 3);
            cfg.rolloverMode = ZOLTLOG_ROLLOVER_FILE_SIZE;
            cfg.maxFileSizeKB = 4;
            EXPECT_EQ(open(&slot->handle, cfg), 0u);
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
        ASSERT_EQ(open(&handle, settings()), 0u);
    EXPECT_EQ(support::openDescriptors(), descriptors + 1);
    EXPECT_EQ(send(&handles[4711], "one"), 0u);
    for (size_t at = 0; at < handles.size(); ++at)
        ASSERT_EQ(zoltLogCloseFile(&handles[(at * 7919) % handles.size()]), 0u);
}
