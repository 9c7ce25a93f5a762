#include "python/module/Failure.h"

#include <atomic>

#include "python/module/Values.h"

namespace kvx::python {

namespace py = pybind11;

namespace {

std::atomic<int> openThings{0};
std::atomic<bool> isForked{false};
std::atomic<int> forks{0};

}  // namespace

py::object exceptionOf(const QueryError& error) {
    py::list rows;
    RowMaker maker;
    for (const Record& row : error.rows) rows.append(maker.rowOf(row));
    return types().error(static_cast<int>(error.code), textOfBytes(error.text),
                         textOfBytes(error.tried), rows);
}

void setException(const Failure& failure) {
    try {
        const py::object exception = exceptionOf(failure.error());
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception.ptr())), exception.ptr());
    } catch (py::error_already_set& other) {
        other.restore();
    }
}

void checkProcess() {
    if (!isForked) return;
    throw Failure(Error{Errc::InvalidArgument,
                        "this process was forked while a client or service was open; open it after "
                        "the fork",
                        {}});
}

void countOpen(int difference) {
    openThings += difference;
}

bool isForkedWhileOpen() {
    return isForked;
}

Origin::Origin() : forks_(forks) {}

bool Origin::isHere() const {
    return forks_ == forks;
}

void afterFork() {
    ++forks;
    if (openThings > 0) isForked = true;
}

}  // namespace kvx::python
