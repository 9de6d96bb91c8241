// SPDX-License-Identifier: Apache-2.0
#include "model/model.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <tuple>
#include <utility>

namespace model {

namespace {

// Result codes, as the interface numbers them
constexpr uint32_t DONE = 0;
constexpr uint32_t FAILED = 1;
constexpr uint32_t INVALID_ARGUMENT = 3;
constexpr uint32_t WRITE_FAILED = 5;
constexpr uint32_t NOT_CONFIGURED = 6;
constexpr uint32_t OPEN_FAILED = 32;
constexpr uint32_t NO_DIRECTORY = 53;
constexpr uint32_t DEVICE_FULL = 54;
constexpr uint32_t SECURE_ON_FILE = 58;

constexpr unsigned BY_SIZE = 1;
constexpr unsigned BY_LOCAL_TIME = 2;
constexpr unsigned BY_PERIOD = 4;

constexpr uint64_t ORIGINATOR_VERSION = 65543;
constexpr uint64_t LOGSET_VERSION = 65544;
constexpr uint64_t OLDEST_VERSION = 65540;

constexpr int64_t DAY = 86400;

// ---- time ------------------------------------------------------------------------------

tm localOf(int64_t seconds) {
    const time_t at = seconds;
    tm local = {};
    localtime_r(&at, &local);
    return local;
}

Date dateOf(int64_t seconds) {
    const tm local = localOf(seconds);
    return {local.tm_year - 100, local.tm_mon + 1, local.tm_mday};
}

// What is added to local time to get UTC: the broken-down UTC read as local time.
int64_t zoneOffset(int64_t now) {
    const time_t at = now;
    tm utc = {};
    gmtime_r(&at, &utc);
    utc.tm_isdst = -1;
    return mktime(&utc) - now;
}

// The twelve digits of a log set's name; standard time, or what the wall clock showed.
int64_t timeOfDigits(const std::string &digits, bool standard) {
    tm local = {};
    int year = 0;
    if (sscanf(digits.c_str(), "%2d%2d%2d%2d%2d%2d", &year, &local.tm_mon, &local.tm_mday, &local.tm_hour,
               &local.tm_min, &local.tm_sec) != 6)
        return -1;
    local.tm_year = year + 100;
    --local.tm_mon;
    local.tm_isdst = standard ? 0 : -1;
    return mktime(&local);
}

int dayNumber(const Date &date) {
    return (date.year * 100 + date.month) * 100 + date.day;
}

// ---- names -----------------------------------------------------------------------------

std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string text(const char *format, ...) {
    char buffer[512];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return std::string(buffer, static_cast<size_t>(length));
}

std::vector<std::string> split(const std::string &name) {
    std::vector<std::string> parts;
    std::string part;
    for (const char character : name + "-") {
        if (character != '-')
            part += character;
        else if (!part.empty())
            parts.push_back(std::exchange(part, ""));
    }
    return parts;
}

bool isListed(const std::string &name) {
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0 &&
           name.find('-') != std::string::npos;
}

// The names in a directory that a listing shows, in order.
std::vector<std::string> listing(const World &world, const std::string &directory) {
    std::vector<std::string> names;
    for (auto at = world.files.lower_bound(directory);
         at != world.files.end() && at->first.compare(0, directory.size(), directory) == 0; ++at) {
        const std::string name = at->first.substr(directory.size());
        if (name.find('/') == std::string::npos && isListed(name))
            names.push_back(name);
    }
    return names;
}

// Date and counter in the name of an originator's file.
void dateAndCounter(const std::string &name, Date *date, uint64_t *counter, size_t digits = 20) {
    const std::vector<std::string> parts = split(name);
    if (parts.size() < 5)
        return;
    sscanf(parts[3].c_str(), "%2d%2d%2d", &date->year, &date->month, &date->day);
    *counter = strtoull(parts[4].substr(0, digits).c_str(), nullptr, 10);
}

std::string digitsOf(const std::string &name) {
    const std::vector<std::string> parts = split(name);
    return parts.size() < 3 ? "" : parts[2].substr(0, 12);
}

// ---- headers ---------------------------------------------------------------------------

struct Header {
    bool good = false; // known and readable
    uint64_t version = 0;
    int64_t created = 0;
};

Header headerOf(const Node &node) {
    Header header;
    const size_t end = node.bytes.find('\n');
    if (node.kind != NodeKind::File || end == std::string::npos)
        return header;
    const std::string line = node.bytes.substr(0, end);
    char word[21] = "";
    unsigned long version = 0;
    if (sscanf(line.c_str(), "%20s %lu", word, &version) < 1 || strcmp(word, "$Header") != 0)
        return header;
    header.version = version;
    header.good = version >= OLDEST_VERSION && version <= LOGSET_VERSION;
    unsigned long created = 0;
    if (version >= OLDEST_VERSION && version <= ORIGINATOR_VERSION)
        sscanf(line.c_str(), "%*s %*u,%*u,%*u,%lu", &created);
    header.created = static_cast<int64_t>(created);
    return header;
}

// ---- configuration ---------------------------------------------------------------------

bool numberIn(const std::string &value, uint64_t *number) {
    char *end = nullptr;
    *number = strtoul(value.c_str(), &end, 10);
    return end != value.c_str();
}

void applyKeys(const World &world, const Keys &keys, bool isDefault, Settings *settings) {
    for (const auto &[key, value] : keys) {
        uint64_t number = 0;
        const bool isNumber = numberIn(value, &number);
        if (key == "LogDirectory") {
            std::string directory = value;
            if (value[0] == '/')
                directory = value.substr(world.home.size()); // all lie below it
            else if (!isDefault)
                directory = settings->directory + value;
            settings->isRelative = value[0] != '/' && directory == value;
            settings->directory = directory.back() == '/' ? directory : directory + "/";
        } else if (key == "DebugLevel" && isNumber && number <= 6) {
            settings->debugLevel = static_cast<uint32_t>(number);
        } else if (key == "DiagnosticLevel" && isNumber && number <= 6) {
            settings->diagLevel = static_cast<uint32_t>(number);
        } else if (key == "DynaReloadInSec" && isNumber && number < 1u << 31) {
            settings->reloadInterval = static_cast<uint32_t>(number);
        } else if (key == "RolloverMode") {
            unsigned mode = 0;
            for (const auto &[word, bit] : {std::pair<const char *, unsigned>{"FileSize", BY_SIZE},
                                            {"LocalTime", BY_LOCAL_TIME},
                                            {"Periodic", BY_PERIOD}})
                if (value.find(word) != std::string::npos)
                    mode |= bit;
            if (mode <= 5)
                settings->rolloverMode = mode;
        } else if (key == "LogRecycle") {
            settings->recycle = value == "true";
        } else if (key == "MaxLogFileSizeKB" && isNumber && number != 0) {
            settings->maxKB = number;
        } else if (key == "RolloverAtLocalTime") {
            int hours = 0;
            int minutes = 0;
            if (sscanf(value.c_str(), "%d:%d", &hours, &minutes) == 2 && hours >= 0 && hours < 24 &&
                minutes >= 0 && minutes < 60)
                settings->timeOfDay = static_cast<uint64_t>(hours * 3600 + minutes * 60);
        } else if (key == "RolloverPeriodInSeconds" && isNumber && number != 0) {
            settings->period = number;
        } else if (key == "NumberOfLogFiles" && isNumber && number != 0) {
            settings->keep = number;
        } else if (key == "LogFilePermissions") {
            settings->permissions = static_cast<unsigned>(strtoul(value.c_str(), nullptr, 8));
        } else if (key == "FileName" && settings->isLogset) {
            settings->fileName = value;
        }
    }
}

constexpr uint64_t PRODUCT = 5; // the one that is registered

} // namespace

std::optional<Settings> Model::originatorSettings(uint64_t product, uint64_t originator) const {
    if (product != PRODUCT || !world.configuration.registered)
        return std::nullopt;
    Settings settings;
    const auto &sections = world.configuration.sections;
    if (const auto at = sections.find("Default"); at != sections.end())
        applyKeys(world, at->second, true, &settings);
    if (originator != 112)
        if (const auto at = sections.find(std::to_string(originator)); at != sections.end())
            applyKeys(world, at->second, false, &settings);
    return settings;
}

std::optional<Settings> Model::logsetSettings(uint64_t product, const std::string &set) const {
    if (product != PRODUCT || !world.configuration.registered)
        return std::nullopt;
    Settings settings;
    settings.isLogset = true;
    settings.setName = set;
    settings.fileName = set;
    const auto &sections = world.configuration.sections;
    const auto standard = sections.find("LOGSET.Default");
    if (standard == sections.end() || standard->second.empty())
        return std::nullopt;
    applyKeys(world, standard->second, true, &settings);
    if (set == "Default")
        return settings;
    const auto own = sections.find("LOGSET." + set);
    if (own == sections.end() || own->second.empty())
        return std::nullopt;
    applyKeys(world, own->second, false, &settings);
    // Read again at the end of the section: without a name of its own, the set's.
    const bool named = std::any_of(own->second.begin(), own->second.end(),
                                   [](const auto &key) { return key.first == "FileName"; });
    if (!named)
        settings.fileName = set;
    return settings;
}

// ---- opening and closing handles ---------------------------------------------------------

uint32_t Model::open(size_t slot, uint64_t product, uint64_t originator, uint64_t fileOriginator) {
    if (product == 0 || originator == 0 || fileOriginator == 0)
        return INVALID_ARGUMENT;
    Handle *handle = &handles[slot];
    *handle = {};
    const std::optional<Settings> own = originatorSettings(product, originator);
    const std::optional<Settings> file = originatorSettings(product, fileOriginator);
    if (!own || !file)
        return NOT_CONFIGURED;
    return openFile(handle, *own, *file, product, originator, fileOriginator);
}

uint32_t Model::openLogset(size_t slot, uint64_t product, uint64_t originator, const std::string &set) {
    if (product == 0 || originator == 0)
        return INVALID_ARGUMENT;
    Handle *handle = &handles[slot];
    *handle = {};
    const std::optional<Settings> settings = logsetSettings(product, set);
    if (!settings)
        return NOT_CONFIGURED;
    return openFile(handle, *settings, *settings, product, originator, 0);
}

uint32_t Model::openFile(Handle *handle, const Settings &own, const Settings &file, uint64_t product,
                         uint64_t originator, uint64_t fileOriginator) {
    handle->series = std::make_shared<Series>();
    handle->originator = originator;
    if (file.directory.empty()) {
        handle->tokenless = true; // the record is still all zeros, which says context
        return NO_DIRECTORY;
    }
    const bool isOpen = remembered != nullptr && remembered->product == product &&
                        remembered->originator == fileOriginator && remembered->opened;
    if (!file.isLogset && !isOpen)
        lookUpHost();
    (void)compareClocks();
    Series *series = handle->series.get();
    series->product = product;
    series->originator = fileOriginator;
    if (!file.isLogset) {
        if (remembered == nullptr) {
            remembered = handle->series;
        } else if (remembered->product == product && remembered->originator == fileOriginator) {
            handle->series = remembered;
            series = remembered.get();
        }
    }
    const bool rescheduled = series->settings.rolloverMode != file.rolloverMode ||
                             series->settings.period != file.period ||
                             series->settings.timeOfDay != file.timeOfDay;
    const unsigned permissions = series->settings.permissions;
    series->settings = file;
    if (!series->opened) {
        series->counter = 0; // without a date it is not looked at
        series->date = {};
    } else {
        series->settings.permissions = permissions;
        if (rescheduled)
            setNextRollover(series);
    }
    handle->debugLevel = own.debugLevel;
    handle->diagLevel = own.diagLevel;
    handle->reloadInterval = own.reloadInterval;
    handle->sequence = mutation == Mutation::SequenceFromZero ? 0 : 1;
    handle->configurationTime = seconds();
    handle->lastReloadCheck = seconds();
    series->handles.insert(series->handles.begin(), handle);
    if (file.isLogset) {
        series->setName = own.setName;
        series->fileName = own.fileName;
    }
    if (series->opened)
        return DONE;
    const uint32_t result = openLatest(series);
    series->contextsNoted = true;
    series->contextsDate = series->date;
    series->contextsCounter = series->counter;
    series->contextsStart = series->start;
    return result;
}

// A handle leaves its series; 1 when it was not in its list.
uint32_t Model::leave(Handle *handle) {
    const SeriesPtr series = handle->series;
    auto &list = series->handles;
    const auto at = std::find(list.begin(), list.end(), handle);
    const bool found = at != list.end();
    if (found)
        list.erase(at);
    else if (handle->unlisted)
        --series->unlisted;
    handle->series = nullptr;
    if (list.empty() && series->unlisted == 0) {
        closeFile(series.get());
        if (remembered == series)
            remembered = nullptr;
    }
    return found ? DONE : FAILED;
}

uint32_t Model::close(size_t slot) {
    if (handles[slot].series == nullptr)
        return INVALID_ARGUMENT;
    return leave(&handles[slot]);
}

// ---- contexts ----------------------------------------------------------------------------

uint32_t Model::createContext(size_t parentSlot, size_t slot, const std::optional<std::string> &token,
                              const std::optional<std::string> &message, const Block &block) {
    Handle *parent = &handles[parentSlot];
    std::optional<Message> begun = begin(parent, 3);
    if (!begun || !token)
        return INVALID_ARGUMENT;
    Message record = *begun;
    record.who = *token;
    record.text = message;
    record.block = block;
    record.utf8 = parent->utf8;
    Handle *context = &handles[slot];
    *context = *parent;
    context->isContext = false;
    context->unlisted = false;
    context->sequence = 1;
    context->context = record;
    const uint32_t result = write(context->series.get(), record, true);
    if (result != DONE) { // a plain handle on the file of its parent
        context->unlisted = true;
        ++context->series->unlisted;
        return result;
    }
    context->isContext = true;
    context->series->handles.insert(context->series->handles.begin(), context);
    return DONE;
}

uint32_t Model::destroyContext(size_t slot) {
    if (handles[slot].series == nullptr)
        return INVALID_ARGUMENT;
    handles[slot].isContext = false;
    return leave(&handles[slot]);
}

// ---- messages ----------------------------------------------------------------------------

void Model::reload(Handle *handle) {
    if (handle->reloadInterval == 0)
        return;
    const int64_t interval = std::max<int64_t>(60, handle->reloadInterval);
    if (seconds() - handle->lastReloadCheck <= interval)
        return;
    handle->lastReloadCheck = seconds();
    if (world.configuration.changed == handle->configurationTime)
        return;
    const Series &series = *handle->series;
    const std::optional<Settings> settings = series.settings.isLogset
                                                 ? logsetSettings(series.product, series.setName)
                                                 : originatorSettings(series.product, handle->originator);
    if (!settings)
        return;
    handle->configurationTime = world.configuration.changed;
    handle->debugLevel = settings->debugLevel;
    handle->diagLevel = settings->diagLevel;
    handle->reloadInterval = settings->reloadInterval;
}

std::optional<Message> Model::begin(Handle *handle, unsigned type) {
    Message message;
    message.type = type;
    message.originator = handle->originator;
    message.id = handle->sequence++;
    if (handle->tokenless)
        return std::nullopt;
    message.timestampMs = world.clock.wallMs;
    if (handle->isContext)
        message.token = handle->context.who;
    return message;
}

uint32_t Model::dispatch(Handle *handle, Message *message) {
    if (message->type == 5)
        return SECURE_ON_FILE;
    message->utf8 = handle->utf8;
    message->block = {}; // from here on the text is all
    return write(handle->series.get(), *message, true);
}

// ---- encoding ----------------------------------------------------------------------------

namespace {

// One character of valid UTF-8 at the position, 0 when there is none.
size_t characterLength(const std::string &bytes, size_t at) {
    const auto byte = [&](size_t i) { return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U; };
    const unsigned first = byte(at);
    const size_t length = first < 0x80   ? 1
                          : first < 0xc2 ? 0
                          : first < 0xe0 ? 2
                          : first < 0xf0 ? 3
                          : first < 0xf5 ? 4
                                         : 0;
    for (size_t i = 1; i < length; ++i)
        if ((byte(at + i) & 0xc0) != 0x80)
            return 0;
    const unsigned second = byte(at + 1);
    if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second >= 0xa0) ||
        (first == 0xf0 && second < 0x90) || (first == 0xf4 && second >= 0x90))
        return 0;
    return length;
}

