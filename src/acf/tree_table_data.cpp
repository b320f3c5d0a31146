// The boosted-tree tables carried by the feature extractor.
//
// INCOMPLETE DATA: the project has the values of the first tree only
// (fids 741, 2759, 1790; thrs 129, 7, 1; hs 50, -3237, 2335, -4160, 2118,
// 3969, -1736) and the child pattern, which is the same for every tree.
// The fids, thrs and hs of trees 1 to 2047 are not available here and are
// shipped as zeros. Nothing in the library evaluates the trees (windows are
// scored by the linear classifier), so no result depends on the missing
// values. To ship the real tables, replace the initialiser of each array
// below by its full list of 2048 * 7 values, tree-major (node k of tree t
// at t * 7 + k); tree_tables::init copies whatever these arrays hold.
#include "acf/extractor_blocks.h"

namespace ostrel {

namespace {

// Every tree is a full tree of depth 2: nodes 0, 1 and 2 are internal, their
// first children are nodes 1, 3 and 5 (one-based 2, 4, 6), nodes 3 to 6 are
// leaves.
constexpr tree_table_data same_child_pattern_for_every_tree() {
    constexpr int32_t pattern[tree_tables::kNodes] = {2, 4, 6, 0, 0, 0, 0};
    tree_table_data table{};
    for (size_t i = 0; i < table.size(); ++i) {
        table[i] = pattern[i % tree_tables::kNodes];
    }
    return table;
}

}  // namespace

// First tree known; all further trees zero (see the note at the top).
const tree_table_data kTreeFids = {{741, 2759, 1790, 0, 0, 0, 0}};
const tree_table_data kTreeThrs = {{129, 7, 1, 0, 0, 0, 0}};
const tree_table_data kTreeHs = {{50, -3237, 2335, -4160, 2118, 3969, -1736}};

const tree_table_data kTreeChild = same_child_pattern_for_every_tree();

}  // namespace ostrel
