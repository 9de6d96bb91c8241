// SPDX-License-Identifier: Apache-2.0
// The query language of --where.
//
//   query      = and { ("or" | "||") and }
//   and        = not { ("and" | "&&") not }
//   not        = ("not" | "!") not | "(" query ")" | comparison
//   comparison = FIELD OPERATOR VALUE | FIELD "in" "(" VALUE { "," VALUE } ")" | FIELD
//   OPERATOR   = "=" | "==" | "!=" | "<>" | "<" | "<=" | ">" | ">=" | "~" | "!~"
//   VALUE      = a number, a word, or a text in double or single quotes (\ escapes)
//
// A field alone asks whether the record has it. A comparison with a field that the
// record does not have is false. "~" searches a regular expression in a text.
// Kinds, severities and times may be given by name: kind = audit, severity >= error,
// time > "-2h".
//
// What a query says about whole files (product, file originator, log set, host,
// times) is handed to the library as a query tree, so that files that cannot hold a
// matching record are not opened.
#pragma once

#include "common/fields.h"
#include "common/time_text.h"
#include "qdlogview/regex.h"

#include "zoltlog.h"
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace qdlogview {

struct QueryNode {
    enum class Kind { And, Or, Not, Compare, Has };
    enum class Compare { Equal, NotEqual, Less, LessEqual, Greater, GreaterEqual, Match, NoMatch };
    Kind kind = Kind::Has;
    Compare compare = Compare::Equal;
    int left = -1, right = -1; // And, Or; Not: left
    tools::Field field = nullptr;
    tools::FieldType type = tools::FieldType::Text;
    bool isSigned = false;
    uint64_t number = 0;
    int64_t value = 0;
    std::string text;
    int regex = -1;
};

struct Query {
    bool parse(std::string_view source, int64_t now, tools::Zone zone, std::string &error);
    bool empty() const { return root < 0; }
    bool matches(const tools::Item &item);
    bool gaveUp() const;

    std::vector<QueryNode> nodes;
    std::vector<Regex> regexes;
    int root = -1;

  private:
    bool evaluate(int node, const tools::Item &item);
};

// What a query says about files, as a tree for the library's file filter. It holds
// for every file that can have a matching record, and for others too.
struct FileQuery {
    explicit FileQuery(const Query &query);
    FileQuery(const FileQuery &) = delete;
    FileQuery &operator=(const FileQuery &) = delete;

    LogQueryNode *root = nullptr; // null: all files
    bool needsHost = false;

  private:
    LogQueryNode *project(const Query &query, int node, bool negated);
    LogQueryNode *keep(const LogQueryNode &node);
    LogQueryNode *operation(int32_t kind, LogQueryNode *left, LogQueryNode *right);
    LogQueryNode *compare(int32_t attribute, int32_t kind, uint64_t number);
    LogQueryNode *compareText(int32_t attribute, const std::string &text);

    std::deque<LogQueryNode> nodes; // pointers into it stay good
    int operators = 0;
};

} // namespace qdlogview