std::optional<std::string> toUtf8(const std::string &bytes, Encoding encoding) {
    std::string converted;
    if (encoding == Encoding::Latin1) {
        for (const char character : bytes) {
            const auto byte = static_cast<unsigned char>(character);
            if (byte < 0x80) {
                converted += character;
            } else {
                converted += static_cast<char>(0xc0 | byte >> 6);
                converted += static_cast<char>(0x80 | (byte & 0x3f));
            }
        }
        return converted;
    }
    for (size_t at = 0; at < bytes.size();) {
        const size_t length = characterLength(bytes, at);
        if (length == 0)
            return std::nullopt;
        at += length;
    }
    return bytes;
}

} // namespace

std::string Model::field(const std::string &bytes, bool utf8) const {
    if (bytes.empty())
        return "0:,";
    std::string converted = bytes;
    if (!utf8)
        converted = toUtf8(bytes, world.encoding).value_or("**UNABLE TO PROCESS LOG MESSAGE**");
    size_t length = converted.size();
    if (mutation == Mutation::LengthCountsCharacters)
        length = static_cast<size_t>(std::count_if(converted.begin(), converted.end(),
                                                   [](char byte) { return (byte & 0xc0) != 0x80; }));
    return std::to_string(length) + ":" + converted + ",";
}

