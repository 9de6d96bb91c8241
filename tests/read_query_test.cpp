// SPDX-License-Identifier: Apache-2.0
#include "support/results.h"
#include "zoltlog.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

const std::vector<int32_t> OPERATORS = {ZOLTLOG_OP_AND,
                                        ZOLTLOG_OP_OR,
                                        ZOLTLOG_OP_LESS,
                                        ZOLTLOG_OP_GREATER,
                                        ZOLTLOG_OP_LESS_EQUAL,
                                        ZOLTLOG_OP_GREATER_EQUAL,
                                        ZOLTLOG_OP_EQUAL,
                                        ZOLTLOG_OP_NOT_EQUAL,
                                        280,
                                        289,
                                        0};

// Builds trees; the nodes live as long as the builder.
class Trees {
  public:
    LogQueryNode *number(uint64_t value, int32_t kind = ZOLTLOG_TERM_NUMBER) {
        LogQueryNode *node = make(kind);
        node->value.number = value;
        return node;
    }
    LogQueryNode *attribute(uint64_t code) { return number(code, ZOLTLOG_TERM_ATTRIBUTE); }
    LogQueryNode *text(const char *value) {
        LogQueryNode *node = make(ZOLTLOG_TERM_TEXT);
        node->value.text = value;
        return node;
    }
    LogQueryNode *op(int32_t kind, LogQueryNode *left, LogQueryNode *right) {
        LogQueryNode *node = make(kind);
        node->left = left;
        node->right = right;
        node->value.number = ZOLTLOG_ATTR_HOST_NAME; // not read for operators
        return node;
    }

  private:
    LogQueryNode *make(int32_t kind) {
        nodes.push_back({});
        nodes.back().kind = kind;
        return &nodes.back();
    }
    std::deque<LogQueryNode> nodes;
};

struct File {
    uint64_t product = 101;
    uint64_t originator = 7;
    const char *host = "hostA";
    const char *set = "setA";
    int64_t created = 1000;
    int64_t modified = 2000;
};

bool byName(LogQueryNode *query, const File &file) {
    return evalTreeToFilterFiles(file.product, file.originator, file.host, file.set, file.created,
                                 file.modified, query) != 0;
}

bool byHeader(LogQueryNode *query, const File &file) {
    LogListing listing = {};
    listing.query = query;
    LogFileHeader header = {};
    header.productId = file.product;
    header.originatorId = file.originator;
    header.creationTime = static_cast<uint64_t>(file.created);
    if (file.host != nullptr)
        strncpy(header.hostName, file.host, sizeof header.hostName - 1);
    return EvaluateFileCondition(&listing, &header, file.set, file.modified) != 0;
}

// ---- the plain recursive evaluator that the library's walk is compared with ------

bool isTerm(const LogQueryNode *node) {
    return node->kind >= ZOLTLOG_TERM_TEXT && node->kind <= ZOLTLOG_TERM_NUMBER_3;
}

bool compare(int32_t op, uint64_t a, uint64_t b) {
    switch (op) {
    case ZOLTLOG_OP_AND:
        return a && b;
    case ZOLTLOG_OP_OR:
        return a || b;
    case ZOLTLOG_OP_LESS:
        return a < b;
    case ZOLTLOG_OP_GREATER:
        return a > b;
    case ZOLTLOG_OP_LESS_EQUAL:
        return a <= b;
    case ZOLTLOG_OP_GREATER_EQUAL:
        return a >= b;
    case ZOLTLOG_OP_EQUAL:
        return a == b;
    case ZOLTLOG_OP_NOT_EQUAL:
        return a != b;
    }
    return false;
}

bool compareText(int32_t op, const std::string &a, const std::string &b) {
    return op == ZOLTLOG_OP_EQUAL ? a == b : op == ZOLTLOG_OP_NOT_EQUAL && a != b;
}

