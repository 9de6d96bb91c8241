// SPDX-License-Identifier: Apache-2.0
// Query trees: comparisons over the attributes of a log file, joined by operators.
//
// Owns: the evaluation of a tree for a listed file (attributes of the name and the
// file system) and for a fetched one (attributes of the header), the search of a
// tree for the host name attribute, and the shift of a tree's times to another zone.
// Leaves to others: building trees (the caller), reading names and headers (read),
// choosing the files to ask about (read_list, config_mgr).
//
// Order: terms; operators; what the attributes mean; one node;
// the walk; the exported evaluators; host search; time zone shift.
#include "read_query.h"

#include <cstring>

namespace {

// ---- terms -----------------------------------------------

bool isTerm(const LogQueryNode *node) {
    return node->kind >= ZOLTLOG_TERM_TEXT && node->kind <= ZOLTLOG_TERM_NUMBER_3;
}

// ---- operators ---------------------------------------------------------------

bool eval(int32_t op, uint64_t a, uint64_t b) {
    switch (op) {
    case ZOLTLOG_OP_AND:
        return a != 0 && b != 0;
    case ZOLTLOG_OP_OR:
        return a != 0 || b != 0;
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
    default:
        return false;
    }
}

} // namespace

// A text literal as a comparison sees it: cut to the view's bound, not copied.
struct Literal {
    const char *text;
    size_t length;
};

namespace {

bool evalString(int32_t op, const char *text, const Literal &literal) {
    const size_t length = strlen(text);
    const bool equal = length == literal.length && memcmp(text, literal.text, length) == 0;
    return op == ZOLTLOG_OP_EQUAL ? equal : op == ZOLTLOG_OP_NOT_EQUAL && !equal;
}

} // namespace

// ---- what the attributes mean ------------------------------------------------------

// What of a file an attribute is compared with: it holds when it holds for one of them.
enum Compared : uint32_t {
    NONE = 0,
    ALL = 1, // holds for every file
    PRODUCT = 2,
    ORIGINATOR = 4,
    CREATION = 8,
    CHANGE = 16,
    HOST = 32,
    LOGSET = 64
};

// What is asked about: a file of a listing, by its name and the file system, or a fetched
// one, by its header.
enum View : uint8_t { LISTED_FILE, FETCHED_FILE, VIEWS };

namespace {

constexpr size_t LITERAL_LENGTH[VIEWS] = {567, 1079}; // longer text literals are cut

} // namespace

struct Attribute {
    uint64_t code;
    uint32_t compared[VIEWS]; // with these
};

namespace {

constexpr Attribute ATTRIBUTES[] = {
#define ATTRIBUTE_ROW(name, code, listed, fetched) {name, {listed, fetched}},
    ZOLTLOG_ATTRIBUTES(ATTRIBUTE_ROW)
#undef ATTRIBUTE_ROW
};

uint32_t comparedWith(uint64_t code, View view) {
    for (const Attribute &attribute : ATTRIBUTES)
        if (attribute.code == code)
            return attribute.compared[view];
    const bool known = code >= ZOLTLOG_ATTR_FIRST && code <= ZOLTLOG_ATTR_LAST;
    return known && view == LISTED_FILE ? ALL : NONE;
}

} // namespace

struct FileValues {
    uint64_t productId;
    uint64_t originatorId;
    uint64_t creationTime;
    uint64_t modificationTime;
    const char *hostName;
    const char *logsetName; // null: none
};