std::string Model::blockText(const Block &block) const {
    std::string shown = "(" + std::to_string(block.number) + "|";
    for (const Item &item : block.items) {
        switch (item.kind) {
        case 'i':
        case 'u':
            shown += std::string(1, item.kind) + "64:" + item.text + "|";
            break;
        default:
            shown += std::string(1, item.kind) + std::to_string(item.text.size()) + ":" + item.text + "|";
        }
    }
    return shown + "),";
}

// The line of a message, with its line feed; none for a message that is no record.
std::optional<std::string> Model::encode(const Series *series, const Message &message) const {
    if (message.type > 4 || (message.type == 2 && message.grade > 4))
        return std::nullopt;
    const bool logset = series->settings.isLogset;
    std::string line = std::to_string(message.type) + ",";
    if (!logset || mutation == Mutation::LogsetHasProduct)
        line += std::to_string(series->product) + ",";
    line += std::to_string(message.originator) + ",";
    if (!logset)
        line += std::to_string(series->originator) + ",";
    line += std::to_string(message.id) + "," + std::to_string(message.timestampMs) + "," +
            std::to_string(world.process) + "," + std::to_string(world.thread) + ",";
    line += field(message.token.value_or(""), message.utf8);
    line += field(message.text.value_or(""), message.utf8);
    line += field(message.who, message.utf8);
    if (message.type <= 2)
        line += std::to_string(static_cast<int32_t>(message.grade)) + ",";
    if (message.type == 4)
        line += std::to_string(static_cast<int32_t>(message.outcome)) + ",";
    if (message.type != 0)
        line += blockText(message.block);
    line.pop_back(); // the comma behind the last field
    if (mutation == Mutation::SeparatorIsSemicolon)
        std::replace(line.begin(), line.end(), ',', ';');
    if (mutation != Mutation::LineFeedsStay)
        std::replace(line.begin(), line.end(), '\n', '\r');
    return line + "\n";
}

