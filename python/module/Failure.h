#pragma once

#include <pybind11/pybind11.h>

#include <exception>
#include <string>
#include <utility>

#include "kvx/kvx.h"

namespace kvx::python {

/// A failure on its way to Python, where it becomes the exception of its code.
class Failure : public std::exception {
  public:
    explicit Failure(Error error) : error_{std::move(error), {}}, text_(error_.message()) {}
    explicit Failure(QueryError error) : error_(std::move(error)), text_(error_.message()) {}

    [[nodiscard]] const QueryError& error() const { return error_; }
    [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

  private:
    QueryError error_;
    std::string text_;
};

/// The exception that a failure is in Python. GIL held.
pybind11::object exceptionOf(const QueryError& error);

/// Sets the exception that `failure` is in Python. GIL held.
void setException(const Failure& failure);

/// Throws unless the result is a success.
template <class T, class E>
T require(tl::expected<T, E> result) {
    if (!result) throw Failure(std::move(result.error()));
    if constexpr (!std::is_void_v<T>) return std::move(*result);
}

/// Throws when this process was forked while something of the bus was open in it: threads and
/// connection stayed with the parent. Otherwise what was opened here works here.
void checkProcess();

/// Counts what is open in this process.
void countOpen(int difference);
[[nodiscard]] bool isForkedWhileOpen();

/// Part of what needs a thread of this process to end.
class Origin {
  public:
    Origin();
    /// False in the child of a fork for what was made before: it is not ended there.
    [[nodiscard]] bool isHere() const;

  private:
    int forks_;
};
/// In the child of a fork.
void afterFork();

}  // namespace kvx::python
