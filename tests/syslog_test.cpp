// SPDX-License-Identifier: Apache-2.0
// The calls of syslog(3) as libqdul-syslog.so makes them. Behind it stands the system log of
// plugins/system_log.h; settings are read once per process, so each case has one of its own.
#include "support/cases.h"
#include "support/log_records.h"
#include "support/support.h"
#include "support/syscalls.h"

#include "plugins/system_log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "zoltlog.h"

extern "C" {
void __syslog_chk(int priority, int flag, const char *format, ...);
void __vsyslog_chk(int priority, int flag, const char *format, va_list args);
}

namespace {

using Texts = std::vector<std::string>;

// Messages go to originator 112 of product 5, by these settings and names of originators.
void configure(const Texts &settings = {}, const char *product = "5", const char *originator = nullptr) {
    logs::configure(settings);
    setenv("QDUL_SYSLOG_PRODUCT", product, 1);
    if (originator != nullptr)
        setenv("QDUL_SYSLOG_ORIGINATOR", originator, 1);
}

Texts texts(const std::vector<logs::Record> &records) {
    Texts found;
    for (const logs::Record &record : records)
        found.push_back(record.whole ? record.text : "not whole");
    return found;
}

Texts recordTexts() {
    return texts(logs::records());
}

// The only record.
logs::Record theRecord() {
    const std::vector<logs::Record> records = logs::records();
    EXPECT_EQ(1u, records.size());
    return records.empty() ? logs::Record() : records[0];
}

Texts passedOn() {
    Texts found;
    for (const system_log::Message &message : system_log::log().messages)
        found.push_back(message.text);
    return found;
}

std::string lastOf(const std::string &text, char separator) {
    return text.substr(text.rfind(separator) + 1);
}

void vsyslogOf(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

void vsyslogChkOf(int priority, int flag, const char *format, ...) {
    va_list args;
    va_start(args, format);
    __vsyslog_chk(priority, flag, format, args);
    va_end(args);
}

// The clock that failed opens wait by.
std::atomic<time_t> aheadBy;
void letTimePass(time_t seconds) {
    aheadBy = seconds;
    libc::clock_gettime.hook = [](clockid_t clock, timespec *out) {
        const int result = libc::clock_gettime.real(clock, out);
        out->tv_sec += clock == CLOCK_MONOTONIC_COARSE ? aheadBy.load() : 0;
        return result;
    };
}

// ---- what a message becomes -------------------------------------------------------------

FRESH_TEST(Syslog, PrioritiesBecomeSeveritiesOfApplicationMessages) {
    configure();
    const struct {
        int priority;
        const char *rest;
    } rows[] = {{LOG_EMERG, "4,(0|)"},   {LOG_ALERT, "3,(0|)"},  {LOG_CRIT, "3,(0|)"}, {LOG_ERR, "2,(0|)"},
                {LOG_WARNING, "1,(0|)"}, {LOG_NOTICE, "0,(0|)"}, {LOG_INFO, "0,(0|)"}};
    for (const int facility : {0, LOG_USER, LOG_MAIL, LOG_DAEMON, LOG_CRON, LOG_LOCAL0, LOG_LOCAL7, LOG_FTP})
        for (const auto &row : rows)
            syslog(facility | row.priority, "%d", row.priority);
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(8 * std::size(rows), records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(ZOLTLOG_MSG_APP, static_cast<int>(records[i].type)) << i;
        EXPECT_EQ(rows[i % std::size(rows)].rest, records[i].rest) << i;
        EXPECT_EQ(112u, records[i].originatorId);
    }
    EXPECT_EQ(Texts{}, passedOn());
}

FRESH_TEST(Syslog, FacilitiesOfAuthorizationBecomeAuditMessages) {
    configure();
    openlog("guard", 0, LOG_DAEMON);
    const struct {
        int priority;
        const char *rest;
    } rows[] = {{LOG_EMERG, "4,(0|)"},   {LOG_ALERT, "3,(0|)"},  {LOG_CRIT, "3,(0|)"}, {LOG_ERR, "2,(0|)"},
                {LOG_WARNING, "1,(0|)"}, {LOG_NOTICE, "0,(0|)"}, {LOG_INFO, "0,(0|)"}};
    for (const int facility : {LOG_AUTH, LOG_AUTHPRIV})
        for (const auto &row : rows)
            syslog(facility | row.priority, "Grüße an %s", "alice, bob");
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(2 * std::size(rows), records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(ZOLTLOG_MSG_AUDIT, static_cast<int>(records[i].type)) << i;
        EXPECT_EQ(rows[i % std::size(rows)].rest, records[i].rest) << i;
        EXPECT_EQ("guard", records[i].who);
        EXPECT_EQ("Grüße an alice, bob", records[i].text);
    }
}

FRESH_TEST(Syslog, TheFacilityOfOpenlogCountsWhereAMessageHasNone) {
    configure();
    openlog("guard", 0, LOG_AUTH);
    syslog(LOG_INFO, "by default");
    syslog(LOG_USER | LOG_INFO, "its own");
    openlog("guard", 0, 12345); // is none: the one before stays
    syslog(LOG_INFO, "still");
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(3u, records.size());
    EXPECT_EQ(4u, records[0].type);
    EXPECT_EQ(2u, records[1].type);
    EXPECT_EQ(4u, records[2].type);
}

FRESH_TEST(Syslog, DebugMessagesAreDebugMessagesOfTheFirstLevel) {
    configure({"Default.DebugLevel=1"});
    for (const int facility : {LOG_USER, LOG_AUTH})
        syslog(facility | LOG_DEBUG, "words");
    const std::vector<logs::Record> records = logs::records();
    ASSERT_EQ(2u, records.size());
    for (const logs::Record &record : records) {
        EXPECT_EQ(ZOLTLOG_MSG_DEBUG, static_cast<int>(record.type));
        EXPECT_EQ("1", record.rest);
    }
}

FRESH_TEST(Syslog, DebugMessagesAreFilteredByTheDebugLevel) {
    configure(); // 0
    syslog(LOG_DEBUG, "dropped");
    syslog(LOG_INFO, "kept");
    EXPECT_EQ(Texts{"kept"}, recordTexts());
    EXPECT_EQ(Texts{}, passedOn());
}

FRESH_TEST(Syslog, UnknownBitsOfThePriorityAreDropped) {
    configure();
    syslog(LOG_ERR | 0x10000, "words");
    EXPECT_EQ("2,(0|)", theRecord().rest);
}

// ---- who ------------------------------------------------------------------------------

FRESH_TEST(Syslog, TheIdentIsWho) {
    configure();
    syslog(LOG_INFO, "before");
    openlog("first", LOG_PID, LOG_USER);
    syslog(LOG_INFO, "a");
    openlog("second", 0, LOG_USER);
    syslog(LOG_INFO, "b");
    openlog(nullptr, 0, LOG_USER); // keeps it
    syslog(LOG_INFO, "c");
    closelog();
    syslog(LOG_INFO, "after");
    Texts who;
    for (const logs::Record &record : logs::records()) {
        who.push_back(record.who);
        EXPECT_EQ(static_cast<uint64_t>(getpid()), record.processId);
        EXPECT_EQ(getTID(), record.threadId);
    }
    EXPECT_EQ(
        (Texts{program_invocation_short_name, "first", "second", "second", program_invocation_short_name}),
        who);
}

FRESH_TEST(Syslog, TheIdentIsReadWhenAMessageIsSent) {
    configure();
    char ident[] = "early";
    openlog(ident, 0, LOG_USER);
    memcpy(ident, "late!", sizeof ident);
    syslog(LOG_INFO, "words");
    EXPECT_EQ("late!", theRecord().who);
}

FRESH_TEST(Syslog, MessagesAreNumberedInTheOrderOfTheFile) {
    configure();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            for (int n = 0; n < 200; ++n)
                syslog(LOG_INFO, "%d", n);
        });
    for (std::thread &thread : threads)
        thread.join();
    uint64_t number = 0;
    for (const logs::Record &record : logs::records())
        ASSERT_EQ(++number, record.messageId);
    EXPECT_EQ(800u, number);
}