uint64_t Model::recordLength(const Handle *handle, const Message &message) const {
    Message copy = message;
    copy.utf8 = handle->utf8;
    return encode(handle->series.get(), copy).value_or("").size();
}

// ---- writing -----------------------------------------------------------------------------

// How many of so many bytes the device takes.
uint64_t Model::take(uint64_t bytes) {
    if (!world.deviceEnds)
        return bytes;
    const uint64_t taken = std::min(bytes, world.room);
    world.room -= taken;
    if (taken < bytes && world.deviceIsFull)
        world.deviceWasFull = true;
    return taken;
}

// What is cut off ends its line at once, or before the next record.
uint32_t Model::append(Series *series, const std::string &record) {
    const auto failure = [&] {
        ++seen.failures;
        return world.deviceWasFull && mutation != Mutation::FullDeviceIsForgotten ? DEVICE_FULL
                                                                                  : WRITE_FAILED;
    };
    if (series->file == nullptr)
        return failure();
    const auto put = [&](const std::string &bytes) {
        const uint64_t taken = take(bytes.size());
        series->file->bytes += bytes.substr(0, taken);
        if (taken > 0)
            series->file->modifiedMs = world.clock.wallMs;
        series->known += taken;
        if (taken < bytes.size())
            series->lookedAtMs = -1;
        return taken;
    };
    seen.tornLines += series->torn ? 1 : 0;
    if (series->torn && mutation != Mutation::TornLineStays && put("\n") != 1)
        return failure();
    series->torn = false;
    const uint64_t taken = put(record);
    series->torn = taken > 0 && taken < record.size();
    if (series->torn && put("\n") == 1)
        series->torn = false;
    if (taken < record.size())
        return failure();
    ++recordsWritten;
    return DONE;
}

