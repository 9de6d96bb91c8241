// Query trees: comparisons over the attributes of a log file, joined by operators.
//
// Owns: the evaluation of a tree for a listed file (attributes of the name and the
// file system) and for a fetched one (attributes of the header), the search of a
// tree for the host name attribute, and the shift of a tree's times to another zone.
// Leaves to others: building trees (the caller), reading names and headers (read),
// choosing the files to ask about (read_list, config_mgr).
//
// Order: node kinds and attributes; operators; the attribute mappings; one node;
// the walk; the exported evaluators; host search; time zone shift.
#include "read_query.h"

#include <cstring>

static_assert(offsetof(LogQueryNode, kind) < offsetof(LogQueryNode, slot) &&
                  offsetof(LogQueryNode, slot) < offsetof(LogQueryNode, value) &&
                  offsetof(LogQueryNode, value) < offsetof(LogQueryNode, reserved) &&
                  offsetof(LogQueryNode, reserved) < offsetof(LogQueryNode, left) &&
                  offsetof(LogQueryNode, left) < offsetof(LogQueryNode, right),
              "field order of LogQueryNode");

// ---- node kinds and attributes -----------------------------------------------

enum NodeKind : int32_t {
    KIND_TEXT = 257,
    KIND_FIRST_TERM = 257,
    KIND_ATTRIBUTE = 259,
    KIND_LAST_TERM = 261
};

enum Operator : int32_t {
    OP_AND = 281,
    OP_OR = 282,
    OP_LESS = 283,
    OP_GREATER = 284,
    OP_LESS_EQUAL = 285,
    OP_GREATER_EQUAL = 286,
    OP_EQUAL = 287,
    OP_NOT_EQUAL = 288
};

enum Attribute : uint64_t {
    ATTR_FIRST = 263,
    ATTR_TIME = 268,
    ATTR_CREATION_TIME = 269,
    ATTR_HOST = 278,
    ATTR_LOGSET = 279,
    ATTR_LAST = 279
};

static bool isTerm(const LogQueryNode *node) {
    return node->kind >= KIND_FIRST_TERM && node->kind <= KIND_LAST_TERM;
}

// ---- operators ---------------------------------------------------------------

static bool eval(int32_t op, uint64_t a, uint64_t b) {
    switch (op) {
    case OP_AND:
        return a != 0 && b != 0;
    case OP_OR:
        return a != 0 || b != 0;
    case OP_LESS:
        return a < b;
    case OP_GREATER:
        return a > b;
    case OP_LESS_EQUAL:
        return a <= b;
    case OP_GREATER_EQUAL:
        return a >= b;
    case OP_EQUAL:
        return a == b;
    case OP_NOT_EQUAL:
        return a != b;
    default:
        return false;
    }
}

// A text literal as a comparison sees it: cut to the mapping's bound, not copied.
struct Literal {
    const char *text;
    size_t length;
};

static bool evalString(int32_t op, const char *text, const Literal &literal) {
    const size_t length = strlen(text);
    const bool equal = length == literal.length && memcmp(text, literal.text, length) == 0;
    return op == OP_EQUAL ? equal : op == OP_NOT_EQUAL && !equal;
}

// ---- attribute mappings ------------------------------------------------------

enum Meaning : uint8_t {
    FALSE_ALWAYS,
    TRUE_ALWAYS,
    PRODUCT,
    ORIGINATOR,
    CREATION_OR_CHANGE,
    CREATION,
    HOST,
    LOGSET
};

struct Mapping {
    size_t literalLength; // longer text literals are cut
    Meaning meaning[ATTR_LAST - ATTR_FIRST + 1];
};

// clang-format off
static constexpr Mapping FILE_NAME_MAPPING = {567, {
    /* 263 */ PRODUCT, TRUE_ALWAYS, ORIGINATOR, TRUE_ALWAYS, TRUE_ALWAYS,
    /* 268 */ CREATION_OR_CHANGE, CREATION,
    /* 270 */ TRUE_ALWAYS, TRUE_ALWAYS, TRUE_ALWAYS, TRUE_ALWAYS, TRUE_ALWAYS, TRUE_ALWAYS,
    /* 276 */ FALSE_ALWAYS, TRUE_ALWAYS, HOST, LOGSET}};

static constexpr Mapping HEADER_MAPPING = {1079, {
    /* 263 */ PRODUCT, ORIGINATOR, FALSE_ALWAYS, FALSE_ALWAYS, FALSE_ALWAYS,
    /* 268 */ CREATION_OR_CHANGE, CREATION,
    /* 270 */ FALSE_ALWAYS, FALSE_ALWAYS, FALSE_ALWAYS, FALSE_ALWAYS, FALSE_ALWAYS, FALSE_ALWAYS,
    /* 276 */ FALSE_ALWAYS, FALSE_ALWAYS, FALSE_ALWAYS, LOGSET}};
// clang-format on