// ---- the text ---------------------------------------------------------------------------

FRESH_TEST(Syslog, EveryCallFormatsItsText) {
    configure();
    syslog(LOG_INFO, "%s %d", "one", 1);
    vsyslogOf(LOG_INFO, "%s %d", "two", 2);
    __syslog_chk(LOG_INFO, 1, "%s %d", "three", 3);
    vsyslogChkOf(LOG_INFO, 1, "%s %d", "four", 4);
    EXPECT_EQ((Texts{"one 1", "two 2", "three 3", "four 4"}), recordTexts());
}

FRESH_TEST(Syslog, PercentMIsTheCallersErrorWhichStays) {
    configure();
    for (int round = 0; round < 2; ++round) { // the first opens the series
        errno = ENOSPC;
        syslog(LOG_ERR, "write: %m");
        EXPECT_EQ(ENOSPC, errno);
    }
    errno = EACCES;
    __syslog_chk(LOG_ERR, 1, "%s: %m", std::string(3000, 'x').c_str());
    EXPECT_EQ(EACCES, errno);
    const std::string full = "write: No space left on device";
    EXPECT_EQ((Texts{full, full, std::string(3000, 'x') + ": Permission denied"}), recordTexts());
}

FRESH_TEST(Syslog, TextsOfAnyLengthAreWhole) {
    configure();
    Texts expected;
    for (const size_t length : {size_t{0}, size_t{1}, size_t{1022}, size_t{1023}, size_t{1024}, size_t{1025},
                                size_t{5000}, size_t{1000000}}) {
        expected.emplace_back(length, 'x');
        syslog(LOG_INFO, "%s", expected.back().c_str());
    }
    EXPECT_EQ(expected, recordTexts());
}

