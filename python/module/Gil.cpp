#include "python/module/Gil.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kvx::python {

namespace {

std::atomic<bool> isLeaving{false};
std::thread::id leavingThread;  // set before isLeaving

[[noreturn]] void stayForever() {
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::condition_variable never;
    while (true) never.wait(lock);
}

void drop(PyObject* function) {
    if (PyGILState_Check() != 0) {
        Py_DECREF(function);
    } else if (mayTakeGil()) {
        const py::gil_scoped_acquire gil;
        Py_DECREF(function);
    }
}

}  // namespace

void leaveInterpreter() {
    leavingThread = std::this_thread::get_id();
    isLeaving = true;
}

bool mayTakeGil() {
    return !isLeaving || leavingThread == std::this_thread::get_id();
}

WithoutGil::~WithoutGil() {
    if (state_ == nullptr) return;
    if (!mayTakeGil()) stayForever();
    PyEval_RestoreThread(state_);
}

Function::Function(const py::object& function) {
    if (function.is_none()) return;
    function_ = std::shared_ptr<PyObject>(function.inc_ref().ptr(), drop);
}

void Function::report(py::error_already_set& error) const {
    error.restore();
    PyErr_WriteUnraisable(function_.get());
}

void Function::report(const std::exception& error) const {
    PyErr_SetString(PyExc_RuntimeError, error.what());
    PyErr_WriteUnraisable(function_.get());
}

}  // namespace kvx::python
