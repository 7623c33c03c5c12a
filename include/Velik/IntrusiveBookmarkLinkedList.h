// An intrusive list whose iteration can pause and resume.
//
// A long walk over a `BookmarkList` (resetting statistics of thousands of
// tasks, say) may have to return to the event loop half-way. It leaves a
// bookmark, a free-standing node owned by the walker, after the element it
// stopped at; elements may come and go meanwhile, and the walk resumes at the
// bookmark:
//
//   Velik::BookmarkListLinkNode<Task> bookmark(Velik::BookmarkListLinkNode<Task>::bookmark);
//   tasks.insertAfter(tasks.nodeOf(current), bookmark);   // pause
//   ...
//   auto it = decltype(tasks)::Iterator(tasks, &bookmark); // resume
//   tasks.unlinkBookmark(bookmark);
//
// Every walk (counting, `front`, range-for) skips bookmarks.
#pragma once

#include <Velik/IntrusiveLinkedListBase.h>

#include <cstdint>

namespace Velik {

// The link of an element of a `BookmarkList`, or a bookmark itself: next and
// previous pointers plus a kind word.
template <typename T>
class BookmarkListLinkNode {
  public:
    enum Kind : std::uint32_t { element = 0, bookmark = 1 };

    explicit BookmarkListLinkNode(Kind kind = element) : kind_(kind) {}
    BookmarkListLinkNode(const BookmarkListLinkNode&) = delete;
    BookmarkListLinkNode& operator=(const BookmarkListLinkNode&) = delete;

    bool isLinked() const { return next_ != nullptr && next_ != this; }
    Kind kind() const { return kind_; }

    BookmarkListLinkNode* next_ = nullptr;
    BookmarkListLinkNode* prev_ = nullptr;

  private:
    Kind kind_;
};

template <typename T, BookmarkListLinkNode<T> T::*ptrToLinkNode>
class BookmarkList : public ListImpl<T, BookmarkListLinkNode<T>, ptrToLinkNode> {
    using Base = ListImpl<T, BookmarkListLinkNode<T>, ptrToLinkNode>;

  public:
    using Node = BookmarkListLinkNode<T>;
    using Iterator = typename Base::Iterator;

    bool isBookmark(const Node* node) const override { return node->kind() == Node::bookmark; }

    // Links `bookmark` right after (before) `position`, which is an element's
    // link or another bookmark on this list. A linked bookmark asserts.
    void insertAfter(Node& position, Node& bookmark) {
        checkBookmark(bookmark);
        Base::linkAfter(position, bookmark);
    }
    void insertBefore(Node& position, Node& bookmark) {
        checkBookmark(bookmark);
        Base::linkBefore(position, bookmark);
    }
    // Links `bookmark` at the very front (back) of the list.
    void insertFront(Node& bookmark) { insertAfter(this->head_, bookmark); }
    void insertBack(Node& bookmark) { insertBefore(this->head_, bookmark); }

    // Takes `bookmark` off the list; an unlinked bookmark is left alone.
    static void unlinkBookmark(Node& bookmark) { Base::unlinkNode(bookmark); }

  private:
    void checkBookmark(const Node& bookmark) const {
        if (bookmark.kind() != Node::bookmark || bookmark.isLinked()) [[unlikely]] {
            Impl::assertFailed("IntrusiveLinkedListBase", __LINE__, true, __func__, "BookmarkList",
                               "{}", "isBookmark( &bookmark ) && !bookmark.isLinked()");
        }
    }
};

}  // namespace Velik