FRESH_TEST(Syslog, OneLineFeedAtTheEndIsDropped) {
    configure();
    for (const char *text : {"words\n", "words\n\n", "two\nlines\n", "\n"})
        syslog(LOG_INFO, "%s", text);
    EXPECT_EQ((Texts{"words", "words\r", "two\rlines", ""}), recordTexts());
}

FRESH_TEST(Syslog, TextsOfNoLocaleAreUtf8AndOtherBytesAreShown) {
    configure();
    openlog("wh\xf6", 0, LOG_USER);
    syslog(LOG_INFO, "Grüße \xff\xc3 \xed\xa0\x80.");
    const logs::Record record = theRecord();
    EXPECT_EQ("Grüße \\xff\\xc3 \\xed\\xa0\\x80.", record.text);
    EXPECT_EQ("wh\\xf6", record.who);
}

FRESH_TEST(Syslog, TextsOfALocaleAreInItsEncoding) {
    configure();
    ASSERT_TRUE(support::useLocale("de_DE.ISO-8859-1"));
    openlog("wh\xf6", 0, LOG_USER);
    syslog(LOG_INFO, "Gr\xfc\xdf"
                     "e");
    const logs::Record record = theRecord();
    EXPECT_EQ("Grüße", record.text);
    EXPECT_EQ("whö", record.who);
}

FRESH_TEST(Syslog, BytesThatAreNoCharacterOfTheLocaleAreShown) {
    configure();
    ASSERT_TRUE(support::useLocale("ja_JP.EUC-JP"));
    syslog(LOG_INFO, "\xc6\xfc\xcb\xdc \xff\xc6");
    EXPECT_EQ("日本 \\xff\\xc6", theRecord().text);
}

FRESH_TEST(Syslog, WhatCannotBeFormattedIsLeftToTheSystemLog) {
    configure();
    syslog(LOG_INFO, "%ls", L"\u00fc"); // no character of the C locale
    EXPECT_EQ(1u, system_log::log().messages.size());
    EXPECT_EQ(Texts{}, recordTexts());
}

// ---- options ---------------------------------------------------------------------------

FRESH_TEST(Syslog, LogPerrorTellsStandardErrorToo) {
    configure();
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ("prog: words\n", support::captured(2, [] {
                  openlog("prog", LOG_PERROR, LOG_USER);
                  syslog(LOG_INFO, "words");
              }));
    EXPECT_EQ("prog[" + pid + "]: words\n", support::captured(2, [] {
                  openlog("prog", LOG_PERROR | LOG_PID, LOG_USER);
                  syslog(LOG_INFO, "words\n");
              }));
    EXPECT_EQ("prog: dropped as a record\n", support::captured(2, [] {
                  openlog("prog", LOG_PERROR, LOG_USER);
                  syslog(LOG_DEBUG, "dropped as a record");
              }));
    EXPECT_EQ("", support::captured(2, [] {
                  openlog("prog", LOG_CONS, LOG_USER);
                  syslog(LOG_INFO, "words");
              }));
    EXPECT_EQ((Texts{"words", "words", "words"}), recordTexts());
    EXPECT_EQ(Texts{}, passedOn());
}

