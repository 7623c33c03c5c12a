#include <Velik/IntrusiveBookmarkLinkedList.h>
#include <Velik/IntrusiveLinkedListBase.h>

#include "foundation/ThrowingAsserts.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

template <typename L>
std::vector<int> values(const L& list) {
    std::vector<int> out;
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

TEST(IntrusiveList, PushFrontBackRemoveKeepOrder) {
    Item a(1), b(2), c(3);
    Queue q;
    EXPECT_TRUE(q.isEmpty());
    EXPECT_EQ(q.front(), nullptr);
    q.pushBack(a);
    q.pushBack(b);
    q.pushFront(c);
    EXPECT_EQ(values(q), (std::vector<int>{3, 1, 2}));
    EXPECT_EQ(q.size(), 3u);
    EXPECT_TRUE(Queue::isLinked(a));

    q.remove(a);
    EXPECT_FALSE(Queue::isLinked(a));
    EXPECT_EQ(values(q), (std::vector<int>{3, 2}));
    q.remove(a);  // unlinked: left alone
    EXPECT_EQ(q.size(), 2u);
    unlinkAll(q);
    EXPECT_TRUE(q.isEmpty());
}

TEST(IntrusiveList, SpliceMovesEverythingInOrder) {
    Item a(1), b(2), c(3), d(4);
    Queue first, second;
    first.pushBack(a);
    first.pushBack(b);
    second.pushBack(c);
    second.pushBack(d);

    first.spliceBack(second);
    EXPECT_TRUE(second.isEmpty());
    EXPECT_EQ(values(first), (std::vector<int>{1, 2, 3, 4}));

    unlinkAll(first);
}

TEST(IntrusiveList, SpliceFrontPutsOtherAhead) {
    Item a(1), b(2), c(3);
    Queue first, second;
    first.pushBack(a);
    second.pushBack(b);
    second.pushBack(c);
    first.spliceFront(second);
    EXPECT_EQ(values(first), (std::vector<int>{2, 3, 1}));
    Queue empty;
    first.spliceFront(empty);
    first.spliceBack(empty);
    EXPECT_EQ(values(first), (std::vector<int>{2, 3, 1}));
    unlinkAll(first);
}

TEST(IntrusiveList, LinkingALinkedElementAsserts) {
    Item a(1);
    Queue q, other;
    q.pushBack(a);
    std::string message = VelikTest::assertMessageOf([&] { other.pushBack(a); });
    EXPECT_NE(message.find("IntrusiveLinkedListBase:"), std::string::npos) << message;
    EXPECT_NE(message.find("!( element.*ptrToLinkNode ).isLinked()"), std::string::npos) << message;
    message = VelikTest::assertMessageOf([&] { q.pushFront(a); });
    EXPECT_NE(message.find("!( element.*ptrToLinkNode ).isLinked()"), std::string::npos);
    EXPECT_EQ(q.size(), 1u);
    EXPECT_TRUE(other.isEmpty());
    q.remove(a);
}

TEST(BookmarkList, WalksSkipBookmarks) {
    Item a(1), b(2);
    Registry r;
    Bookmark m1(Bookmark::bookmark), m2(Bookmark::bookmark);
    r.insertFront(m1);
    EXPECT_FALSE(r.isEmpty());
    EXPECT_EQ(r.front(), nullptr);
    EXPECT_EQ(r.size(), 0u);
    r.pushBack(a);
    r.insertBack(m2);
    r.pushBack(b);
    EXPECT_EQ(values(r), (std::vector<int>{1, 2}));
    EXPECT_EQ(r.front(), &a);
    EXPECT_EQ(r.size(), 2u);
    EXPECT_TRUE(r.isBookmark(&m1));
    EXPECT_FALSE(r.isBookmark(&r.nodeOf(a)));
    Registry::unlinkBookmark(m1);
    Registry::unlinkBookmark(m2);
    unlinkAll(r);
}

TEST(BookmarkList, IteratorStartedAtBookmarkRunLandsOnNextElement) {
    Item a(1), b(2);
    Registry r;
    Bookmark m1(Bookmark::bookmark), m2(Bookmark::bookmark), m3(Bookmark::bookmark);
    r.pushBack(a);
    r.insertBack(m1);
    r.insertBack(m2);
    r.insertBack(m3);
    r.pushBack(b);
    Registry::Iterator it(r, &m1);
    ASSERT_FALSE(it.atEnd());
    EXPECT_EQ(it->value, 2);
    ++it;
    EXPECT_TRUE(it == r.end());

    r.remove(b);
    Registry::Iterator tail(r, &m1);  // bookmarks at the tail: at the end
    EXPECT_TRUE(tail.atEnd());
    for (Bookmark* m : {&m1, &m2, &m3}) {
        Registry::unlinkBookmark(*m);
    }
    unlinkAll(r);
}

TEST(BookmarkList, PausedWalkSurvivesRemovalBeforeBookmark) {
    Item a(1), b(2), c(3);
    Registry r;
    r.pushBack(a);
    r.pushBack(b);
    r.pushBack(c);
    Bookmark mark(Bookmark::bookmark);

    // Walk stops after b, leaving the bookmark behind it.
    r.insertAfter(r.nodeOf(b), mark);
    r.remove(b);
    r.remove(a);

    std::vector<int> resumed;
    Registry::Iterator it(r, &mark);
    Registry::unlinkBookmark(mark);
    for (; !it.atEnd(); ++it) {
        resumed.push_back(it->value);
    }
    EXPECT_EQ(resumed, std::vector<int>{3});
    EXPECT_EQ(values(r), std::vector<int>{3});
    unlinkAll(r);
}

TEST(BookmarkList, InsertingALinkedBookmarkAsserts) {
    Item a(1);
    Registry r;
    r.pushBack(a);
    Bookmark mark(Bookmark::bookmark);
    r.insertBefore(r.nodeOf(a), mark);
    std::string message = VelikTest::assertMessageOf([&] { r.insertFront(mark); });
    EXPECT_NE(message.find("IntrusiveLinkedListBase:"), std::string::npos) << message;
    Registry::unlinkBookmark(mark);
    unlinkAll(r);
}

}  // namespace