namespace {

bool compareAttribute(View view, const FileValues &file, uint64_t attribute, int32_t op, uint64_t number,
                      const Literal &literal) {
    const uint32_t with = comparedWith(attribute, view);
    return (with & ALL) != 0 || ((with & PRODUCT) != 0 && eval(op, file.productId, number)) ||
           ((with & ORIGINATOR) != 0 && eval(op, file.originatorId, number)) ||
           ((with & CREATION) != 0 && eval(op, file.creationTime, number)) ||
           ((with & CHANGE) != 0 && eval(op, file.modificationTime, number)) ||
           ((with & HOST) != 0 && evalString(op, file.hostName != nullptr ? file.hostName : "", literal)) ||
           ((with & LOGSET) != 0 && file.logsetName != nullptr && evalString(op, file.logsetName, literal));
}

// ---- one node ----------------------------------------------------------------

// Results by slot: 0 not evaluated, else the truth value plus 1. Slot 0 is never written.
constexpr int32_t SLOTS = 200;

uint32_t slotValue(const uint32_t *table, const LogQueryNode *node) {
    return node->slot > 0 && node->slot < SLOTS ? table[node->slot] : 0;
}

bool evaluateNode(View view, const FileValues &file, const uint32_t *table, const LogQueryNode *node) {
    const LogQueryNode *a = node->left;
    const LogQueryNode *b = node->right;
    if (a == nullptr || b == nullptr)
        return false;
    Literal literal = {"", 0};
    // KEPT: a text literal is seen only on the right of its attribute; with the operands swapped the
    // comparison meets an empty text, and the operator is never mirrored.
    // Pinned by Query.TextLiteralOnTheLeftComparesAsEmpty and Query.OperatorIsNotMirroredBySwap.
    if (b->kind == ZOLTLOG_TERM_ATTRIBUTE) {
        a = node->right;
        b = node->left;
    } else if (b->kind == ZOLTLOG_TERM_TEXT && b->value.text != nullptr) {
        literal = {b->value.text, strnlen(b->value.text, LITERAL_LENGTH[view])};
    }
    if (a->kind != ZOLTLOG_TERM_ATTRIBUTE)
        return eval(node->kind, slotValue(table, a) - 1, slotValue(table, b) - 1);
    const uint32_t result = slotValue(table, b);
    return compareAttribute(view, file, a->value.number, node->kind,
                            result != 0 ? result - 1 : b->value.number, literal);
}

// ---- the walk ----------------------------------------------------------------

bool isPending(const uint32_t *table, const LogQueryNode *operand) {
    return operand != nullptr && !isTerm(operand) && slotValue(table, operand) == 0;
}

// Evaluates bottom-up, the left operand first, and leaves each operator's slot number
// in the tree. Slots are given out in the same order each time, so numbers left by an
// earlier walk never read as results of this one. A tree of more than SLOTS - 1
// operators passes no file.
bool treePasses(View view, const FileValues &file, LogQueryNode *root) {
    uint32_t table[SLOTS] = {};
    LogQueryNode *path[SLOTS];
    int32_t depth = 0;
    int32_t slot = 0;
    path[depth] = root;
    do {
        LogQueryNode *current = path[depth];
        LogQueryNode *next = isPending(table, current->left)    ? current->left
                             : isPending(table, current->right) ? current->right
                                                                : nullptr;
        if (next != nullptr) {
            if (depth == SLOTS - 1)
                return false;
            path[++depth] = next;
            continue;
        }
        if (++slot == SLOTS)
            return false;
        table[slot] = evaluateNode(view, file, table, current) ? 2 : 1;
        current->slot = slot;
        --depth;
    } while (slotValue(table, root) == 0);
    return slotValue(table, root) != 1;
}

} // namespace

// ---- exported evaluators -----------------------------------------------------

int32_t evalTreeToFilterFiles(uint64_t productId, uint64_t originatorId, const char *hostName,
                              const char *logsetName, int64_t creationTime, int64_t modificationTime,
                              LogQueryNode *query) {
    if (query == nullptr)
        return 1;
    const FileValues file = {
        productId, originatorId, static_cast<uint64_t>(creationTime), static_cast<uint64_t>(modificationTime),
        hostName,  logsetName};
    return treePasses(LISTED_FILE, file, query) ? 1 : 0;
}

int32_t EvaluateFileCondition(LogListing *listing, const LogFileHeader *header, const char *logsetName,
                              int64_t modificationTime) {
    if (listing == nullptr)
        return 0;
    if (listing->query == nullptr)
        return 1;
    if (header == nullptr)
        return 0;
    const FileValues file = {header->productId,
                             header->originatorId,
                             header->creationTime,
                             static_cast<uint64_t>(modificationTime),
                             nullptr,
                             logsetName};
    return treePasses(FETCHED_FILE, file, listing->query) ? 1 : 0;
}

namespace {

// ---- host name ---------------------------------------------------------------

bool mentionsHost(const LogQueryNode *node, int32_t depth) {
    if (node == nullptr || depth == SLOTS)
        return false;
    if (isTerm(node) && node->kind != ZOLTLOG_TERM_TEXT &&
        (comparedWith(node->value.number, LISTED_FILE) & HOST) != 0)
        return true;
    return mentionsHost(node->left, depth + 1) || mentionsHost(node->right, depth + 1);
}

} // namespace

bool queryMentionsHost(const LogQueryNode *node) {
    return mentionsHost(node, 0);
}

namespace {

// ---- time zone ---------------------------------------------------------------

bool comparesTime(uint64_t attribute) {
    return ((comparedWith(attribute, LISTED_FILE) | comparedWith(attribute, FETCHED_FILE)) &
            (CREATION | CHANGE)) != 0;
}

} // namespace

uint32_t updateQueryForTZ(LogQueryNode *query, int64_t tzOffset) {
    const auto delta = static_cast<uint64_t>(getLocalTZOffsetFromGMT()) - static_cast<uint64_t>(tzOffset);
    LogQueryNode *waiting[SLOTS] = {}; // waiting[0] is empty: it ends the walk
    int32_t depth = 0;
    LogQueryNode *current = query;
    while (current != nullptr && current->left != nullptr && current->right != nullptr) {
        LogQueryNode *left = current->left;
        LogQueryNode *right = current->right;
        if (!isTerm(left) || !isTerm(right)) {
            if (depth == SLOTS - 1)
                return 1;
            waiting[++depth] = left;
            current = right;
            continue;
        }
        const uint64_t attribute = left->value.number;
        if (comparesTime(attribute) && right->value.number != 0)
            right->value.number -= delta;
        current = waiting[depth--];
        if (current == nullptr)
            return 0;
    }
    return 1;
}