bool plain(const LogQueryNode *node, const File &file, bool header) {
    const LogQueryNode *a = node->left;
    const LogQueryNode *b = node->right;
    std::string literal;
    if (b->kind == ZOLTLOG_TERM_ATTRIBUTE)
        std::swap(a, b);
    else if (b->kind == ZOLTLOG_TERM_TEXT)
        literal = std::string(b->value.text).substr(0, header ? 1079 : 567);
    // A term beside a sub-result reads as not evaluated, minus 1.
    const auto truth = [&](const LogQueryNode *operand) -> uint64_t {
        return isTerm(operand) ? UINT32_MAX : plain(operand, file, header);
    };
    const int32_t op = node->kind;
    if (a->kind != ZOLTLOG_TERM_ATTRIBUTE)
        return compare(op, truth(a), truth(b));
    const uint64_t value = isTerm(b) ? b->value.number : truth(b);
    const auto created = static_cast<uint64_t>(file.created);
    const auto modified = static_cast<uint64_t>(file.modified);
    switch (a->value.number) {
    case ZOLTLOG_ATTR_PRODUCT_ID:
        return compare(op, file.product, value);
    case ZOLTLOG_ATTR_ORIGINATOR_ID:
        return header ? compare(op, file.originator, value) : true;
    case ZOLTLOG_ATTR_FILE_ORIGINATOR_ID:
        return header ? false : compare(op, file.originator, value);
    case ZOLTLOG_ATTR_TIME:
        return compare(op, created, value) || compare(op, modified, value);
    case ZOLTLOG_ATTR_CREATION_TIME:
        return compare(op, created, value);
    case 266:
    case 267:
    case 270:
    case 271:
    case 272:
    case 273:
    case 274:
    case 275:
    case 277:
        return !header;
    case ZOLTLOG_ATTR_HOST_NAME:
        return !header && compareText(op, file.host, literal);
    case ZOLTLOG_ATTR_LOGSET_NAME:
        return file.set != nullptr && compareText(op, file.set, literal);
    }
    return false;
}

} // namespace

// ---- operators and attributes ----------------------------------------------------

TEST(Query, EveryNumericOperatorOnTheProductInBothMappings) {
    struct Row {
        int32_t op;
        bool below, same, above, zero; // product 101 compared with 102, 101, 100, 0
    };
    const Row rows[] = {{ZOLTLOG_OP_AND, true, true, true, false},
                        {ZOLTLOG_OP_OR, true, true, true, true},
                        {ZOLTLOG_OP_LESS, true, false, false, false},
                        {ZOLTLOG_OP_GREATER, false, false, true, true},
                        {ZOLTLOG_OP_LESS_EQUAL, true, true, false, false},
                        {ZOLTLOG_OP_GREATER_EQUAL, false, true, true, true},
                        {ZOLTLOG_OP_EQUAL, false, true, false, false},
                        {ZOLTLOG_OP_NOT_EQUAL, true, false, true, true},
                        {280, false, false, false, false},
                        {289, false, false, false, false},
                        {0, false, false, false, false}};
    for (const Row &row : rows) {
        for (const auto &[value, expected] : std::vector<std::pair<uint64_t, bool>>{
                 {102, row.below}, {101, row.same}, {100, row.above}, {0, row.zero}}) {
            Trees trees;
            LogQueryNode *query =
                trees.op(row.op, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(value));
            EXPECT_EQ(byName(query, {}), expected) << row.op << " " << value;
            EXPECT_EQ(byHeader(query, {}), expected) << row.op << " " << value;
        }
    }
}

TEST(Query, OperandsAreUnsigned) {
    Trees trees;
    File old;
    old.created = -1;
    EXPECT_TRUE(byName(
        trees.op(ZOLTLOG_OP_GREATER, trees.attribute(ZOLTLOG_ATTR_CREATION_TIME), trees.number(5)), old));
}