uint32_t Model::write(Series *series, const Message &message, bool mayRollOver) {
    const std::optional<std::string> record = encode(series, message);
    if (!record)
        return FAILED;
    if (!mayRollOver)
        return append(series, *record);
    if (series->file != nullptr && isLookDue(series) && !look(series))
        closeFile(series);
    if (isRolloverDue(series, record->size()))
        rollOver(series);
    reopenIfOld(series, message.timestampMs);
    const uint32_t result = append(series, *record);
    if (result == DONE && isLookDue(series))
        (void)look(series);
    return result;
}

// ---- looking -----------------------------------------------------------------------------

// A writer looks whether its file has a name still, and what others did to its end, at the
// first message that comes a while after its last look.
bool Model::isLookDue(const Series *series) const {
    return series->lookedAtMs == -1 || world.clock.steadyMs - series->lookedAtMs >= 900;
}

// False: the file is gone.
bool Model::look(Series *series) {
    series->lookedAtMs = world.clock.steadyMs;
    const Node &file = *series->file;
    if (!file.named && mutation != Mutation::RemovedFileGoesUnseen) {
        ++seen.gone;
        return false;
    }
    if (file.bytes.size() != series->known)
        series->torn = !file.bytes.empty() && file.bytes.back() != '\n';
    series->known = file.bytes.size();
    return true;
}

// ---- rollover ----------------------------------------------------------------------------

bool Model::isRolloverDue(Series *series, uint64_t length) {
    const Settings &settings = series->settings;
    if (series->file == nullptr ||
        series->version != (settings.isLogset ? LOGSET_VERSION : ORIGINATOR_VERSION))
        return true;
    if ((settings.rolloverMode & (BY_LOCAL_TIME | BY_PERIOD)) != 0) {
        const int64_t late = mutation == Mutation::TimedRolloverASecondLate ? 1 : 0;
        if (seconds() >= series->nextRollover + late) {
            ++seen.timedRollovers;
            return true;
        }
    }
    if ((settings.rolloverMode & BY_SIZE) == 0)
        return false;
    if (!look(series)) { // asking for the size is a look
        closeFile(series);
        return true;
    }
    const uint64_t late = mutation == Mutation::RollsOneByteLate && length > 0 ? 1 : 0;
    return (series->file->bytes.size() + length - late) / 1024 >= settings.maxKB;
}

