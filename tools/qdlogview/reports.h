// What qdlogview tells instead of records.
#pragma once

#include "common/exit_codes.h"
#include "common/terminal.h"
#include "qdlogview/filter.h"
#include "qdlogview/reader.h"
#include "qdlogview/settings.h"

namespace qdlogview {

// Each returns the exit status as far as its own findings go.
tools::ExitCode reportCount(const Settings &settings, Reader &reader, Filter &filter, tools::Output &out);
tools::ExitCode reportStats(const Settings &settings, Reader &reader, Filter &filter, tools::Output &out,
                            bool color);
tools::ExitCode reportValues(const Settings &settings, Reader &reader, Filter &filter, tools::Output &out,
                             bool color);
tools::ExitCode reportGaps(const Settings &settings, Reader &reader, Filter &filter, tools::Output &out,
                           bool color);
tools::ExitCode reportVerify(const Settings &settings, const Sources &sources, tools::Output &out, bool color,
                             std::vector<std::string> &problems);

} // namespace qdlogview
