// Intrusive doubly linked lists: the element carries its own link, so putting
// an element on a list or taking it off never allocates and is constant-time.
//
//   struct Job {
//       Velik::ListLinkNode<Job> queueLink_;
//   };
//   Velik::List<Job, &Job::queueLink_> queue;
//   queue.pushBack(job);          // asserts when job is already on a list
//   Job* next = queue.front();    // null when empty
//   queue.remove(*next);
//
// A list does not own its elements; an element must be off every list before
// it is destroyed, and a list should be empty when it is destroyed. Lists are
// single-threaded.
#pragma once

#include <Velik/Assert.h>

#include <boost/intrusive/circular_list_algorithms.hpp>
#include <boost/intrusive/parent_from_member.hpp>

#include <cstddef>
#include <iterator>

namespace Velik {

// The link an element embeds to sit on a `List`: next and previous pointers.
// Unlinked when next is null (or points at the node itself).
template <typename T>
class ListLinkNode {
  public:
    ListLinkNode() = default;
    // A link belongs to one element at one place; copying it would corrupt the
    // list it is on.
    ListLinkNode(const ListLinkNode&) = delete;
    ListLinkNode& operator=(const ListLinkNode&) = delete;

    bool isLinked() const { return next_ != nullptr && next_ != this; }

    ListLinkNode* next_ = nullptr;
    ListLinkNode* prev_ = nullptr;
};

namespace Impl {

// Adapts any node with `next_`/`prev_` members to boost's list algorithms.
template <typename Node>
struct ListNodeTraits {
    using node = Node;
    using node_ptr = Node*;
    using const_node_ptr = const Node*;
    static node_ptr get_next(const_node_ptr n) { return n->next_; }
    static void set_next(node_ptr n, node_ptr next) { n->next_ = next; }
    static node_ptr get_previous(const_node_ptr n) { return n->prev_; }
    static void set_previous(node_ptr n, node_ptr prev) { n->prev_ = prev; }
};

}  // namespace Impl

// The common list over element type `T` linked through member
// `ptrToLinkNode` of type `Node`. `isBookmark` tells real elements from
// free-standing bookmark nodes (see IntrusiveBookmarkLinkedList.h); every walk
// skips bookmarks.
template <typename T, typename Node, Node T::*ptrToLinkNode>
class ListImpl {
    using Algo = boost::intrusive::circular_list_algorithms<Impl::ListNodeTraits<Node>>;

  public:
    // Walks the elements from a node to the end, skipping bookmarks. Removing
    // the element an iterator stands on invalidates that iterator only.
    class Iterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = T*;
        using reference = T&;

        // Starts at `node`; a bookmark there (and any bookmarks following it)
        // is passed over to the next real element or to the end.
        Iterator(const ListImpl& list, const Node* node)
            : list_(&list), node_(const_cast<Node*>(node)) {
            skipBookmarks();
        }

        T& operator*() const { return *elementOf(node_); }
        T* operator->() const { return elementOf(node_); }
        Iterator& operator++() {
            node_ = node_->next_;
            skipBookmarks();
            return *this;
        }
        Iterator operator++(int) {
            Iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const Iterator& other) const { return node_ == other.node_; }

        // The node the iterator stands on (the list's head at the end).
        Node* node() const { return node_; }
        bool atEnd() const { return node_ == &list_->head_; }

      private:
        void skipBookmarks() {
            while (!atEnd() && list_->isBookmark(node_)) {
                node_ = node_->next_;
            }
        }

        const ListImpl* list_;
        Node* node_;
    };

    ListImpl() { Algo::init_header(&head_); }
    ListImpl(const ListImpl&) = delete;
    ListImpl& operator=(const ListImpl&) = delete;
    // Leaves the elements alone: they must all have been unlinked.
    virtual ~ListImpl() = default;

    // Whether `node` is a bookmark rather than an element's link.
    virtual bool isBookmark(const Node* node) const = 0;

    // Whether there is no node at all (neither element nor bookmark).
    bool isEmpty() const { return head_.next_ == &head_; }

    // The first element, bookmarks skipped; null when there is none.
    T* front() const {
        Iterator it = begin();
        return it.atEnd() ? nullptr : &*it;
    }

    // The number of elements (bookmarks not counted). Linear.
    std::size_t size() const { return static_cast<std::size_t>(std::distance(begin(), end())); }

    void pushBack(T& element) {
        checkUnlinked(element);
        Algo::link_before(&head_, &(element.*ptrToLinkNode));
    }
    void pushFront(T& element) {
        checkUnlinked(element);
        Algo::link_after(&head_, &(element.*ptrToLinkNode));
    }

    // Takes `element` off whichever list it is on; an unlinked element is
    // left alone.
    static void remove(T& element) { unlinkNode(element.*ptrToLinkNode); }

    static bool isLinked(const T& element) { return (element.*ptrToLinkNode).isLinked(); }

    // Moves every node of `other`, in order, to the end (front) of this list.
    void spliceBack(ListImpl& other) { transferAllBefore(&head_, other); }
    void spliceFront(ListImpl& other) { transferAllBefore(head_.next_, other); }

    Iterator begin() const { return Iterator(*this, head_.next_); }
    Iterator end() const { return Iterator(*this, &head_); }

    static T* elementOf(Node* node) {
        return boost::intrusive::get_parent_from_member<T>(node, ptrToLinkNode);
    }
    static Node& nodeOf(T& element) { return element.*ptrToLinkNode; }

  protected:
    static void linkAfter(Node& position, Node& node) { Algo::link_after(&position, &node); }
    static void linkBefore(Node& position, Node& node) { Algo::link_before(&position, &node); }
    static void unlinkNode(Node& node) {
        if (node.isLinked()) {
            Algo::unlink(&node);
        }
        Algo::init(&node);
    }

    Node head_;

  private:
    void checkUnlinked(const T& element) const {
        if ((element.*ptrToLinkNode).isLinked()) [[unlikely]] {
            Impl::assertFailed("IntrusiveLinkedListBase", __LINE__, true, __func__, "ListImpl",
                               "{}", "!( element.*ptrToLinkNode ).isLinked()");
        }
    }

    void transferAllBefore(Node* position, ListImpl& other) {
        if (&other == this || other.isEmpty()) {
            return;
        }
        Algo::transfer(position, other.head_.next_, &other.head_);
    }
};

// A list of plain elements: no node is ever a bookmark.
template <typename T, ListLinkNode<T> T::*ptrToLinkNode>
class List final : public ListImpl<T, ListLinkNode<T>, ptrToLinkNode> {
  public:
    bool isBookmark(const ListLinkNode<T>*) const override { return false; }

    // The first element, null when empty: no bookmarks to skip.
    T* front() const { return this->isEmpty() ? nullptr : this->elementOf(this->head_.next_); }
};

}  // namespace Velik
