// SPDX-License-Identifier: Apache-2.0
// File names of any bytes: they must be split as strtok and strtol split them, and
// the latest file of a directory must be the one that scanf and mktime call so.
#include "fuzz/memory_files.h"
#include "fuzz/require.h"
#include "zoltlog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using fuzz::require;

std::vector<std::string> tokensOf(std::string name) {
    std::vector<std::string> tokens;
    char *rest = nullptr;
    for (char *token = strtok_r(name.data(), "-", &rest); token != nullptr;
         token = strtok_r(nullptr, "-", &rest))
        tokens.emplace_back(token);
    return tokens;
}

uint64_t numberOf(const std::string &token) {
    return static_cast<uint64_t>(strtol(token.c_str(), nullptr, 10));
}

void checkSplitting(const std::string &name) {
    const std::vector<std::string> tokens = tokensOf(name.c_str());
    uint64_t product = 0;
    uint64_t originator = 0;
    const uint64_t first = !tokens.empty() ? numberOf(tokens[0]) : 0;
    const uint64_t second = tokens.size() > 1 ? numberOf(tokens[1]) : 0;
    require(getidfromfilename(name.c_str(), &product, &originator) == (first != 0 && second != 0), "ids");
    require(product == first, "product id");
    require(originator == second, "originator id");

    char logSet[1025] = "";
    char dateTime[13] = "";
    product = 0;
    const std::string set = tokens.size() > 1 ? tokens[1].substr(0, 1024) : "";
    const std::string stamp = tokens.size() > 2 ? tokens[2].substr(0, 12) : "";
    require(getSLidfromfilename(name.c_str(), &product, logSet, dateTime) == (first != 0 && !set.empty()),
            "log set");
    require(product == first, "product id of a log set");
    require(set == logSet, "name of a log set");
    require(stamp == dateTime, "time of a log set");
}

} // namespace

// ---- the latest file of a directory that holds the name and one other

namespace {

const char RIVAL_REST[] = "140305-0000000005.log";
const char RIVAL_SET[] = "5-s-140305101500.log";

std::string path(const std::string &name) {
    return std::string(memory::DIRECTORY) + "/" + name;
}

void makeFile(const std::string &name) {
    memory::writeFile(path(name), nullptr, 0);
}

} // namespace

struct Judged {
    time_t time;
    unsigned long counter;
};

namespace {

// The name's date and counter as scanf and mktime have them; time -1 for none.
Judged judge(const char *name) {
    Judged result = {-1, 0};
    struct tm date = {};
    if (sscanf(name, "%*u-%*u-%*u-%2d%2d%2d-%10lu.", &date.tm_year, &date.tm_mon, &date.tm_mday,
               &result.counter) < 3)
        return result;
    date.tm_year += 100;
    date.tm_mon -= 1;
    result.time = mktime(&date);
    return result;
}

void checkLatest(const std::string &rest) {
    static const std::string prefix = "5-7-" + std::to_string(osGetHostID()) + "-";
    static bool ready;
    if (!ready) {
        setenv("TZ", "UTC0", 1);
        makeFile(prefix + RIVAL_REST);
        makeFile(RIVAL_SET);
        ready = true;
    }
    const std::string name = prefix + rest + ".log";
    const std::string nameOfSet = "5-s-" + rest + ".log";
    if (name.size() > 255 || name == prefix + RIVAL_REST || nameOfSet == RIVAL_SET)
        return;
    makeFile(name);
    makeFile(nameOfSet);

    LogFileEntry *entry = nullptr;
    require(zoltLogFindLatestLog(path("").c_str(), 5, 7, 0, 0, &entry) == 1, "a latest file");
    const Judged mine = judge(name.c_str());
    const Judged rival = judge((prefix + RIVAL_REST).c_str());
    if (mine.time > rival.time || (mine.time == rival.time && mine.counter > rival.counter))
        require(entry->name == name, "the name is later");
    else if (mine.time < rival.time || mine.counter < rival.counter)
        require(entry->name == prefix + RIVAL_REST, "the name is not later");
    zoltLogFree(entry);

    entry = nullptr;
    require(zoltLogFindLatestLogSL(path("").c_str(), 5, "s", 0, 0, &entry) == 1, "a latest file of the set");
    const std::vector<std::string> tokens = tokensOf(nameOfSet);
    const std::string stamp = tokens.size() > 2 ? tokens[2].substr(0, 12) : "";
    const int64_t time = stamp.empty() ? -1 : convert_time(stamp.c_str());
    const int64_t rivalTime = convert_time("140305101500");
    if (time != rivalTime)
        require(entry->name == (time > rivalTime ? nameOfSet : RIVAL_SET), "the later of the set");
    require(entry->creationTime == (time > rivalTime ? time : rivalTime), "its creation time");
    zoltLogFree(entry);
    unlink(path(name).c_str());
    unlink(path(nameOfSet).c_str());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string name(reinterpret_cast<const char *>(data), size);
    checkSplitting(name);
    if (size < 230 && name.find('/') == std::string::npos && name.find('\0') == std::string::npos)
        checkLatest(name);
    return 0;
}
