// SPDX-License-Identifier: Apache-2.0
// Fuzzes the parser of names, headers, records and argument blocks. The first byte
// selects the record version; the rest is a file name, or lines.
#include "common/record.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

using namespace tools;

namespace {

void require(bool holds) {
    if (!holds)
        std::abort();
}

// A view must lie in the line that it was read from.
void requireInside(std::string_view line, std::string_view part) {
    if (!part.empty())
        require(part.data() >= line.data() && part.data() + part.size() <= line.data() + line.size());
}

void tryLine(std::string_view line, uint64_t version) {
    Record record;
    Fault fault;
    int64_t time = 0;
    const bool timed = parseRecordTime(line, version, time);
    if (!parseRecord(line, version, record, fault)) {
        require(fault.damage != Damage::None && fault.at <= line.size());
        size_t at = 0;
        if (salvageRecord(line, version, record, at)) {
            require(at > 0 && record.line == line.substr(at));
            Record again;
            require(parseRecord(line.substr(at), version, again, fault));
        }
        return;
    }
    for (const std::string_view part : {record.context, record.text, record.who, record.block, record.line})
        requireInside(line, part);
    if (record.hasPrefix())
        require(timed && time == record.time);
    if (!record.block.empty()) {
        size_t at = 0;
        uint64_t number = 0;
        std::vector<Argument> arguments;
        require(walkBlock(record.block, at, number, &arguments) && at == record.block.size());
        for (const Argument &argument : arguments)
            requireInside(record.block, argument.text);
    }
    // A record is whole only with all its bytes.
    if (line.size() < 4096 && record.type != ZOLTLOG_MSG_DEBUG) {
        Record shorter;
        require(!parseRecord(line.substr(0, line.size() - 1), version, shorter, fault));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    constexpr uint64_t VERSIONS[] = {0,
                                     ZOLTLOG_RECORD_VERSION_OLDEST,
                                     ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_WHO,
                                     ZOLTLOG_RECORD_VERSION_LAST_WITHOUT_PREFIX,
                                     ZOLTLOG_RECORD_VERSION_ORIGINATOR,
                                     ZOLTLOG_RECORD_VERSION_LOGSET};
    const uint64_t version = VERSIONS[data[0] % 6];
    const std::string bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    std::string_view rest = bytes;

    FileName name;
    if (parseFileName(rest, name))
        require(name.kind != FileName::Kind::Other && name.product != 0 && name.month >= 1 &&
                name.month <= 12);

    while (!rest.empty()) {
        const size_t feed = rest.find('\n');
        const std::string_view line = rest.substr(0, feed);
        Header header;
        if (parseHeader(line, header) == HeaderResult::Ok) {
            require(header.version >= ZOLTLOG_RECORD_VERSION_OLDEST &&
                    header.version <= ZOLTLOG_RECORD_VERSION_LOGSET);
            requireInside(line, header.host);
        }
        tryLine(line, version);
        if (feed == std::string_view::npos)
            break;
        rest.remove_prefix(feed + 1);
    }
    return 0;
}