TEST(Query, AttributesOfTheFileNameMapping) {
    // For each attribute: value that equals it, and whether equal and not-equal comparisons hold.
    struct Row {
        uint64_t attribute;
        uint64_t equalTo;
        bool equal, notEqual, lessThanZero;
    };
    const Row rows[] = {{262, 0, false, false, false},
                        {ZOLTLOG_ATTR_PRODUCT_ID, 101, true, false, false},
                        {ZOLTLOG_ATTR_ORIGINATOR_ID, 7, true, true, true},
                        {ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, 7, true, false, false},
                        {266, 0, true, true, true},
                        {267, 0, true, true, true},
                        {ZOLTLOG_ATTR_TIME, 1000, true, true, false},
                        {ZOLTLOG_ATTR_CREATION_TIME, 1000, true, false, false},
                        {270, 0, true, true, true},
                        {271, 0, true, true, true},
                        {272, 0, true, true, true},
                        {273, 0, true, true, true},
                        {274, 0, true, true, true},
                        {275, 0, true, true, true},
                        {ZOLTLOG_ATTR_NEVER, 0, false, false, false},
                        {277, 0, true, true, true},
                        {280, 0, false, false, false},
                        {0, 0, false, false, false},
                        {UINT64_MAX, 0, false, false, false}};
    for (const Row &row : rows) {
        Trees trees;
        EXPECT_EQ(
            byName(trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(row.attribute), trees.number(row.equalTo)), {}),
            row.equal)
            << row.attribute;
        EXPECT_EQ(
            byName(trees.op(ZOLTLOG_OP_NOT_EQUAL, trees.attribute(row.attribute), trees.number(row.equalTo)),
                   {}),
            row.notEqual)
            << row.attribute;
        EXPECT_EQ(byName(trees.op(ZOLTLOG_OP_LESS, trees.attribute(row.attribute), trees.number(0)), {}),
                  row.lessThanZero)
            << row.attribute;
    }
}

TEST(Query, AttributesOfTheHeaderMapping) {
    struct Row {
        uint64_t attribute;
        uint64_t equalTo;
        bool equal, notEqual;
    };
    const Row rows[] = {{262, 0, false, false},
                        {ZOLTLOG_ATTR_PRODUCT_ID, 101, true, false},
                        {ZOLTLOG_ATTR_ORIGINATOR_ID, 7, true, false},
                        {ZOLTLOG_ATTR_FILE_ORIGINATOR_ID, 7, false, false},
                        {266, 0, false, false},
                        {267, 0, false, false},
                        {ZOLTLOG_ATTR_TIME, 1000, true, true},
                        {ZOLTLOG_ATTR_CREATION_TIME, 1000, true, false},
                        {270, 0, false, false},
                        {271, 0, false, false},
                        {272, 0, false, false},
                        {273, 0, false, false},
                        {274, 0, false, false},
                        {275, 0, false, false},
                        {ZOLTLOG_ATTR_NEVER, 0, false, false},
                        {277, 0, false, false},
                        {280, 0, false, false}};
    for (const Row &row : rows) {
        Trees trees;
        EXPECT_EQ(
            byHeader(trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(row.attribute), trees.number(row.equalTo)),
                     {}),
            row.equal)
            << row.attribute;
        EXPECT_EQ(byHeader(trees.op(ZOLTLOG_OP_NOT_EQUAL, trees.attribute(row.attribute),
                                    trees.number(row.equalTo)),
                           {}),
                  row.notEqual)
            << row.attribute;
    }
    Trees trees;
    for (const int32_t op : {ZOLTLOG_OP_EQUAL, ZOLTLOG_OP_NOT_EQUAL})
        EXPECT_FALSE(
            byHeader(trees.op(op, trees.attribute(ZOLTLOG_ATTR_HOST_NAME), trees.text("hostA")), {}));
}

TEST(Query, TheTimeTriesCreationThenModification) {
    Trees trees;
    LogQueryNode *created =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_TIME), trees.number(1000));
    LogQueryNode *modified =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_TIME), trees.number(2000));
    LogQueryNode *neither =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_TIME), trees.number(1500));
    for (const auto filter : {byName, byHeader}) {
        EXPECT_TRUE(filter(created, {}));
        EXPECT_TRUE(filter(modified, {}));
        EXPECT_FALSE(filter(neither, {}));
    }
}

