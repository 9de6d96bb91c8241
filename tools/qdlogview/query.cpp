// SPDX-License-Identifier: Apache-2.0
// Parsing and evaluation of --where, and its projection onto the library's file
// filter. Sections: tokens, parser, evaluation, projection.
#include "qdlogview/query.h"

#include "common/number_text.h"
#include "common/record_file.h"

#include <algorithm>
#include <cctype>

namespace qdlogview {

using tools::FieldRole;
using tools::FieldType;
using tools::FieldValue;
using tools::Item;

namespace {

constexpr int MAX_DEPTH = 200; // of nested parentheses and "not"

// ---- tokens ----------------------------------------------------------------------

struct Token {
    enum class Kind { End, Word, Text, Symbol, Bad };
    Kind kind = Kind::End;
    std::string text;
    size_t at = 0;
};

bool isWordChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           std::string_view("_.:@+-/*%#").find(c) != std::string_view::npos ||
           static_cast<unsigned char>(c) >= 0x80;
}

Token nextToken(std::string_view source, size_t &at) {
    while (at < source.size() && std::isspace(static_cast<unsigned char>(source[at])) != 0)
        ++at;
    Token token;
    token.at = at;
    if (at >= source.size())
        return token;
    const char c = source[at];
    if (c == '"' || c == '\'') {
        token.kind = Token::Kind::Bad;
        for (++at; at < source.size(); ++at) {
            if (source[at] == c) {
                ++at;
                token.kind = Token::Kind::Text;
                break;
            }
            if (source[at] == '\\' && at + 1 < source.size() &&
                (source[at + 1] == c || source[at + 1] == '\\'))
                ++at;
            token.text += source[at];
        }
        return token;
    }
    for (const char *symbol :
         {"==", "!=", "<>", "<=", ">=", "!~", "&&", "||", "=", "<", ">", "~", "!", "(", ")", ","}) {
        const std::string_view text = symbol;
        if (source.substr(at, text.size()) == text) {
            token.kind = Token::Kind::Symbol;
            token.text = text;
            at += text.size();
            return token;
        }
    }
    token.kind = isWordChar(c) ? Token::Kind::Word : Token::Kind::Bad;
    while (at < source.size() && isWordChar(source[at]))
        token.text += source[at++];
    return token;
}

struct CompareRow {
    const char *symbol;
    QueryNode::Compare compare;
};
constexpr CompareRow COMPARES[] = {
    {"=", QueryNode::Compare::Equal},     {"==", QueryNode::Compare::Equal},
    {"!=", QueryNode::Compare::NotEqual}, {"<>", QueryNode::Compare::NotEqual},
    {"<", QueryNode::Compare::Less},      {"<=", QueryNode::Compare::LessEqual},
    {">", QueryNode::Compare::Greater},   {">=", QueryNode::Compare::GreaterEqual},
    {"~", QueryNode::Compare::Match},     {"!~", QueryNode::Compare::NoMatch},
};

// ---- parser ----------------------------------------------------------------------

struct Parser {
    Parser(std::string_view text, Query &into, int64_t currentTime, tools::Zone timeZone)
        : source(text), query(into), now(currentTime), zone(timeZone) {
        advance();
    }

    std::string_view source;
    Query &query;
    int64_t now;
    tools::Zone zone;
    size_t at = 0;
    Token token;
    std::string error;
    int depth = 0;

    void advance() { token = nextToken(source, at); }

    int fail(const std::string &why, size_t where) {
        if (error.empty())
            error = why + " at character " + std::to_string(where + 1) + " of '" + std::string(source) + "'";
        return -1;
    }
    int fail(const std::string &why) { return fail(why, token.at); }

    bool isWord(const char *word) const { return token.kind == Token::Kind::Word && token.text == word; }
    bool isSymbol(const char *symbol) const {
        return token.kind == Token::Kind::Symbol && token.text == symbol;
    }

    int add(const QueryNode &node) {
        query.nodes.push_back(node);
        return static_cast<int>(query.nodes.size()) - 1;
    }
    int join(QueryNode::Kind kind, int left, int right) {
        QueryNode node;
        node.kind = kind;
        node.left = left;
        node.right = right;
        return add(node);
    }

    int parseOr() {
        int left = parseAnd();
        while (left >= 0 && (isWord("or") || isSymbol("||"))) {
            advance();
            const int right = parseAnd();
            left = right < 0 ? -1 : join(QueryNode::Kind::Or, left, right);
        }
        return left;
    }

