#include <Velik/IntrusiveBookmarkLinkedList.h>
#include <Velik/IntrusiveLinkedListBase.h>

#include "scheduler/SchedulerFixture.h"

namespace {

struct Item {
    int value = 0;
    Velik::ListLinkNode<Item> queueLink_;
    Velik::BookmarkListLinkNode<Item> registeredLink_;
};

using Queue = Velik::List<Item, &Item::queueLink_>;
using Registry = Velik::BookmarkList<Item, &Item::registeredLink_>;
using Bookmark = Velik::BookmarkListLinkNode<Item>;

// Ordering and bookmark walks are exercised through the run queues and the
// sliced statistics reset; here the refusals and the empty edges.
TEST(IntrusiveList, RefusesLinkedNodesAndToleratesEmptyOrUnlinkedOperands) {
    Item a, b;
    Queue q, other, empty;
    q.pushBack(a);
    EXPECT_ASSERT_TEXT(other.pushBack(a), "!( element.*ptrToLinkNode ).isLinked()");
    EXPECT_ASSERT_TEXT(q.pushFront(a), "!( element.*ptrToLinkNode ).isLinked()");
    q.spliceFront(empty);
    q.spliceBack(q);
    EXPECT_EQ(q.size(), 1u);
    q.remove(a);
    q.remove(a);  // unlinked: left alone
    EXPECT_EQ(q.front(), nullptr);

    Registry r;
    Bookmark m(Bookmark::bookmark);
    r.insertFront(m);
    EXPECT_EQ(r.front(), nullptr);  // bookmarks only
    EXPECT_ASSERT_TEXT(r.insertBack(m), "isBookmark( &bookmark ) && !bookmark.isLinked()");
    r.pushBack(b);
    EXPECT_TRUE(Registry::Iterator(r, &m).node() == &b.registeredLink_);
    r.remove(b);
    Registry::unlinkBookmark(m);
}

}  // namespace