TEST(Query, TheCreationTimeKnowsCreationOnly) {
    Trees trees;
    LogQueryNode *modified =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_CREATION_TIME), trees.number(2000));
    EXPECT_FALSE(byName(modified, {}));
    EXPECT_FALSE(byHeader(modified, {}));
}

TEST(Query, HostNameComparesByEqualAndNotEqualOnly) {
    for (const int32_t op : OPERATORS) {
        Trees trees;
        EXPECT_EQ(byName(trees.op(op, trees.attribute(ZOLTLOG_ATTR_HOST_NAME), trees.text("hostA")), {}),
                  op == ZOLTLOG_OP_EQUAL)
            << op;
        EXPECT_EQ(byName(trees.op(op, trees.attribute(ZOLTLOG_ATTR_HOST_NAME), trees.text("hostB")), {}),
                  op == ZOLTLOG_OP_NOT_EQUAL)
            << op;
    }
}

TEST(Query, LogSetNameComparesByEqualAndNotEqualOnlyInBothMappings) {
    for (const int32_t op : OPERATORS) {
        Trees trees;
        LogQueryNode *same = trees.op(op, trees.attribute(ZOLTLOG_ATTR_LOGSET_NAME), trees.text("setA"));
        LogQueryNode *other = trees.op(op, trees.attribute(ZOLTLOG_ATTR_LOGSET_NAME), trees.text("setAB"));
        for (const auto filter : {byName, byHeader}) {
            EXPECT_EQ(filter(same, {}), op == ZOLTLOG_OP_EQUAL) << op;
            EXPECT_EQ(filter(other, {}), op == ZOLTLOG_OP_NOT_EQUAL) << op;
        }
    }
}

TEST(Query, WithoutALogSetNameItsComparisonsAreFalse) {
    File file;
    file.set = nullptr;
    Trees trees;
    EXPECT_FALSE(byName(
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_LOGSET_NAME), trees.text("setA")), file));
    EXPECT_FALSE(byName(
        trees.op(ZOLTLOG_OP_NOT_EQUAL, trees.attribute(ZOLTLOG_ATTR_LOGSET_NAME), trees.text("setA")), file));
}

TEST(Query, LongLiteralsAreCutToTheMappingsBuffer) {
    const std::string text(1200, 'x');
    const std::string cutByName = text.substr(0, 567);
    const std::string cutByHeader = text.substr(0, 1079);
    Trees trees;
    LogQueryNode *query =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_LOGSET_NAME), trees.text(text.c_str()));
    File file;
    file.set = cutByName.c_str();
    EXPECT_TRUE(byName(query, file));
    EXPECT_FALSE(byHeader(query, file));
    file.set = cutByHeader.c_str();
    EXPECT_FALSE(byName(query, file));
    EXPECT_TRUE(byHeader(query, file));
}

TEST(Query, NumericComparisonMayHaveItsAttributeOnTheRight) {
    Trees trees;
    EXPECT_TRUE(
        byName(trees.op(ZOLTLOG_OP_EQUAL, trees.number(101), trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID)), {}));
    EXPECT_FALSE(
        byName(trees.op(ZOLTLOG_OP_EQUAL, trees.number(102), trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID)), {}));
    EXPECT_TRUE(byHeader(
        trees.op(ZOLTLOG_OP_EQUAL, trees.number(101), trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID)), {}));
}

TEST(Query, OperatorIsNotMirroredBySwap) {
    Trees trees;
    // "100 < product" is evaluated as "product < 100".
    EXPECT_FALSE(
        byName(trees.op(ZOLTLOG_OP_LESS, trees.number(100), trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID)), {}));
    EXPECT_TRUE(
        byName(trees.op(ZOLTLOG_OP_LESS, trees.number(200), trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID)), {}));
}