// The name of a log set's file tells its second: who would take the same name again waits
// for the next one, for two seconds in one rollover. False when they are over: the record
// goes into the file that is full.
bool Model::waitForNextSecond(const Series *series, int64_t *deadlineMs) {
    if (*deadlineMs == 0)
        *deadlineMs = world.clock.steadyMs + 2000;
    while (seconds() == series->nameSecond && world.clock.steadyMs < *deadlineMs) {
        world.clock.wallMs += 2;
        world.clock.steadyMs += 2;
    }
    return world.clock.steadyMs < *deadlineMs;
}

void Model::rollOver(Series *series) {
    bool created = false;
    int64_t deadlineMs = 0;
    ++seen.rollovers;
    closeFile(series);
    for (;;) {
        if (openNext(series, &created) != DONE || created || !isRolloverDue(series, 0))
            break;
        if (series->settings.isLogset && !waitForNextSecond(series, &deadlineMs))
            break;
        closeFile(series);
    }
    recycle(series);
    bringContexts(series, created);
}

void Model::reopenIfOld(Series *series, int64_t timestampMs) {
    const int64_t limit = mutation == Mutation::ReopensAfterElevenMinutes ? 660000 : 600000;
    if (series->lastReopenMs == 0 || series->file == nullptr || timestampMs - series->lastReopenMs <= limit)
        return;
    closeFile(series);
    series->sameName = true;
    bool created = false;
    if (openNext(series, &created) != DONE)
        return;
    series->lastReopenMs = timestampMs;
    ++seen.reopenings;
    if (created)
        recycle(series);
    bringContexts(series, created);
}

// The contexts that are open stand at the top of every new file of an originator's series,
// and are not written twice into one.
void Model::bringContexts(Series *series, bool created) {
    if (series->settings.isLogset || series->file == nullptr)
        return;
    const bool there = !created && series->contextsNoted &&
                       dayNumber(series->contextsDate) == dayNumber(series->date) &&
                       series->contextsCounter == series->counter && series->contextsStart == series->start;
    series->contextsNoted = true;
    series->contextsDate = series->date;
    series->contextsCounter = series->counter;
    series->contextsStart = series->start;
    if (there || mutation == Mutation::NoContextsInNewFiles)
        return;
    std::vector<Handle *> order = series->handles;
    if (mutation == Mutation::ContextsOldestFirst)
        std::reverse(order.begin(), order.end());
    for (const Handle *handle : order)
        if (handle->isContext && ++seen.contextsAgain > 0)
            (void)write(series, handle->context, false);
}

void Model::setNextRollover(Series *series) {
    const Settings &settings = series->settings;
    if ((settings.rolloverMode & BY_LOCAL_TIME) != 0) {
        tm local = localOf(series->start);
        local.tm_hour = static_cast<int>(settings.timeOfDay / 3600);
        local.tm_min = static_cast<int>(settings.timeOfDay % 3600 / 60);
        local.tm_sec = 0;
        local.tm_isdst = -1;
        tm nextDay = local;
        const int64_t instant = mktime(&local);
        const int64_t now = seconds();
        if (now < instant) {
            series->nextRollover = instant;
        } else if (series->start >= instant && now < series->start + DAY) {
            series->nextRollover = instant + DAY;
            if (series->start >= series->nextRollover) { // in the last hour of a day of 25
                ++nextDay.tm_mday;
                nextDay.tm_isdst = -1;
                series->nextRollover = mktime(&nextDay);
            }
        } else {
            series->nextRollover = now;
        }
    } else if ((settings.rolloverMode & BY_PERIOD) != 0) {
        series->nextRollover = series->start + static_cast<int64_t>(settings.period);
    }
}

// ---- opening files -----------------------------------------------------------------------

std::string Model::pathOfCounter(const Series &series, const Date &date, uint64_t counter) const {
    return series.settings.directory + text("%lu-%lu-%lu-%02d%02d%02d-%010lu.log", series.product,
                                            series.originator, hostId, date.year, date.month, date.day,
                                            counter);
}

