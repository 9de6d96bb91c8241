// SPDX-License-Identifier: Apache-2.0
// Query trees of any shape, as a program may build them from what it is given: nothing
// outside of them is touched, and the same tree gives the same answer for the same file
// however often it is asked.
#include "fuzz/require.h"
#include "zoltlog.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t NODE_BYTES = 6; // of the input: kind, value, two operands
constexpr size_t MOST_NODES = 400;

constexpr int32_t KINDS[] = {
    ZOLTLOG_TERM_TEXT,
    ZOLTLOG_TERM_NUMBER,
    ZOLTLOG_TERM_ATTRIBUTE,
    ZOLTLOG_TERM_NUMBER_2,
    ZOLTLOG_TERM_NUMBER_3,
    ZOLTLOG_OP_AND,
    ZOLTLOG_OP_OR,
    ZOLTLOG_OP_LESS,
    ZOLTLOG_OP_GREATER,
    ZOLTLOG_OP_LESS_EQUAL,
    ZOLTLOG_OP_GREATER_EQUAL,
    ZOLTLOG_OP_EQUAL,
    ZOLTLOG_OP_NOT_EQUAL,
    0,
    300,
};
const char *const TEXTS[] = {"hostA", "web", "",
                             "a text that is longer than the buffer into which a literal is copied"};

// Operands are earlier nodes (each node at most once, so that the tree has no circle) or none.
struct Tree {
    Tree(const uint8_t *data, size_t size) : nodes(std::min(size / NODE_BYTES, MOST_NODES)) {
        std::vector<bool> used(nodes.size());
        const auto operand = [&](size_t end, uint8_t which) -> LogQueryNode * {
            if (which == 0 || end == 0)
                return nullptr;
            const size_t at = end - 1 - which % end;
            if (used[at])
                return nullptr;
            used[at] = true;
            return &nodes[at];
        };
        for (size_t i = 0; i < nodes.size(); ++i) {
            const uint8_t *at = data + i * NODE_BYTES;
            LogQueryNode &node = nodes[i];
            node.kind = KINDS[at[0] % (sizeof KINDS / sizeof *KINDS)];
            node.slot = static_cast<int8_t>(at[1]);
            if (node.kind == ZOLTLOG_TERM_TEXT)
                node.value.text = TEXTS[at[2] % 4];
            else
                node.value.number = at[3] == 0 ? 260U + at[2] % 24 : at[2] * uint64_t{at[3]} * 7001;
            node.left = operand(i, at[4]);
            node.right = operand(i, at[5]);
        }
    }
    LogQueryNode *root() { return nodes.empty() ? nullptr : &nodes.back(); }

    std::vector<LogQueryNode> nodes;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Tree tree(data, size);
    LogListing listing = {};
    listing.query = tree.root();
    LogFileHeader header = {};
    header.productId = 5;
    header.originatorId = 7;
    header.creationTime = 1709300702;
    const auto byName = [&] {
        return evalTreeToFilterFiles(5, 7, "hostA", "web", 1709300702, 1709400000, tree.root());
    };
    const auto byHeader = [&] { return EvaluateFileCondition(&listing, &header, "web", 1709400000); };
    (void)byName(); // fills the slots of a tree that came with odd ones
    const auto name = byName();
    const auto second = byHeader();
    fuzz::require(byName() == name && byHeader() == second, "the same answer again");
    const uint32_t walked = updateQueryForTZ(tree.root(), 3600);
    fuzz::require(walked == 0 || walked == 1, "a result of the walk");
    (void)byName();
    return 0;
}