FRESH_TEST(Syslog, TheMaskDropsMessages) {
    configure();
    EXPECT_EQ(0xff, setlogmask(0));
    EXPECT_EQ(0xff, setlogmask(LOG_UPTO(LOG_ERR)));
    syslog(LOG_WARNING, "dropped");
    syslog(LOG_AUTH | LOG_WARNING, "dropped");
    syslog(LOG_ERR, "kept");
    EXPECT_EQ(LOG_UPTO(LOG_ERR), setlogmask(0));
    EXPECT_EQ(LOG_UPTO(LOG_ERR), setlogmask(LOG_MASK(LOG_WARNING)));
    syslog(LOG_WARNING, "kept too");
    syslog(LOG_ERR, "dropped");
    EXPECT_EQ((Texts{"kept", "kept too"}), recordTexts());
    EXPECT_EQ(Texts{}, passedOn());
}

FRESH_TEST(Syslog, TheMaskDropsWhatWouldGoToTheSystemLogToo) {
    configure({}, "99"); // is not registered
    setlogmask(LOG_UPTO(LOG_ERR));
    syslog(LOG_WARNING, "dropped");
    syslog(LOG_ERR, "passed on");
    EXPECT_EQ(Texts{"passed on"}, passedOn());
}

FRESH_TEST(Syslog, LogNdelayOpensAtOnce) {
    configure();
    openlog("prog", LOG_ODELAY, LOG_USER);
    EXPECT_FALSE(support::exists("log"));
    openlog("prog", LOG_NDELAY, LOG_USER);
    EXPECT_EQ(1u, support::listFiles("log").size());
}

FRESH_TEST(Syslog, CloselogClosesTheFileAndTheNextMessageOpensIt) {
    configure();
    syslog(LOG_INFO, "opens what stays open");
    closelog();
    const size_t before = support::openDescriptors();
    for (int round = 0; round < 3; ++round) {
        openlog("prog", LOG_NDELAY, LOG_USER);
        EXPECT_EQ(before + 1, support::openDescriptors());
        syslog(LOG_INFO, "words");
        closelog();
        EXPECT_EQ(before, support::openDescriptors());
        syslog(LOG_INFO, "more");
        EXPECT_EQ(before + 1, support::openDescriptors());
        closelog();
        closelog();
    }
    EXPECT_EQ(before, support::openDescriptors());
    EXPECT_EQ(7u, recordTexts().size());
    EXPECT_EQ(1u, logs::files().size());
}

// ---- where messages go -------------------------------------------------------------------

FRESH_TEST(Syslog, ProductAndOriginatorAreChosenByName) {
    configure({"7.OIDNames=web, mail", "8.OIDNames=db"}, "test", "mail");
    openlog("db", 0, LOG_USER); // the environment decides
    syslog(LOG_INFO, "words");
    EXPECT_EQ(5u, theRecord().productId);
    EXPECT_EQ(7u, theRecord().originatorId);
}

FRESH_TEST(Syslog, ProductAndOriginatorAreChosenById) {
    configure({}, "5", "9");
    syslog(LOG_INFO, "words");
    EXPECT_EQ(5u, theRecord().productId);
    EXPECT_EQ(9u, theRecord().originatorId);
}

FRESH_TEST(Syslog, WithoutAnOriginatorTheIdentChooses) {
    configure({"7.OIDNames=web, mail", "8.OIDNames=db"});
    for (const char *ident : {"db", "mail", "unheard", "7", "web"}) {
        openlog(ident, 0, LOG_USER);
        syslog(LOG_INFO, "%s", ident);
    }
    std::vector<std::pair<std::string, uint64_t>> found;
    for (const logs::Record &record : logs::records())
        found.emplace_back(record.text, record.originatorId);
    std::sort(found.begin(), found.end());
    EXPECT_EQ((std::vector<std::pair<std::string, uint64_t>>{
                  {"7", 112}, {"db", 8}, {"mail", 7}, {"unheard", 112}, {"web", 7}}),
              found);
    EXPECT_EQ(3u, logs::files().size());
}

