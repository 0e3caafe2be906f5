// The per-set splay trees of CacheRangeTracker: top-down splay keyed by
// element address, a node comparing equal to any key inside its range.
#include <sstream>

#include "cache/CacheRangeTracker.h"
#include "util/Assert.h"
#include "util/Trace.h"

namespace {
// <0: key before the node; >0: key at or past its end; 0: inside.
int compare(uint64_t key, CacheRangeTracker::CacheRangeObject* n) {
    if (key < n->mStart) return -1;
    if (n->mLength == 0) return key == n->mStart ? 0 : 1;
    return key >= n->mStart + n->mLength ? 1 : 0;
}
}  // namespace

CacheRangeTracker::SplayNode* CacheRangeTracker::splay(SplayNode* t, uint64_t key) {
    if (!t) return nullptr;
    SplayNode header;
    SplayNode* l = &header;
    SplayNode* r = &header;
    for (;;) {
        int c = compare(key, asCro(t));
        if (c < 0) {
            if (!t->left) break;
            if (compare(key, asCro(t->left)) < 0) {  // zig-zig: rotate right
                SplayNode* y = t->left;
                t->left = y->right;
                y->right = t;
                t = y;
                if (!t->left) break;
            }
            r->left = t;
            r = t;
            t = t->left;
        } else if (c > 0) {
            if (!t->right) break;
            if (compare(key, asCro(t->right)) > 0) {  // zig-zig: rotate left
                SplayNode* y = t->right;
                t->right = y->left;
                y->left = t;
                t = y;
                if (!t->right) break;
            }
            l->right = t;
            l = t;
            t = t->right;
        } else {
            break;
        }
    }
    l->right = t->left;
    r->left = t->right;
    t->left = header.right;
    t->right = header.left;
    header.left = header.right = nullptr;
    return t;
}

void CacheRangeTracker::insertAfterSplay(SplayNode*& root, CacheRangeObject* cro) {
    cro->left = cro->right = nullptr;
    if (!root) {
        root = cro;
        return;
    }
    SplayNode* t = splay(root, cro->mStart);
    CacheRangeObject* old = asCro(t);
    if (cro->end() <= old->mStart) {
        cro->left = t->left;
        cro->right = t;
        t->left = nullptr;
    } else if (cro->mStart >= old->end()) {
        cro->right = t->right;
        cro->left = t;
        t->right = nullptr;
    } else {
        std::ostringstream os;
        os << CacheName() << ": overlapping insert 0x" << std::hex << cro->mStart << "+" << cro->mLength
           << " over 0x" << old->mStart << "+" << old->mLength;
        ESA_CONSOLE(os.str());
        ESA_ASSERT(!"CacheRangeTracker::insertAfterSplay overlap");
    }
    root = cro;
}

void CacheRangeTracker::eraseAndSplay(SplayNode*& root, CacheRangeObject* cro) {
    SplayNode* t = splay(root, cro->mStart);
    ESA_ASSERT(t == cro);
    if (!t->left) {
        root = t->right;
    } else {
        SplayNode* l = splay(t->left, cro->mStart);
        ESA_ASSERT(l->right == nullptr);
        l->right = t->right;
        root = l;
    }
    cro->left = cro->right = nullptr;
}

CacheRangeTracker::CacheRangeObject* CacheRangeTracker::firstAtOrAfter(uint32_t set, uint64_t start) {
    SplayNode*& root = mRoots[set];
    if (!root) return nullptr;
    root = splay(root, start);
    CacheRangeObject* c = asCro(root);
    if (c->end() <= start) c = nextCro(c);
    return c;
}
