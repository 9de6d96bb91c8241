// SPDX-License-Identifier: Apache-2.0
// Records in the forms that other systems take as they are.
#pragma once

#include "common/fields.h"
#include "common/time_text.h"

#include <string>
#include <vector>

namespace qdlogview {

// A line of OTLP/JSON for each record (OpenTelemetry's logs data): resource, severity
// number, body, attributes; trace and span when the context is a W3C traceparent.
void appendOtlp(std::string &out, const tools::Item &item);

// An entry of systemd's journal export format: lines, or a length where a value is no line.
void appendJournal(std::string &out, const tools::Item &item);

// A row of PostgreSQL's COPY in text form, one column for each field.
void appendPostgres(std::string &out, const tools::Item &item, const std::vector<tools::Field> &fields,
                    tools::TimeFormatter &utc);

// A line of RFC 5424.
void appendRfc5424(std::string &out, const tools::Item &item, tools::TimeFormatter &utc);

} // namespace qdlogview