FRESH_TEST(Syslog, TheProgramsNameChoosesBeforeOpenlog) {
    configure({std::string("7.OIDNames=") + program_invocation_short_name});
    syslog(LOG_INFO, "words");
    EXPECT_EQ(7u, theRecord().originatorId);
}

FRESH_TEST(Syslog, AThousandOriginatorsAreSearched) {
    Texts settings;
    for (int id = 1000; id < 2000; ++id)
        settings.push_back(std::to_string(id) + ".OIDNames=n" + std::to_string(id));
    configure(settings);
    openlog("n1999", 0, LOG_USER);
    syslog(LOG_INFO, "words");
    EXPECT_EQ(1999u, theRecord().originatorId);
}

// ---- the system log behind ---------------------------------------------------------------

FRESH_TEST(Syslog, WithoutAProductEveryCallIsTheSystemLogs) {
    logs::configure();
    unsetenv("QDUL_SYSLOG_PRODUCT");
    openlog("prog", LOG_PID | LOG_PERROR, LOG_MAIL);
    EXPECT_EQ(0xff, setlogmask(0x0f));
    EXPECT_EQ("", support::captured(2, [] { syslog(LOG_ERR, "a %d", 1); }));
    __syslog_chk(LOG_DEBUG, 1, "b %d", 2);
    closelog();
    EXPECT_EQ((Texts{"openlog prog 33 16", "setlogmask 15", "closelog"}), system_log::log().calls);
    ASSERT_EQ((Texts{"a 1", "b 2"}), passedOn());
    EXPECT_EQ(LOG_ERR, system_log::log().messages[0].priority);
    EXPECT_EQ(1, system_log::log().messages[1].flag);
    EXPECT_FALSE(support::exists("log"));
}

FRESH_TEST(Syslog, AnEmptyProductIsNone) {
    configure({}, "");
    syslog(LOG_ERR, "words");
    EXPECT_EQ(Texts{"words"}, passedOn());
}

FRESH_TEST(Syslog, WhatCannotBecomeARecordGoesToTheSystemLogAsItWouldHave) {
    configure({}, "99"); // is not registered
    openlog("prog", LOG_PID | LOG_PERROR, LOG_MAIL);
    errno = ENOENT;
    EXPECT_EQ("", support::captured(2, [] { // which tells standard error itself
                  syslog(LOG_ERR, "open %s: %m\n", "x");
              }));
    ASSERT_EQ(Texts{"open x: No such file or directory"}, passedOn());
    const system_log::Message &message = system_log::log().messages[0];
    EXPECT_EQ("prog", message.ident);
    EXPECT_EQ(LOG_PID | LOG_PERROR, message.option);
    EXPECT_EQ(LOG_MAIL, message.facility);
    EXPECT_EQ(LOG_ERR, message.priority);
}

FRESH_TEST(Syslog, AnUnknownNameGoesToTheSystemLog) {
    configure({"7.OIDNames=web"}, "5", "wob");
    syslog(LOG_ERR, "words");
    EXPECT_EQ(Texts{"words"}, passedOn());
    EXPECT_FALSE(support::exists("log"));
}

FRESH_TEST(Syslog, AProductThatIsRegisteredLaterIsFoundASecondLater) {
    configure();
    const std::string registered = support::readFile("zoltlog.conf");
    support::writeFile("zoltlog.conf", "");
    letTimePass(0);
    syslog(LOG_ERR, "one");
    support::writeFile("zoltlog.conf", registered);
    syslog(LOG_ERR, "two"); // not so soon
    letTimePass(2);
    syslog(LOG_ERR, "three");
    EXPECT_EQ((Texts{"one", "two"}), passedOn());
    EXPECT_EQ(Texts{"three"}, recordTexts());
}

FRESH_TEST(Syslog, AMessageThatCannotBeWrittenGoesToTheSystemLog) {
    configure();
    syslog(LOG_ERR, "one");
    static std::atomic<bool> full{true};
    libc::write.hook = [](int descriptor, const void *bytes, size_t size) -> ssize_t {
        if (!full)
            return libc::write.real(descriptor, bytes, size);
        errno = ENOSPC;
        return -1;
    };
    syslog(LOG_ERR, "two");
    full = false;
    syslog(LOG_ERR, "three");
    EXPECT_EQ((Texts{"one", "three"}), recordTexts());
    EXPECT_EQ(Texts{"two"}, passedOn());
}

