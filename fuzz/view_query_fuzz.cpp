// SPDX-License-Identifier: Apache-2.0
// Queries of --where, of any bytes: what is understood is asked of records, and its tree for
// files lets every file through that holds a record for which the query holds.
#include "common/record.h"
#include "fuzz/require.h"
#include "qdlogview/query.h"
#include "zoltlog.h"

#include <string>
#include <string_view>

namespace {

constexpr int64_t NOW = 1709300702123;
const char *const LINES[] = {
    "2,5,7,7,12,1709300702000,42,43,2:T1,9:disk full,3:mgr,2,(0|)",
    "4,5,7,7,13,1709300702500,42,43,0:,7:removed,5:alice,1,(0|)",
    "1,5,7,7,14,1709300703000,42,43,0:,3:x\xffz,0:,3,(0|)",
};

// The file that the records are in.
tools::Origin origin() {
    tools::Origin made;
    made.path = "/log/5-7-1-240301-0000000001.log";
    made.base = "5-7-1-240301-0000000001.log";
    made.host = "hostA";
    made.hasHost = true;
    return made;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    qdlogview::Query query;
    std::string error;
    if (!query.parse(text, NOW, tools::Zone::Utc, error)) {
        fuzz::require(!error.empty(), "a reason");
        return 0;
    }
    qdlogview::FileQuery files(query);
    bool isAnyMatch = false;
    for (const char *line : LINES) {
        static const tools::Origin file = origin();
        tools::Item item;
        item.origin = &file;
        tools::Fault fault;
        fuzz::require(tools::parseRecord(line, ZOLTLOG_RECORD_VERSION_ORIGINATOR, item.record, fault),
                      "a record");
        isAnyMatch = query.matches(item) || isAnyMatch;
    }
    if (files.root != nullptr) {
        const bool passes =
            evalTreeToFilterFiles(5, 7, "hostA", nullptr, 1709300700, 1709300800, files.root) != 0;
        fuzz::require(passes || !isAnyMatch, "the file of a matching record passes");
    }
    return 0;
}