    int parseAnd() {
        int left = parseNot();
        while (left >= 0 && (isWord("and") || isSymbol("&&"))) {
            advance();
            const int right = parseNot();
            left = right < 0 ? -1 : join(QueryNode::Kind::And, left, right);
        }
        return left;
    }

    int parseNot() {
        if (++depth > MAX_DEPTH)
            return fail("too many levels");
        int node = -1;
        if (isWord("not") || isSymbol("!")) {
            advance();
            const int operand = parseNot();
            node = operand < 0 ? -1 : join(QueryNode::Kind::Not, operand, -1);
        } else if (isSymbol("(")) {
            advance();
            node = parseOr();
            if (node >= 0 && !isSymbol(")"))
                node = fail("')' is missing");
            else if (node >= 0)
                advance();
        } else {
            node = parseComparison();
        }
        --depth;
        return node;
    }

    int parseComparison() {
        if (token.kind == Token::Kind::End)
            return fail("a field is missing");
        if (token.kind != Token::Kind::Word)
            return fail("a field name is expected");
        QueryNode node;
        node.field = tools::findField(token.text);
        if (node.field == nullptr)
            return fail("'" + token.text + "' is not a field");
        advance();
        node.type = node.field->type;
        if (isWord("in"))
            return parseList(node);
        for (const CompareRow &each : COMPARES) {
            if (!isSymbol(each.symbol))
                continue;
            advance();
            node.kind = QueryNode::Kind::Compare;
            node.compare = each.compare;
            return takeValue(node) ? add(node) : -1;
        }
        node.kind = QueryNode::Kind::Has;
        return add(node);
    }

    int parseList(QueryNode node) {
        advance();
        if (!isSymbol("("))
            return fail("'(' is expected behind 'in'");
        int list = -1;
        do {
            advance();
            node.kind = QueryNode::Kind::Compare;
            node.compare = QueryNode::Compare::Equal;
            if (!takeValue(node))
                return -1;
            const int each = add(node);
            list = list < 0 ? each : join(QueryNode::Kind::Or, list, each);
        } while (isSymbol(","));
        if (!isSymbol(")"))
            return fail("')' is missing");
        advance();
        return list;
    }

    bool takeValue(QueryNode &node) {
        const size_t where = token.at;
        if (token.kind != Token::Kind::Word && token.kind != Token::Kind::Text) {
            fail(token.kind == Token::Kind::Bad && !token.text.empty() ? "a quote is missing"
                                                                       : "a value is expected");
            return false;
        }
        const std::string text = token.text;
        advance();
        if (node.compare == QueryNode::Compare::Match || node.compare == QueryNode::Compare::NoMatch)
            return takePattern(node, text, where);
        switch (node.type) {
        case FieldType::Text:
            return takeText(node, text, where);
        case FieldType::Time: {
            std::string why;
            if (tools::parseTimeText(text, now, zone, node.value, why))
                return true;
            fail(why, where);
            return false;
        }
        case FieldType::Signed: {
            int32_t rank = 0;
            const char *name = nullptr;
            if (node.field->role == FieldRole::Severity && tools::parseRank(text, rank, name)) {
                node.value = rank;
                return true;
            }
            if (tools::parseNumber(text, node.value))
                return true;
            break;
        }
        case FieldType::Id:
        case FieldType::Number: {
            uint32_t type = 0;
            if (node.field->role == FieldRole::Type && tools::parseKind(text, type)) {
                node.number = type;
                return true;
            }
            if (tools::parseNumber(text, node.number))
                return true;
            break;
        }
        }
        fail("'" + text + "' is not a number", where);
        return false;
    }

    // Kinds and severities by name are compared as numbers.
    bool takeText(QueryNode &node, const std::string &text, size_t where) {
        if (node.field->role == FieldRole::Kind) {
            uint32_t type = 0;
            if (!tools::parseKind(text, type)) {
                fail("'" + text + "' is not a kind", where);
                return false;
            }
            node.text = tools::kindName(type);
        } else if (node.field->role == FieldRole::SeverityName) {
            int32_t rank = 0;
            const char *name = nullptr;
            if (!tools::parseRank(text, rank, name)) {
                fail("'" + text + "' is not a severity", where);
                return false;
            }
            node.text = name;
            if (node.compare != QueryNode::Compare::Equal && node.compare != QueryNode::Compare::NotEqual) {
                node.field = tools::findField("severity");
                node.type = FieldType::Signed;
                node.value = rank;
            }
        } else {
            node.text = text;
        }
        return true;
    }