FRESH_TEST(Syslog, ADirectoryThatCannotBeWrittenToIsTriedAgain) {
    const bool passed = support::asOrdinaryUser([] {
        configure();
        ASSERT_EQ(0, mkdir("log", 0500));
        letTimePass(0);
        syslog(LOG_ERR, "one");
        ASSERT_EQ(0, chmod("log", 0700));
        letTimePass(2);
        syslog(LOG_ERR, "two");
        EXPECT_EQ(Texts{"one"}, passedOn());
        EXPECT_EQ(Texts{"two"}, recordTexts());
    });
    EXPECT_TRUE(passed);
}

// ---- libqdul's own copies -----------------------------------------------------------------

FRESH_TEST(Syslog, CopiesOfRecordsGoToTheSystemLogOnceUnderTheirIdent) {
    configure({"Default.LogToOslog=true", "Default.SyslogIdent=qdul", "Default.SyslogFacility=LOG_LOCAL3"});
    openlog("prog", LOG_PID, LOG_MAIL);
    for (int round = 0; round < 3; ++round)
        syslog(LOG_CRIT, "words %d", round);
    EXPECT_EQ((Texts{"words 0", "words 1", "words 2"}), recordTexts());
    ASSERT_EQ(3u, system_log::log().messages.size());
    for (const system_log::Message &message : system_log::log().messages) {
        EXPECT_EQ("qdul", message.ident);
        EXPECT_EQ(LOG_LOCAL3, message.facility);
        EXPECT_EQ(LOG_CRIT, message.priority);
        EXPECT_NE(std::string::npos, message.text.find("words")) << message.text;
    }
}

FRESH_TEST(Syslog, PassedOnMessagesAndCopiesKeepTheirIdents) {
    configure({"Default.LogToOslog=true", "Default.SyslogIdent=qdul"});
    openlog("prog", 0, LOG_MAIL);
    static std::atomic<bool> full{false};
    libc::write.hook = [](int descriptor, const void *bytes, size_t size) -> ssize_t {
        if (!full)
            return libc::write.real(descriptor, bytes, size);
        errno = ENOSPC;
        return -1;
    };
    syslog(LOG_CRIT, "copied");
    full = true;
    syslog(LOG_CRIT, "passed on"); // and copied
    full = false;
    syslog(LOG_CRIT, "copied");
    Texts idents;
    for (const system_log::Message &message : system_log::log().messages)
        idents.push_back(message.ident);
    EXPECT_EQ((Texts{"qdul", "qdul", "prog", "qdul"}), idents);
}

FRESH_TEST(Syslog, CopiesKeepTheirIdentWhenTheSeriesIsAnother) {
    configure({"Default.LogToOslog=true", "Default.SyslogIdent=qdul", "7.OIDNames=web"});
    syslog(LOG_CRIT, "copied");
    openlog("web", 0, LOG_MAIL); // another series, without closelog
    syslog(LOG_CRIT, "copied");
    syslog(LOG_CRIT, "copied");
    closelog();
    syslog(LOG_CRIT, "copied");
    ASSERT_EQ(4u, system_log::log().messages.size());
    for (const system_log::Message &message : system_log::log().messages)
        EXPECT_EQ("qdul", message.ident);
}

FRESH_TEST(Syslog, TheProgramsOwnRecordsAreCopiedAndNotLoggedAgain) {
    configure({"7.LogToOslog=true", "7.SyslogIdent=own"});
    syslog(LOG_INFO, "by syslog");
    LogHandle handle = {};
    ASSERT_EQ(0u, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle));
    EXPECT_EQ(0u, zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_ERROR, 0, "by libqdul"));
    closelog();
    EXPECT_EQ(0u, zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_ERROR, 0, "again"));
    EXPECT_EQ(0u, zoltLogClose(&handle));
    EXPECT_EQ(3u, logs::records().size());
    ASSERT_EQ(2u, system_log::log().messages.size());
    for (const system_log::Message &message : system_log::log().messages)
        EXPECT_EQ("own", message.ident);
}

