#include <Velik/IntrusiveBookmarkLinkedList.h>
#include <Velik/IntrusiveLinkedListBase.h>

#include "scheduler/SchedulerFixture.h"

namespace {

struct Item {
    explicit Item(int v) : value(v) {}
    int value;
    Velik::ListLinkNode<Item> queueLink_;
    Velik::BookmarkListLinkNode<Item> registeredLink_;
};

using Queue = Velik::List<Item, &Item::queueLink_>;
using Registry = Velik::BookmarkList<Item, &Item::registeredLink_>;
using Bookmark = Velik::BookmarkListLinkNode<Item>;
using Values = std::vector<int>;

template <typename L>
Values values(const L& list) {
    Values out;
    for (const Item& item : list) {
        out.push_back(item.value);
    }
    return out;
}

template <typename L>
void unlinkAll(L& list) {
    while (Item* item = list.front()) {
        list.remove(*item);
    }
}

TEST(IntrusiveList, PushRemoveAndSpliceKeepOrderAndRefuseLinkedElements) {
    Item a(1), b(2), c(3), d(4), e(5);
    Queue q, other, empty;
    q.pushBack(a);
    q.pushBack(b);
    q.pushFront(c);
    // A linked element is refused, and left where it is.
    EXPECT_ASSERT_TEXT(other.pushBack(a), "!( element.*ptrToLinkNode ).isLinked()");
    EXPECT_ASSERT_TEXT(q.pushFront(a), "!( element.*ptrToLinkNode ).isLinked()");
    EXPECT_EQ(values(q), (Values{3, 1, 2}));
    q.remove(a);
    q.remove(a);  // unlinked: left alone

    other.pushBack(d);
    other.pushBack(e);
    q.spliceFront(other);
    other.pushBack(a);
    q.spliceBack(other);
    q.spliceFront(empty);
    q.spliceBack(empty);
    EXPECT_EQ(values(q), (Values{4, 5, 3, 2, 1}));
    unlinkAll(q);
}

TEST(BookmarkList, WalksSkipBookmarksAndAnIteratorStartedOnOneLandsPastTheRun) {
    Item a(1), b(2);
    Registry r;
    Bookmark m1(Bookmark::bookmark), m2(Bookmark::bookmark), m3(Bookmark::bookmark);
    r.insertFront(m1);
    EXPECT_EQ(r.front(), nullptr);
    r.pushFront(a);
    r.insertBack(m2);
    r.insertBack(m3);
    r.pushBack(b);
    EXPECT_EQ(values(r), (Values{1, 2}));
    EXPECT_ASSERT_TEXT(r.insertBack(m2), "IntrusiveLinkedListBase:");  // linked already
    Registry::Iterator it(r, &m1);  // m1, m2, m3 stand between a and b
    EXPECT_EQ(&*it, &b);
    EXPECT_TRUE(++it == r.end());
    r.remove(b);
    EXPECT_TRUE(Registry::Iterator(r, &m1).atEnd());  // bookmarks at the tail
    for (Bookmark* m : {&m1, &m2, &m3}) {
        Registry::unlinkBookmark(*m);
    }
    unlinkAll(r);
}

}  // namespace