    bool takePattern(QueryNode &node, const std::string &pattern, size_t where) {
        std::string why;
        if (node.type != FieldType::Text) {
            fail("'~' needs a field that is a text", where);
            return false;
        }
        query.regexes.emplace_back();
        if (!query.regexes.back().compile(pattern, false, why)) {
            fail("the pattern " + why, where);
            return false;
        }
        node.regex = static_cast<int>(query.regexes.size()) - 1;
        return true;
    }
};

} // namespace

bool Query::parse(std::string_view source, int64_t now, tools::Zone zone, std::string &error) {
    nodes.clear();
    regexes.clear();
    Parser parser(source, *this, now, zone);
    root = parser.parseOr();
    if (root >= 0 && parser.token.kind != Token::Kind::End)
        root = parser.fail("'and', 'or' or the end is expected");
    error = parser.error;
    return root >= 0;
}

// ---- evaluation ------------------------------------------------------------------

namespace {

template<typename T>
bool compareWith(QueryNode::Compare compare, const T &left, const T &right) {
    switch (compare) {
    case QueryNode::Compare::Equal:
        return left == right;
    case QueryNode::Compare::NotEqual:
        return left != right;
    case QueryNode::Compare::Less:
        return left < right;
    case QueryNode::Compare::LessEqual:
        return left <= right;
    case QueryNode::Compare::Greater:
        return left > right;
    case QueryNode::Compare::GreaterEqual:
        return left >= right;
    default:
        return false;
    }
}

} // namespace

bool Query::evaluate(int at, const Item &item) {
    const QueryNode &node = nodes[static_cast<size_t>(at)];
    switch (node.kind) {
    case QueryNode::Kind::And:
        return evaluate(node.left, item) && evaluate(node.right, item);
    case QueryNode::Kind::Or:
        return evaluate(node.left, item) || evaluate(node.right, item);
    case QueryNode::Kind::Not:
        return !evaluate(node.left, item);
    case QueryNode::Kind::Has:
        return node.field->value(item).present;
    case QueryNode::Kind::Compare:
        break;
    }
    const FieldValue value = node.field->value(item);
    if (!value.present)
        return false;
    if (node.regex >= 0)
        return regexes[static_cast<size_t>(node.regex)].matches(value.text) ==
               (node.compare == QueryNode::Compare::Match);
    switch (node.type) {
    case FieldType::Id:
    case FieldType::Number:
        return compareWith(node.compare, value.number, node.number);
    case FieldType::Signed:
    case FieldType::Time:
        return compareWith(node.compare, value.value, node.value);
    case FieldType::Text:
        return compareWith(node.compare, value.text, std::string_view(node.text));
    }
    return false;
}

bool Query::matches(const Item &item) {
    return root < 0 || evaluate(root, item);
}

bool Query::gaveUp() const {
    return std::any_of(regexes.begin(), regexes.end(), [](const Regex &regex) { return regex.gaveUp; });
}

// ---- projection ------------------------------------------------------------------

namespace {

constexpr int MAX_OPERATORS = 199; // what the library's walk supports

int32_t operatorOf(QueryNode::Compare compare, bool negated) {
    switch (compare) {
    case QueryNode::Compare::Equal:
        return negated ? ZOLTLOG_OP_NOT_EQUAL : ZOLTLOG_OP_EQUAL;
    case QueryNode::Compare::NotEqual:
        return negated ? ZOLTLOG_OP_EQUAL : ZOLTLOG_OP_NOT_EQUAL;
    case QueryNode::Compare::Less:
        return negated ? ZOLTLOG_OP_GREATER_EQUAL : ZOLTLOG_OP_LESS;
    case QueryNode::Compare::LessEqual:
        return negated ? ZOLTLOG_OP_GREATER : ZOLTLOG_OP_LESS_EQUAL;
    case QueryNode::Compare::Greater:
        return negated ? ZOLTLOG_OP_LESS_EQUAL : ZOLTLOG_OP_GREATER;
    case QueryNode::Compare::GreaterEqual:
        return negated ? ZOLTLOG_OP_LESS : ZOLTLOG_OP_GREATER_EQUAL;
    default:
        return 0;
    }
}

} // namespace

LogQueryNode *FileQuery::keep(const LogQueryNode &node) {
    nodes.push_back(node);
    return &nodes.back();
}