TEST(Query, TextLiteralOnTheLeftComparesAsEmpty) {
    Trees trees;
    EXPECT_FALSE(byName(
        trees.op(ZOLTLOG_OP_EQUAL, trees.text("setA"), trees.attribute(ZOLTLOG_ATTR_LOGSET_NAME)), {}));
    EXPECT_TRUE(byName(
        trees.op(ZOLTLOG_OP_NOT_EQUAL, trees.text("setA"), trees.attribute(ZOLTLOG_ATTR_LOGSET_NAME)), {}));
    File nameless;
    nameless.set = "";
    EXPECT_TRUE(byName(
        trees.op(ZOLTLOG_OP_EQUAL, trees.text("setA"), trees.attribute(ZOLTLOG_ATTR_LOGSET_NAME)), nameless));
    EXPECT_FALSE(byHeader(
        trees.op(ZOLTLOG_OP_EQUAL, trees.text("setA"), trees.attribute(ZOLTLOG_ATTR_LOGSET_NAME)), {}));
}

TEST(Query, TwoAttributesCompareTheRightOneWithTheLeftOnesCode) {
    Trees trees;
    File file;
    file.product = ZOLTLOG_ATTR_CREATION_TIME;
    EXPECT_TRUE(byName(trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_CREATION_TIME),
                                trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID)),
                       file));
    EXPECT_FALSE(byName(trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_TIME),
                                 trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID)),
                        file));
}

TEST(Query, AllNumericLiteralKindsAreNumbers) {
    for (const int32_t kind : {ZOLTLOG_TERM_NUMBER, ZOLTLOG_TERM_NUMBER_2, ZOLTLOG_TERM_NUMBER_3}) {
        Trees trees;
        EXPECT_TRUE(byName(
            trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(101, kind)),
            {}))
            << kind;
    }
}

TEST(Query, ProductAndOriginator) {
    Trees trees;
    LogQueryNode *query = trees.op(
        ZOLTLOG_OP_AND,
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(101)),
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_FILE_ORIGINATOR_ID), trees.number(7)));
    File file;
    EXPECT_TRUE(byName(query, file));
    file.originator = 8;
    EXPECT_FALSE(byName(query, file));
    file.originator = 7;
    file.product = 102;
    EXPECT_FALSE(byName(query, file));
    file.product = 101;
    EXPECT_TRUE(byName(query, file)); // the same tree again and again
}

TEST(Query, AttributeComparedWithASubResultTakesItsTruthValue) {
    Trees trees;
    File file;
    file.product = 1;
    LogQueryNode *yes =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_CREATION_TIME), trees.number(1000));
    EXPECT_TRUE(byName(trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), yes), file));
    LogQueryNode *no =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_CREATION_TIME), trees.number(1));
    EXPECT_FALSE(byName(trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), no), file));
}

TEST(Query, LiteralBesideASubResultCountsAsNotEvaluatedMinusOne) {
    Trees trees;
    LogQueryNode *yes =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(101));
    // The literal's own value is not looked at: it is true to "and" and equal to no truth value.
    EXPECT_TRUE(byName(trees.op(ZOLTLOG_OP_AND, yes, trees.number(0)), {}));
    EXPECT_FALSE(byName(trees.op(ZOLTLOG_OP_EQUAL, yes, trees.number(1)), {}));
    EXPECT_TRUE(byName(trees.op(ZOLTLOG_OP_LESS, yes, trees.number(0)), {}));
    EXPECT_TRUE(byName(trees.op(ZOLTLOG_OP_EQUAL, trees.number(3), trees.number(4)), {})); // two literals
}

// ---- the walk --------------------------------------------------------------------

TEST(Query, NoQueryPassesEverything) {
    EXPECT_TRUE(byName(nullptr, {}));
    EXPECT_TRUE(byHeader(nullptr, {}));
}