FRESH_TEST(Syslog, ACallThatTheLibraryMakesBeforeTheProgramIsTheLibrarys) {
    configure({"7.LogToOslog=true", "7.SyslogIdent=own"});
    LogHandle handle = {};
    ASSERT_EQ(0u, zoltLogOpen(logs::PRODUCT, logs::ORIGINATOR, &handle));
    EXPECT_EQ(0u, zoltLogAppMsg(&handle, 0, ZOLTLOG_SEVERITY_ERROR, 0, "by libqdul"));
    syslog(LOG_INFO, "by syslog");
    EXPECT_EQ(0u, zoltLogClose(&handle));
    EXPECT_EQ(1u, system_log::log().messages.size());
    EXPECT_EQ(2u, logs::records().size());
    for (const logs::Record &record : logs::records())
        EXPECT_EQ(record.text == "by syslog" ? program_invocation_short_name : "", record.who);
}

FRESH_TEST(Syslog, WhatIsToldWhileTheLibraryWorksGoesToTheSystemLog) {
    configure();
    libc::write.hook = [](int descriptor, const void *bytes, size_t size) { // a host's, which logs
        syslog(LOG_ERR, "%s", "writing");
        return libc::write.real(descriptor, bytes, size);
    };
    syslog(LOG_INFO, "one");
    syslog(LOG_INFO, "two");
    EXPECT_EQ((Texts{"one", "two"}), recordTexts());
    EXPECT_EQ((Texts{"writing", "writing", "writing"}), passedOn()); // the header, and two records
}

// ---- descriptors ----------------------------------------------------------------------------

void closeAll() {
    for (int descriptor = 3; descriptor < 100; ++descriptor)
        close(descriptor);
}

FRESH_TEST(Syslog, AProgramThatClosesAllDescriptorsGoesOnInTheFile) {
    configure();
    syslog(LOG_INFO, "one");
    closeAll();
    syslog(LOG_INFO, "two");
    syslog(LOG_INFO, "three");
    EXPECT_EQ((Texts{"one", "two", "three"}), recordTexts());
    EXPECT_EQ(1u, logs::files().size());
    EXPECT_EQ(Texts{}, passedOn());
}

FRESH_TEST(Syslog, NoRecordGoesIntoAFileThatHasGotTheDescriptor) {
    configure({"Default.RolloverMode=FileSize", "Default.MaxLogFileSizeKB=1"});
    for (int round = 0; round < 30; ++round) { // with rollovers in between
        syslog(LOG_INFO, "%d %s", round, std::string(100, 'x').c_str());
        closeAll();
        std::vector<int> own;
        for (int i = 0; i < 6; ++i)
            own.push_back(open("own", O_WRONLY | O_CREAT | O_APPEND, 0600));
        syslog(LOG_INFO, "more");
        for (const int descriptor : own) // nor was one of them closed
            EXPECT_EQ(0, close(descriptor));
    }
    EXPECT_EQ("", support::readFile("own"));
    EXPECT_EQ(60u, recordTexts().size());
    EXPECT_LT(3u, logs::files().size());
    EXPECT_EQ(Texts{}, passedOn());
}

// ---- threads and processes -------------------------------------------------------------------

FRESH_TEST(Syslog, ThreadsLoseNothingWhileOthersOpenAndClose) {
    constexpr int THREADS = 4;
    constexpr int MESSAGES = 300;
    configure({"7.OIDNames=web", "Default.LogToOslog=true"});
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back([i] {
            for (int n = 0; n < MESSAGES; ++n)
                syslog(LOG_INFO, "t%d %d", i, n);
        });
    std::thread other([&] {
        static const char *const IDENTS[] = {"web", "mail"};
        for (int n = 0; !done; ++n) {
            openlog(IDENTS[n % 2], n % 3 == 0 ? LOG_NDELAY : 0, LOG_USER);
            if (n % 4 == 0)
                closelog();
            setlogmask(0xff);
        }
    });
    for (std::thread &thread : threads)
        thread.join();
    done = true;
    other.join();
    // Whoever meets openlog again and again is helped by the system log.
    Texts found = recordTexts();
    for (const std::string &text : passedOn())
        if (text.compare(0, 1, "t") == 0)
            found.push_back(text);
    std::sort(found.begin(), found.end());
    for (int i = 0; i < THREADS; ++i)
        for (int n = 0; n < MESSAGES; ++n)
            EXPECT_TRUE(std::binary_search(found.begin(), found.end(),
                                           "t" + std::to_string(i) + " " + std::to_string(n)));
}

