#include "python/module/Gil.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kvx::python {

namespace {

std::atomic<bool> isLeaving{false};
std::thread::id leavingThread;  // set before isLeaving

void drop(PyObject* function) {
    if (PyGILState_Check() != 0) {
        Py_DECREF(function);
    } else if (mayTakeGil()) {
        stayingAtTheEnd([&] {
            const WithGil gil;
            Py_DECREF(function);
        });
    }
}

}  // namespace

void stayForever() {
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::condition_variable never;
    while (true) never.wait(lock);
}

py::object callPython(const py::handle& function, const py::tuple& arguments) {
    PyObject* const result =
        stayingAtTheEnd([&] { return PyObject_CallObject(function.ptr(), arguments.ptr()); });
    if (result == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(result);
}

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
    stayingAtTheEnd([this] { PyEval_RestoreThread(state_); });
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
