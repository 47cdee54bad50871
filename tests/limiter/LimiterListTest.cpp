#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <stdlib.h>

#include "limiter/ProcessLimiter.h"

namespace {

struct Keyed {
    int32_t pid;
    int32_t payload;
};

list emptyList() {
    return list{nullptr, nullptr, 4, 0};
}

processGroup* groupWithRate(float rate) {
    processGroup* g = static_cast<processGroup*>(calloc(1, sizeof(processGroup)));
    g->workingRate = rate;
    return g;
}

std::vector<float> rates(const list& l) {
    std::vector<float> out;
    for (listNode* n = l.first; n != nullptr; n = n->next) {
        out.push_back(static_cast<processGroup*>(n->data)->workingRate);
    }
    return out;
}

TEST(LimiterList, AddLinksInOrderAndNullListGivesNull) {
    EXPECT_EQ(nullptr, ProcessLimiter::addElem(nullptr, nullptr));
    list l = emptyList();
    Keyed a{1, 0}, b{2, 0}, c{3, 0};
    listNode* na = ProcessLimiter::addElem(&l, &a);
    listNode* nb = ProcessLimiter::addElem(&l, &b);
    listNode* nc = ProcessLimiter::addElem(&l, &c);
    EXPECT_EQ(3, l.count);
    EXPECT_EQ(na, l.first);
    EXPECT_EQ(nc, l.last);
    EXPECT_EQ(nullptr, na->prev);
    EXPECT_EQ(nb, na->next);
    EXPECT_EQ(na, nb->prev);
    EXPECT_EQ(nc, nb->next);
    EXPECT_EQ(nullptr, nc->next);
    ProcessLimiter::clearList(&l);
}

TEST(LimiterList, DeleteFirstMiddleLastAndOnlyNode) {
    list l = emptyList();
    Keyed e[4] = {{1, 0}, {2, 0}, {3, 0}, {4, 0}};
    listNode* n[4];
    for (int i = 0; i < 4; i++) n[i] = ProcessLimiter::addElem(&l, &e[i]);

    ProcessLimiter::deleteNode(&l, n[1]);  // middle
    EXPECT_EQ(3, l.count);
    EXPECT_EQ(n[2], n[0]->next);
    EXPECT_EQ(n[0], n[2]->prev);

    ProcessLimiter::deleteNode(&l, n[0]);  // first
    EXPECT_EQ(n[2], l.first);
    EXPECT_EQ(nullptr, n[2]->prev);

    ProcessLimiter::deleteNode(&l, n[3]);  // last
    EXPECT_EQ(n[2], l.last);
    EXPECT_EQ(nullptr, n[2]->next);
    EXPECT_EQ(1, l.count);

    ProcessLimiter::deleteNode(&l, n[2]);  // only
    EXPECT_EQ(nullptr, l.first);
    EXPECT_EQ(nullptr, l.last);
    EXPECT_EQ(4, l.keySize);
    EXPECT_EQ(0, l.count);
}

TEST(LimiterList, DeleteRefusesNullAndEmptyNodesAndRepairsBrokenLinks) {
    qmed::host::LogCapture log;
    list l = emptyList();
    Keyed a{1, 0};
    ProcessLimiter::deleteNode(nullptr, nullptr);  // silent
    ProcessLimiter::deleteNode(&l, nullptr);
    EXPECT_TRUE(log.contains("NULL node, can't delete!"));

    ProcessLimiter::addElem(&l, &a);
    listNode* empty = static_cast<listNode*>(calloc(1, sizeof(listNode)));
    ProcessLimiter::deleteNode(&l, empty);
    EXPECT_TRUE(log.contains("Empty node, can't delete!"));
    EXPECT_EQ(1, l.count);
    EXPECT_NE(nullptr, l.first);
    free(empty);
    ProcessLimiter::clearList(&l);

    // Three nodes counted, but the one deleted has no neighbours: the list gives up.
    Keyed b{2, 0}, c{3, 0};
    ProcessLimiter::addElem(&l, &a);
    ProcessLimiter::addElem(&l, &b);
    ProcessLimiter::addElem(&l, &c);
    listNode* stray = static_cast<listNode*>(calloc(1, sizeof(listNode)));
    stray->data = &c;
    listNode* keep = l.first;
    ProcessLimiter::deleteNode(&l, stray);
    EXPECT_TRUE(log.contains("List Node pointer is Error!"));
    EXPECT_EQ(0, l.count);
    EXPECT_EQ(nullptr, l.first);
    EXPECT_EQ(nullptr, l.last);
    // The orphaned nodes are leaked by design; free them here.
    while (keep != nullptr) {
        listNode* next = keep->next;
        free(keep);
        keep = next;
    }
}

TEST(LimiterList, LocateComparesOnlyTheLeadingKey) {
    list l = emptyList();
    EXPECT_EQ(nullptr, ProcessLimiter::locateElem(nullptr, nullptr));
    Keyed key{7, 99};
    EXPECT_EQ(nullptr, ProcessLimiter::locateElem(&l, &key));
    Keyed a{5, 1}, b{7, 2}, c{7, 3};
    ProcessLimiter::addElem(&l, &a);
    listNode* nb = ProcessLimiter::addElem(&l, &b);
    ProcessLimiter::addElem(&l, &c);
    EXPECT_EQ(&b, ProcessLimiter::locateElem(&l, &key));  // first match, payload ignored
    EXPECT_EQ(nb, ProcessLimiter::locateNode(&l, &key));
    Keyed missing{8, 2};
    EXPECT_EQ(nullptr, ProcessLimiter::locateNode(&l, &missing));
    ProcessLimiter::clearList(&l);
}

TEST(LimiterList, ClearKeepsElementsDestroyFreesThem) {
    list l = emptyList();
    Keyed stack{1, 0};
    ProcessLimiter::addElem(&l, &stack);
    ProcessLimiter::clearList(&l);
    EXPECT_EQ(0, l.count);
    EXPECT_EQ(nullptr, l.first);
    EXPECT_EQ(nullptr, l.last);
    EXPECT_EQ(1, stack.pid);  // untouched

    ProcessLimiter::addElem(&l, malloc(sizeof(process)));
    ProcessLimiter::addElem(&l, malloc(sizeof(process)));
    ProcessLimiter::destroyList(&l);  // the sanitizer build reports a leak if it frees less
    EXPECT_EQ(0, l.count);
    EXPECT_EQ(nullptr, l.last);
    ProcessLimiter::clearList(nullptr);
    ProcessLimiter::destroyList(nullptr);
}

TEST(LimiterList, BubbleSortSwapsDataInPlaceAscending) {
    list l = emptyList();
    for (float r : {0.5f, 0.2f, 0.3f}) ProcessLimiter::addElem(&l, groupWithRate(r));
    listNode* n0 = l.first;
    listNode* n1 = n0->next;
    listNode* n2 = n1->next;
    ProcessLimiter::sortListBubble(l.first);
    EXPECT_EQ((std::vector<float>{0.2f, 0.3f, 0.5f}), rates(l));
    EXPECT_EQ(n0, l.first);
    EXPECT_EQ(n1, l.first->next);
    EXPECT_EQ(n2, l.last);
    ProcessLimiter::destroyList(&l);

    // Equal rates keep their order; a single node and no node are fine.
    processGroup* a = groupWithRate(0.4f);
    processGroup* b = groupWithRate(0.4f);
    processGroup* c = groupWithRate(0.1f);
    ProcessLimiter::addElem(&l, a);
    ProcessLimiter::addElem(&l, b);
    ProcessLimiter::addElem(&l, c);
    ProcessLimiter::sortListBubble(l.first);
    // a and b are never exchanged with each other, but a trades places with c.
    EXPECT_EQ(c, l.first->data);
    EXPECT_EQ(b, l.first->next->data);
    EXPECT_EQ(a, l.last->data);
    ProcessLimiter::destroyList(&l);
    ProcessLimiter::sortListBubble(nullptr);
}

}  // namespace