FRESH_TEST(Syslog, ThreadsThatBeginTogetherOpenOneSeries) {
    configure();
    constexpr int THREADS = 16;
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back([&] {
            ++ready;
            while (ready < THREADS)
                std::this_thread::yield();
            syslog(LOG_INFO, "words");
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(static_cast<size_t>(THREADS), recordTexts().size());
    EXPECT_EQ(1u, logs::files().size());
    syslog(LOG_INFO, "last");
    const size_t open = support::openDescriptors();
    closelog();
    EXPECT_EQ(open - 1, support::openDescriptors());
}

constexpr unsigned SECONDS = 20; // after which a process that hangs is killed
constexpr int CHILDREN = 30;

// Each record begins with its writer's process.
void expectTheWritersNumbers() {
    for (const logs::Record &record : logs::records()) {
        ASSERT_TRUE(record.whole);
        ASSERT_EQ(strtoull(record.text.c_str(), nullptr, 10), record.processId) << record.text;
    }
}

void sayPid(const char *who) {
    syslog(LOG_INFO, "%d %s", static_cast<int>(getpid()), who);
}

size_t logDescriptors() {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the directory's own
        count += std::filesystem::read_symlink(entry, gone).extension() == ".log";
    }
    return count;
}

template<typename MakeProcess>
void childrenLog(MakeProcess make) {
    configure();
    openlog("prog", LOG_PID, LOG_USER);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    sayPid("first");
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] {
            while (!done) {
                sayPid("thread");
                usleep(50);
            }
        });
    for (int i = 0; i < CHILDREN; ++i) {
        const pid_t child = make();
        if (child == 0) {
            alarm(SECONDS);
            sayPid("child");
            openlog("child", LOG_NDELAY, LOG_USER);
            sayPid("child");
            closelog();
            sayPid("child");
            closelog();
            _exit(system_log::log().messages.empty() && logDescriptors() == 0 ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status) << "child " << i;
        sayPid("parent");
    }
    done = true;
    for (std::thread &thread : threads)
        thread.join();
    expectTheWritersNumbers();
    size_t fromChildren = 0;
    for (const std::string &text : recordTexts())
        fromChildren += lastOf(text, ' ') == "child";
    EXPECT_EQ(3u * CHILDREN, fromChildren);
}

FRESH_TEST(Syslog, ChildrenOfForkLogUnderTheirOwnNumber) {
    childrenLog([] { return fork(); });
}

#ifndef __SANITIZE_THREAD__ // whose runtime has to know of each new process
FRESH_TEST(Syslog, ChildrenThatRunNoHandlersLogUnderTheirOwnNumber) {
    childrenLog([] { return _Fork(); });
}

FRESH_TEST(Syslog, ChildrenOfCloneLogUnderTheirOwnNumber) {
    childrenLog([] { return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0)); });
}

// It shares its parent's memory and not its descriptors: what it would open there misleads
// the parent.
FRESH_TEST(Syslog, BetweenVforkAndExecTheSystemLogIsTold) {
    configure();
    for (int round = 0; round < 2; ++round) { // the first time nothing is open yet
        const pid_t child = vfork();
        if (child == 0) {
            syslog(LOG_ERR, "cannot execute");
            _exit(7);
        }
        int status = -1;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(7, WEXITSTATUS(status));
        sayPid("parent");
    }
    EXPECT_EQ((Texts{"cannot execute", "cannot execute"}), passedOn());
    EXPECT_EQ(2u, recordTexts().size());
    expectTheWritersNumbers();
}
#endif

FRESH_TEST(Syslog, AChildOfAChildLogsUnderItsOwnNumber) {
    configure();
    sayPid("first");
    EXPECT_EQ(0, support::inChild([] {
                  sayPid("child");
                  return support::inChild([] {
                      sayPid("grandchild");
                      return 0;
                  });
              }));
    expectTheWritersNumbers();
    EXPECT_EQ(3u, recordTexts().size());
}

FRESH_TEST(Syslog, SmallStacksSuffice) {
    configure();
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, 64 * 1024));
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(
                     &thread, &attributes,
                     [](void *) -> void * {
                         syslog(LOG_INFO, "one");
                         syslog(LOG_AUTH | LOG_INFO, "%s", std::string(5000, 'x').c_str());
                         return nullptr;
                     },
                     nullptr));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_EQ(2u, recordTexts().size());
}

} // namespace