struct FileValues {
    uint64_t productId;
    uint64_t originatorId;
    uint64_t creationTime;
    uint64_t modificationTime;
    const char *hostName;
    const char *logsetName; // null: none
};

static bool compareAttribute(const Mapping &mapping, const FileValues &file, uint64_t attribute, int32_t op,
                             uint64_t number, const Literal &literal) {
    if (attribute < ATTR_FIRST || attribute > ATTR_LAST)
        return false;
    switch (mapping.meaning[attribute - ATTR_FIRST]) {
    case FALSE_ALWAYS:
        return false;
    case TRUE_ALWAYS:
        return true;
    case PRODUCT:
        return eval(op, file.productId, number);
    case ORIGINATOR:
        return eval(op, file.originatorId, number);
    case CREATION_OR_CHANGE:
        return eval(op, file.creationTime, number) || eval(op, file.modificationTime, number);
    case CREATION:
        return eval(op, file.creationTime, number);
    case HOST:
        return evalString(op, file.hostName != nullptr ? file.hostName : "", literal);
    case LOGSET:
        return file.logsetName != nullptr && evalString(op, file.logsetName, literal);
    }
    return false;
}

// ---- one node ----------------------------------------------------------------

// Results by slot: 0 not evaluated, else the truth value plus 1. Slot 0 is never written.
static constexpr int32_t SLOTS = 200;

static uint32_t slotValue(const uint32_t *table, const LogQueryNode *node) {
    return node->slot > 0 && node->slot < SLOTS ? table[node->slot] : 0;
}

static bool evaluateNode(const Mapping &mapping, const FileValues &file, const uint32_t *table,
                         const LogQueryNode *node) {
    const LogQueryNode *a = node->left;
    const LogQueryNode *b = node->right;
    if (a == nullptr || b == nullptr)
        return false;
    Literal literal = {"", 0};
    // KEPT: a text literal is seen only on the right of its attribute; with the operands swapped the
    // comparison meets an empty text, and the operator is never mirrored.
    // Pinned by Query.TextLiteralOnTheLeftComparesAsEmpty and Query.OperatorIsNotMirroredBySwap.
    if (b->kind == KIND_ATTRIBUTE) {
        a = node->right;
        b = node->left;
    } else if (b->kind == KIND_TEXT && b->value.text != nullptr) {
        literal = {b->value.text, strnlen(b->value.text, mapping.literalLength)};
    }
    if (a->kind != KIND_ATTRIBUTE)
        return eval(node->kind, slotValue(table, a) - 1, slotValue(table, b) - 1);
    const uint32_t result = slotValue(table, b);
    return compareAttribute(mapping, file, a->value.number, node->kind,
                            result != 0 ? result - 1 : b->value.number, literal);
}

// ---- the walk ----------------------------------------------------------------

static bool isPending(const uint32_t *table, const LogQueryNode *operand) {
    return operand != nullptr && !isTerm(operand) && slotValue(table, operand) == 0;
}

// Evaluates bottom-up, the left operand first, and leaves each operator's slot number
// in the tree. Slots are given out in the same order each time, so numbers left by an
// earlier walk never read as results of this one. A tree of more than SLOTS - 1
// operators passes no file.
static bool treePasses(const Mapping &mapping, const FileValues &file, LogQueryNode *root) {
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
        table[slot] = evaluateNode(mapping, file, table, current) ? 2 : 1;
        current->slot = slot;
        --depth;
    } while (slotValue(table, root) == 0);
    return slotValue(table, root) != 1;
}

// ---- exported evaluators -----------------------------------------------------

int32_t evalTreeToFilterFiles(uint64_t productId, uint64_t originatorId, const char *hostName,
                              const char *logsetName, int64_t creationTime, int64_t modificationTime,
                              LogQueryNode *query) {
    if (query == nullptr)
        return 1;
    const FileValues file = {
        productId, originatorId, static_cast<uint64_t>(creationTime), static_cast<uint64_t>(modificationTime),
        hostName,  logsetName};
    return treePasses(FILE_NAME_MAPPING, file, query) ? 1 : 0;
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
    return treePasses(HEADER_MAPPING, file, listing->query) ? 1 : 0;
}

// ---- host name ---------------------------------------------------------------

static bool mentionsHost(const LogQueryNode *node, int32_t depth) {
    if (node == nullptr || depth == SLOTS)
        return false;
    if (isTerm(node) && node->kind != KIND_TEXT && node->value.number == ATTR_HOST)
        return true;
    return mentionsHost(node->left, depth + 1) || mentionsHost(node->right, depth + 1);
}

bool queryMentionsHost(const LogQueryNode *node) {
    return mentionsHost(node, 0);
}

// ---- time zone ---------------------------------------------------------------

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
        if ((attribute == ATTR_TIME || attribute == ATTR_CREATION_TIME) && right->value.number != 0)
            right->value.number -= delta;
        current = waiting[depth--];
        if (current == nullptr)
            return 0;
    }
    return 1;
}