LogQueryNode *FileQuery::operation(int32_t kind, LogQueryNode *left, LogQueryNode *right) {
    LogQueryNode node = {};
    node.kind = kind;
    node.left = left;
    node.right = right;
    ++operators;
    return keep(node);
}

LogQueryNode *FileQuery::compare(int32_t attribute, int32_t kind, uint64_t number) {
    LogQueryNode term = {};
    term.kind = ZOLTLOG_TERM_ATTRIBUTE;
    term.value.number = static_cast<uint64_t>(attribute);
    LogQueryNode *const left = keep(term);
    term.kind = ZOLTLOG_TERM_NUMBER;
    term.value.number = number;
    return operation(kind, left, keep(term));
}

LogQueryNode *FileQuery::compareText(int32_t attribute, const std::string &text) {
    LogQueryNode term = {};
    term.kind = ZOLTLOG_TERM_ATTRIBUTE;
    term.value.number = static_cast<uint64_t>(attribute);
    LogQueryNode *const left = keep(term);
    term.kind = ZOLTLOG_TERM_TEXT;
    term.value.text = text.c_str(); // the query outlives the tree
    return operation(ZOLTLOG_OP_EQUAL, left, keep(term));
}

// Null: no file can be left out because of this node.
LogQueryNode *FileQuery::project(const Query &query, int at, bool negated) {
    const QueryNode &node = query.nodes[static_cast<size_t>(at)];
    if (node.kind == QueryNode::Kind::Not)
        return project(query, node.left, !negated);
    if (node.kind == QueryNode::Kind::And || node.kind == QueryNode::Kind::Or) {
        LogQueryNode *const left = project(query, node.left, negated);
        LogQueryNode *const right = project(query, node.right, negated);
        const bool isAnd = (node.kind == QueryNode::Kind::And) != negated;
        if (isAnd && (left == nullptr || right == nullptr))
            return left != nullptr ? left : right;
        if (left == nullptr || right == nullptr)
            return nullptr;
        return operation(isAnd ? ZOLTLOG_OP_AND : ZOLTLOG_OP_OR, left, right);
    }
    if (node.kind != QueryNode::Kind::Compare)
        return nullptr;

    const int32_t kind = operatorOf(node.compare, negated);
    switch (node.field->role) {
    case FieldRole::Product: // every record of a file has the product of its name
        return kind != 0 ? compare(ZOLTLOG_ATTR_PRODUCT_ID, kind, node.number) : nullptr;
    case FieldRole::FileOriginator: // log sets have none, and the name filter sees 0
        return kind != 0 && !negated && (kind == ZOLTLOG_OP_EQUAL || kind == ZOLTLOG_OP_GREATER) &&
                       node.number > 0
                   ? compare(ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, kind, node.number)
                   : nullptr;
    case FieldRole::LogSet:
        return kind == ZOLTLOG_OP_EQUAL && !negated ? compareText(ZOLTLOG_ATTR_LOGSET_NAME, node.text)
                                                    : nullptr;
    case FieldRole::Host:
        if (kind != ZOLTLOG_OP_EQUAL || negated || node.text.find(' ') != std::string::npos)
            return nullptr;
        needsHost = true;
        return compareText(ZOLTLOG_ATTR_HOST_NAME, node.text);
    case FieldRole::TimeStamp: {
        // A file with a record at or after a time was modified then or later; one with
        // a record at or before it was created before. Both in seconds, with room for
        // records of several processes that are a little out of order.
        constexpr int64_t ROOM = tools::ORDER_SLACK / 1000 + 1;
        const int64_t seconds = node.value / 1000;
        if (negated || seconds <= ROOM)
            return nullptr;
        if (kind == ZOLTLOG_OP_GREATER || kind == ZOLTLOG_OP_GREATER_EQUAL)
            return compare(ZOLTLOG_ATTR_TIME, ZOLTLOG_OP_GREATER_EQUAL,
                           static_cast<uint64_t>(seconds - ROOM));
        if (kind == ZOLTLOG_OP_LESS || kind == ZOLTLOG_OP_LESS_EQUAL)
            return compare(ZOLTLOG_ATTR_CREATION_TIME, ZOLTLOG_OP_LESS_EQUAL,
                           static_cast<uint64_t>(seconds + ROOM));
        return nullptr;
    }
    default:
        return nullptr;
    }
}

FileQuery::FileQuery(const Query &query) {
    if (query.empty())
        return;
    root = project(query, query.root, false);
    if (operators > MAX_OPERATORS)
        root = nullptr;
}

} // namespace qdlogview
