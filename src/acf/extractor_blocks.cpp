// The feature extractor's set-up blocks.
#include "acf/extractor_blocks.h"

#include <algorithm>
#include <atomic>

namespace ostrel {

namespace {

std::atomic<size_t> g_live_tree_arrays{0};

tree_tables::table copy_table(const tree_table_data &source, size_t count) {
    tree_tables::table copy(new int32_t[count]);
    g_live_tree_arrays.fetch_add(1, std::memory_order_relaxed);
    const size_t known = std::min(count, source.size());
    std::copy(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(known), copy.get());
    std::fill(copy.get() + known, copy.get() + count, 0);
    return copy;
}

}  // namespace

size_t tree_table_live_arrays() { return g_live_tree_arrays.load(std::memory_order_relaxed); }

void tree_tables::array_deleter::operator()(int32_t *p) const {
    if (p != nullptr) {
        g_live_tree_arrays.fetch_sub(1, std::memory_order_relaxed);
        delete[] p;
    }
}

void tree_tables::init() {
    // Free the old arrays before copying, so that a set holds one copy of
    // each table however often it is re-initialised.
    fids.reset();
    child.reset();
    thrs.reset();
    hs.reset();
    n_trees = kTrees;
    n_nodes = kNodes;
    depth = kDepth;
    const size_t count = table_size();
    fids = copy_table(kTreeFids, count);
    child = copy_table(kTreeChild, count);
    thrs = copy_table(kTreeThrs, count);
    hs = copy_table(kTreeHs, count);
}

}  // namespace ostrel