std::string Model::pathOfSecond(const Series &series, int64_t second) const {
    const tm local = localOf(second);
    return series.settings.directory + text("%lu-%s-%02d%02d%02d%02d%02d%02d.log", series.product,
                                            series.fileName.c_str(), local.tm_year - 100, local.tm_mon + 1,
                                            local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

void Model::lookUpHost() {
    hostId = world.hostId;
    hostName = world.hostName;
    hostKnownAtMs = world.clock.steadyMs;
    hostOutOfDate = false;
}

// Before a message: the number of the host, when a rollover found it out of date.
void Model::refreshHost() {
    if (hostOutOfDate)
        lookUpHost();
}

// What all openings begin with. Whoever names a file goes by the number that is known.
bool Model::prepare(const Series *series) {
    if (!makeDirectories(series->settings))
        return false;
    if (series->settings.isLogset)
        return true;
    if (hostId == 0 || mutation == Mutation::HostIsAskedAtEachRollover)
        lookUpHost();
    else if (world.clock.steadyMs - hostKnownAtMs >= 3600000 || hostName != world.hostName ||
             hostId != world.hostId)
        hostOutOfDate = true;
    return true;
}

bool Model::makeDirectories(const Settings &settings) {
    const std::string &directory = settings.directory;
    if (settings.isRelative && world.directories.count(directory.substr(0, directory.find('/') + 1)) == 0)
        return false;
    for (size_t slash = directory.find('/'); slash != std::string::npos;
         slash = directory.find('/', slash + 1)) {
        const std::string prefix = directory.substr(0, slash);
        if (world.files.count(prefix) != 0)
            return false; // something else has the name
        world.directories.insert(prefix + "/");
    }
    return true;
}

// The path of the latest file of the series, by its name.
std::optional<std::string> Model::findLatest(const Series *series, bool upToToday) const {
    const std::string &directory = series->settings.directory;
    const bool logset = series->settings.isLogset;
    const std::string prefix = logset ? text("%lu-%s-", series->product, series->fileName.c_str())
                                      : text("%lu-%lu-%lu-", series->product, series->originator, hostId);
    std::optional<std::string> best;
    int64_t bestTime = 0;
    int bestDay = -1;
    uint64_t bestCounter = 0;
    for (const std::string &name : listing(world, directory)) {
        if (name.compare(0, prefix.size(), prefix) != 0)
            continue;
        if (logset) {
            const int64_t time = timeOfDigits(digitsOf(name), true);
            if (time > bestTime) {
                bestTime = time;
                best = directory + name;
            }
            continue;
        }
        Date date;
        uint64_t counter = 0;
        dateAndCounter(name, &date, &counter, 10);
        const int day = dayNumber(date);
        if (upToToday && day > dayNumber(dateOf(seconds())))
            continue;
        if (day > bestDay || (day == bestDay && counter > bestCounter)) {
            bestDay = day;
            bestCounter = counter;
            best = directory + name;
        }
    }
    return best;
}

void Model::closeFile(Series *series) {
    series->file = nullptr;
}

// What all openings end with.
uint32_t Model::resume(Series *series, const std::string &path, int64_t logsetStart) {
    const NodePtr node = world.files.at(path);
    if (node->kind != NodeKind::File)
        return OPEN_FAILED;
    const Header header = headerOf(*node);
    series->file = node;
    series->version = header.version;
    series->start = series->settings.isLogset ? logsetStart : header.good ? header.created : seconds();
    series->lastReopenMs = series->start * 1000;
    series->opened = true;
    series->sameName = false;
    series->lookedAtMs = -1;
    series->known = node->bytes.size();
    series->torn = !node->bytes.empty() && node->bytes.back() != '\n';
    setNextRollover(series);
    return DONE;
}

bool Model::create(Series *series, const std::string &path) {
    const auto node = std::make_shared<Node>();
    int64_t zone = zoneOffset(seconds());
    if (mutation == Mutation::HeaderZoneSign)
        zone = -zone;
    if (series->settings.isLogset)
        node->bytes = text("$Header 65544,%ld,", zone) + world.hostName + "\n";
    else
        node->bytes =
            text("$Header 65543,%lu,%lu,%ld,%ld,", series->product, series->originator, seconds(), zone) +
            world.hostName + "\n";
    if (take(node->bytes.size()) < node->bytes.size())
        return false; // a file has its header or is not there
    node->mode = series->settings.permissions;
    node->modifiedMs = world.clock.wallMs;
    world.files[path] = node;
    return true;
}

// The series goes on in its latest file, or in its first one.
uint32_t Model::openLatest(Series *series) {
    if (!prepare(series))
        return FAILED;
    const std::optional<std::string> latest = findLatest(series, false);
    bool created = false;
    if (!latest)
        return openNext(series, &created);
    const std::string name = latest->substr(series->settings.directory.size());
    const int64_t start = timeOfDigits(digitsOf(name), true);
    const uint32_t result = resume(series, *latest, start);
    if (result != DONE)
        return result;
    series->nameTime = start;
    series->nameSecond = -1;
    if (!series->settings.isLogset)
        dateAndCounter(name, &series->date, &series->counter);
    return DONE;
}

// The file of the next name, or the latest of the series when that name is free and the
// series has gone on without this writer. On failure everything stays as it was.
uint32_t Model::openNext(Series *series, bool *created) {
    *created = false;
    if (!prepare(series))
        return FAILED;
    const int64_t now = seconds();
    const bool logset = series->settings.isLogset;
    Date date = dateOf(now);
    uint64_t counter = 0;
    bool sameDay = date.month == series->date.month && date.day == series->date.day;
    if (mutation == Mutation::CounterRestartsWithTheYear)
        sameDay = sameDay && date.year == series->date.year;
    if (sameDay) {
        if (!series->sameName && series->counter == UINT64_MAX)
            return OPEN_FAILED; // there is no number after the last
        counter = series->counter + (series->sameName ? 0 : 1);
        if (mutation == Mutation::CounterSkipsOne && !series->sameName)
            ++counter;
    }
    std::string path = logset ? pathOfSecond(*series, now) : pathOfCounter(*series, date, counter);
    int64_t logsetStart = now;
    int64_t nameSecond = now;
    if (world.files.count(path) == 0) {
        const std::optional<std::string> latest = findLatest(series, true);
        bool ahead = false;
        if (latest && logset) {
            const std::string digits = digitsOf(latest->substr(series->settings.directory.size()));
            ahead = !series->opened || timeOfDigits(digits, true) > series->nameTime;
            if (ahead) {
                logsetStart = timeOfDigits(digits, false);
                nameSecond = -1;
            }
        } else if (latest) {
            Date latestDate;
            uint64_t latestCounter = 0;
            dateAndCounter(latest->substr(series->settings.directory.size()), &latestDate, &latestCounter);
            const int day = dayNumber(latestDate);
            ahead = !series->opened || day > dayNumber(series->date) ||
                    (day == dayNumber(series->date) && latestCounter > series->counter) ||
                    (day == dayNumber(date) && latestCounter > counter);
            if (ahead) {
                date = latestDate;
                counter = latestCounter;
            }
        }
        if (ahead) {
            ++seen.caughtUp;
            path = *latest;
        } else {
            if (!create(series, path))
                return FAILED;
            *created = true;
        }
    }
    const uint32_t result = resume(series, path, logsetStart);
    if (result != DONE)
        return result;
    series->date = date;
    series->counter = counter;
    series->nameSecond = nameSecond;
    if (logset)
        series->nameTime = timeOfDigits(digitsOf(path.substr(series->settings.directory.size())), true);
    return DONE;
}

// ---- recycling ---------------------------------------------------------------------------

// How long the wall clock has gone with the steady one, as far as comparisons tell.
int64_t Model::compareClocks() {
    const int64_t ahead = world.clock.wallMs - world.clock.steadyMs;
    if (!clocksCompared || std::llabs(ahead - wallAheadMs) > 250)
        clockChangedMs = world.clock.steadyMs;
    clocksCompared = true;
    wallAheadMs = ahead;
    return world.clock.steadyMs - clockChangedMs;
}

// Not the file that is being written, and another writer's only when it has been idle.
bool Model::mayRemove(const Series *series, const NodePtr &node) {
    if (series->file == node)
        return false;
    bool held = false;
    for (const Handle &handle : handles)
        held = held || (handle.series != nullptr && handle.series->file == node);
    if (!held)
        return true;
    return compareClocks() >= 2000 && world.clock.wallMs - node->modifiedMs >= 2000;
}

void Model::recycle(Series *series) {
    if (!series->settings.recycle)
        return;
    const bool logset = series->settings.isLogset;
    const std::optional<Settings> settings = logset ? logsetSettings(series->product, series->setName)
                                                    : originatorSettings(series->product, series->originator);
    if (!settings)
        return;
    struct Aged {
        int64_t created;
        int64_t date; // in the name
        uint64_t counter;
        std::string path;
    };
    std::vector<Aged> files;
    for (const std::string &name : listing(world, settings->directory)) {
        const std::vector<std::string> parts = split(name);
        if (parts.size() < 2 || strtoull(parts[0].c_str(), nullptr, 10) != series->product)
            continue;
        const std::string path = settings->directory + name;
        const Node &node = *world.files.at(path);
        if (node.kind == NodeKind::File && node.modifiedMs / 1000 > seconds() + DAY)
            continue;
        if (logset) {
            if (parts[1] != settings->fileName)
                continue;
            const std::string digits = digitsOf(name);
            files.push_back({timeOfDigits(digits, true), strtoll(digits.c_str(), nullptr, 10), 0, path});
        } else {
            if (strtoull(parts[1].c_str(), nullptr, 10) != series->originator)
                continue;
            Date date;
            uint64_t counter = 0;
            dateAndCounter(name, &date, &counter);
            const Header header = headerOf(node);
            files.push_back({header.good ? header.created : 0, dayNumber(date), counter, path});
        }
    }
    const uint64_t keep = settings->keep + (mutation == Mutation::KeepsOneMore ? 1 : 0);
    if (files.size() <= keep)
        return;
    std::sort(files.begin(), files.end(), [](const Aged &a, const Aged &b) {
        return std::tie(a.created, a.date, a.counter, a.path) <
               std::tie(b.created, b.date, b.counter, b.path);
    });
    files.resize(files.size() - keep);
    for (const Aged &file : files) {
        const NodePtr node = world.files.at(file.path);
        if (!headerOf(*node).good)
            continue;
        if (!mayRemove(series, node)) {
            ++seen.heldBack;
            continue;
        }
        ++seen.recycled;
        node->named = false;
        world.files.erase(file.path);
    }
}

} // namespace model
