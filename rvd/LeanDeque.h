#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <utility>

namespace kvx::rvd {

/// A deque that can give its memory back while it is empty: there is one for each session, and most
/// of them are empty most of the time.
template <class Element>
class LeanDeque {
    using Deque = std::deque<Element>;

  public:
    using iterator = typename Deque::iterator;
    using const_iterator = typename Deque::const_iterator;

    [[nodiscard]] bool empty() const { return size() == 0; }
    [[nodiscard]] std::size_t size() const { return deque_ ? deque_->size() : 0; }
    iterator begin() { return deque_ ? deque_->begin() : iterator(); }
    iterator end() { return deque_ ? deque_->end() : iterator(); }
    [[nodiscard]] const_iterator begin() const { return deque_ ? deque_->cbegin() : iterator(); }
    [[nodiscard]] const_iterator end() const { return deque_ ? deque_->cend() : iterator(); }
    Element& operator[](std::size_t i) { return (*deque_)[i]; }
    const Element& operator[](std::size_t i) const { return (*deque_)[i]; }
    Element& front() { return deque_->front(); }
    [[nodiscard]] const Element& front() const { return deque_->front(); }

    /// Throws `std::bad_alloc` and changes nothing.
    void push_back(Element element) { made().push_back(std::move(element)); }
    /// Likewise.
    void insert(const_iterator place, Element element) {
        if (empty()) return push_back(std::move(element));
        deque_->insert(place, std::move(element));
    }

    void pop_front() { deque_->pop_front(); }
    void erase(const_iterator first, const_iterator last) { deque_->erase(first, last); }

    /// Gives the memory back when it is empty. Now and then: for each message it would cost more
    /// than the message.
    void rest() {
        if (empty()) deque_.reset();
    }

  private:
    Deque& made() {
        if (!deque_) deque_ = std::make_unique<Deque>();
        return *deque_;
    }

    std::unique_ptr<Deque> deque_;  // null until the first element
};

}  // namespace kvx::rvd