TEST(Query, NullListingOrHeaderPassesNothing) {
    LogFileHeader header = {};
    EXPECT_EQ(EvaluateFileCondition(nullptr, &header, "", 0), 0);
    Trees trees;
    LogListing listing = {};
    listing.query = trees.op(ZOLTLOG_OP_OR, trees.number(1), trees.number(1));
    EXPECT_EQ(EvaluateFileCondition(&listing, nullptr, "", 0), 0);
}

TEST(Query, SlotsAreHandedOutBottomUpLeftFirst) {
    Trees trees;
    LogQueryNode *left =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(101));
    LogQueryNode *right =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(102));
    LogQueryNode *root = trees.op(ZOLTLOG_OP_OR, left, right);
    EXPECT_TRUE(byName(root, {}));
    EXPECT_EQ(left->slot, 1);
    EXPECT_EQ(right->slot, 2);
    EXPECT_EQ(root->slot, 3);
    EXPECT_TRUE(byName(root, {}));
    EXPECT_EQ(left->slot, 1);
    EXPECT_EQ(right->slot, 2);
    EXPECT_EQ(root->slot, 3);
}

TEST(Query, SlotsOutsideTheTableReadAsNotEvaluated) {
    Trees trees;
    LogQueryNode *left =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(101));
    LogQueryNode *root = trees.op(ZOLTLOG_OP_AND, left, left);
    left->slot = -5;
    root->slot = 123456;
    EXPECT_TRUE(byName(root, {}));
}

TEST(Query, TreeOf199OperatorsIsEvaluatedAndALargerOnePassesNothing) {
    for (const bool leftDeep : {true, false}) {
        Trees trees;
        LogQueryNode *root =
            trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(101));
        int operators = 1;
        for (; operators < 199; operators += 2) {
            LogQueryNode *more =
                trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(101));
            root = leftDeep ? trees.op(ZOLTLOG_OP_AND, root, more) : trees.op(ZOLTLOG_OP_AND, more, root);
        }
        ASSERT_EQ(operators, 199);
        EXPECT_TRUE(byName(root, {}));
        EXPECT_TRUE(byName(root, {}));
        LogQueryNode *larger = trees.op(ZOLTLOG_OP_OR, root, trees.number(1));
        EXPECT_FALSE(byName(larger, {}));
        EXPECT_FALSE(byHeader(larger, {}));
    }
}

TEST(Query, VeryDeepOrIncompleteTreesDoNoHarm) {
    Trees trees;
    LogQueryNode *deep =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(101));
    for (int i = 0; i < 100000; ++i)
        deep = trees.op(ZOLTLOG_OP_AND, deep, trees.number(1));
    EXPECT_FALSE(byName(deep, {}));
    EXPECT_FALSE(byName(trees.op(ZOLTLOG_OP_AND, nullptr, nullptr), {}));
    EXPECT_FALSE(byName(trees.op(ZOLTLOG_OP_AND, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), nullptr), {}));
    EXPECT_FALSE(byName(trees.number(1), {}));
    EXPECT_FALSE(byName(trees.attribute(ZOLTLOG_ATTR_ORIGINATOR_ID), {}));
}

TEST(Query, RandomTreesAgreeWithAPlainEvaluation) {
    std::mt19937 random(20240305);
    const auto pick = [&](uint32_t bound) { return static_cast<uint32_t>(random() % bound); };
    const char *texts[] = {"hostA", "setA", "", "other"};
    int passes = 0;
    for (int round = 0; round < 2000; ++round) {
        Trees trees;
        const uint32_t operators = 1 + pick(150);
        const auto term = [&]() -> LogQueryNode * {
            switch (pick(6)) {
            case 0:
            case 1:
            case 2:
                return trees.attribute(262 + pick(19));
            case 3:
                return trees.text(texts[pick(4)]);
            default: {
                const uint64_t values[] = {0, 1, 7, 101, 1000, 2000, ZOLTLOG_ATTR_HOST_NAME, UINT64_MAX};
                const int32_t kinds[] = {ZOLTLOG_TERM_NUMBER, ZOLTLOG_TERM_NUMBER_2, ZOLTLOG_TERM_NUMBER_3};
                return trees.number(values[pick(8)], kinds[pick(3)]);
            }
            }
        };
        // Grown from its leaves: each step joins two parts, or a part and a term.
        std::vector<LogQueryNode *> parts;
        for (uint32_t i = 0; i < operators; ++i) {
            const auto operand = [&](bool mustUse) -> LogQueryNode * {
                if (parts.empty() || (!mustUse && pick(3) == 0))
                    return term();
                const uint32_t at = pick(static_cast<uint32_t>(parts.size()));
                LogQueryNode *part = parts[at];
                parts.erase(parts.begin() + at);
                return part;
            };
            const bool join = operators - i <= parts.size();
            LogQueryNode *left = operand(join);
            LogQueryNode *right = operand(join);
            parts.push_back(trees.op(OPERATORS[pick(static_cast<uint32_t>(OPERATORS.size()))], left, right));
        }
        LogQueryNode *root = parts.back();
        for (int repeat = 0; repeat < 4; ++repeat) {
            File file;
            file.product = pick(2) ? 101 : pick(3);
            file.originator = pick(2) ? 7 : pick(3);
            file.host = texts[pick(4)];
            file.set = pick(4) == 0 ? nullptr : texts[pick(4)];
            file.created = pick(2) ? 1000 : 0;
            file.modified = pick(2) ? 2000 : 1;
            ASSERT_EQ(byName(root, file), plain(root, file, false)) << round;
            ASSERT_EQ(byHeader(root, file), plain(root, file, true)) << round;
            passes += byName(root, file);
        }
    }
    EXPECT_GT(passes, 1000); // the trees are not all true or all false
    EXPECT_LT(passes, 7000);
}

TEST(Query, EveryOperatorOnEveryAttributeAgreesWithAPlainEvaluation) {
    for (uint64_t attribute = 260; attribute <= 281; ++attribute) {
        for (const int32_t op : OPERATORS) {
            for (const uint64_t value :
                 {uint64_t{0}, uint64_t{7}, uint64_t{101}, uint64_t{1000}, uint64_t{2000}}) {
                Trees trees;
                LogQueryNode *query = trees.op(op, trees.attribute(attribute), trees.number(value));
                ASSERT_EQ(byName(query, {}), plain(query, {}, false))
                    << attribute << " " << op << " " << value;
                ASSERT_EQ(byHeader(query, {}), plain(query, {}, true))
                    << attribute << " " << op << " " << value;
            }
            for (const char *text : {"hostA", "setA", "", "x"}) {
                Trees trees;
                LogQueryNode *query = trees.op(op, trees.attribute(attribute), trees.text(text));
                ASSERT_EQ(byName(query, {}), plain(query, {}, false))
                    << attribute << " " << op << " " << text;
                ASSERT_EQ(byHeader(query, {}), plain(query, {}, true))
                    << attribute << " " << op << " " << text;
            }
        }
    }
}

// ---- time zone -------------------------------------------------------------------

class QueryTimeZone : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC-2", 1); // two hours ahead: the offset is -7200
        tzset();
    }
    Trees trees;
};

TEST_F(QueryTimeZone, SubtractsTheDifferenceFromTimes) {
    LogQueryNode *query =
        trees.op(ZOLTLOG_OP_GREATER, trees.attribute(ZOLTLOG_ATTR_TIME), trees.number(100000));
    EXPECT_RESULT(ZOLTLOG_OK, updateQueryForTZ(query, 3600)); // delta -7200 - 3600 = -10800
    EXPECT_EQ(query->right->value.number, 110800u);
    EXPECT_RESULT(ZOLTLOG_OK, updateQueryForTZ(query, 3600)); // twice subtracts twice
    EXPECT_EQ(query->right->value.number, 121600u);
}

TEST_F(QueryTimeZone, ChangesBothTimeAttributesAndNothingElse) {
    LogQueryNode *time =
        trees.op(ZOLTLOG_OP_GREATER, trees.attribute(ZOLTLOG_ATTR_TIME), trees.number(50000));
    LogQueryNode *creation =
        trees.op(ZOLTLOG_OP_LESS, trees.attribute(ZOLTLOG_ATTR_CREATION_TIME), trees.number(60000));
    LogQueryNode *product =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(70000));
    LogQueryNode *none =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_CREATION_TIME), trees.number(0));
    LogQueryNode *swapped =
        trees.op(ZOLTLOG_OP_LESS, trees.number(80000), trees.attribute(ZOLTLOG_ATTR_TIME));
    LogQueryNode *query = trees.op(ZOLTLOG_OP_AND, trees.op(ZOLTLOG_OP_AND, time, creation),
                                   trees.op(ZOLTLOG_OP_OR, trees.op(ZOLTLOG_OP_OR, product, none),
                                            trees.op(ZOLTLOG_OP_OR, swapped, swapped)));
    EXPECT_RESULT(ZOLTLOG_OK, updateQueryForTZ(query, -3600)); // delta -3600
    EXPECT_EQ(time->right->value.number, 53600u);
    EXPECT_EQ(creation->right->value.number, 63600u);
    EXPECT_EQ(product->right->value.number, 70000u);
    EXPECT_EQ(none->right->value.number, 0u);
    EXPECT_EQ(swapped->left->value.number, 80000u);
    EXPECT_EQ(swapped->right->value.number, uint64_t{ZOLTLOG_ATTR_TIME});
}

TEST_F(QueryTimeZone, StopsWhereAnOperandIsMissing) {
    EXPECT_RESULT(ZOLTLOG_FAILED, updateQueryForTZ(nullptr, 0));
    EXPECT_RESULT(ZOLTLOG_FAILED, updateQueryForTZ(trees.number(1), 0));
    EXPECT_RESULT(ZOLTLOG_FAILED, updateQueryForTZ(trees.op(ZOLTLOG_OP_AND, trees.number(1), nullptr), 0));
    EXPECT_RESULT(ZOLTLOG_FAILED, updateQueryForTZ(trees.op(ZOLTLOG_OP_AND, nullptr, trees.number(1)), 0));
}

TEST_F(QueryTimeZone, ATermBesideAnOperatorStopsTheWalkAfterTheRightSide) {
    LogQueryNode *time =
        trees.op(ZOLTLOG_OP_GREATER, trees.attribute(ZOLTLOG_ATTR_TIME), trees.number(50000));
    LogQueryNode *query = trees.op(ZOLTLOG_OP_AND, trees.number(1), time);
    EXPECT_RESULT(ZOLTLOG_FAILED, updateQueryForTZ(query, 0));
    EXPECT_EQ(time->right->value.number, 57200u); // the right side came first
    LogQueryNode *untouched =
        trees.op(ZOLTLOG_OP_GREATER, trees.attribute(ZOLTLOG_ATTR_TIME), trees.number(50000));
    EXPECT_RESULT(ZOLTLOG_FAILED, updateQueryForTZ(trees.op(ZOLTLOG_OP_AND, untouched, trees.number(1)), 0));
    EXPECT_EQ(untouched->right->value.number, 50000u);
}

TEST_F(QueryTimeZone, EndlessRightChainsStop) {
    LogQueryNode *chain =
        trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(1));
    for (int i = 0; i < 5000; ++i)
        chain = trees.op(
            ZOLTLOG_OP_AND,
            trees.op(ZOLTLOG_OP_EQUAL, trees.attribute(ZOLTLOG_ATTR_PRODUCT_ID), trees.number(1)), chain);
    EXPECT_RESULT(ZOLTLOG_FAILED, updateQueryForTZ(chain, 0));
}
