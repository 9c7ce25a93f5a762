#pragma once

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cxxabi.h>

#include <memory>
#include <utility>

namespace kvx::python {

namespace py = pybind11;

/// From now on only the calling thread takes the interpreter's lock through this module: the
/// interpreter is about to end. GIL held.
void leaveInterpreter();

/// Whether the calling thread may still take the lock. Any thread.
bool mayTakeGil();

/// Never returns: the thread stays until the process has ended.
[[noreturn]] void stayForever();

/// Does `work`, which enters the interpreter. When that has ended, it unwinds the threads that come
/// back to it, whose frames here hold its objects: such a thread stays where it came back.
template <class Work>
auto stayingAtTheEnd(const Work& work) {
    try {
        return work();
    } catch (const abi::__forced_unwind&) {
        stayForever();
    }
}

/// `function(*arguments)`. GIL held.
py::object callPython(const py::handle& function, const py::tuple& arguments);

/// Has the GIL while it lives, on a thread that may take it.
class WithGil {
  public:
    WithGil() : state_(stayingAtTheEnd([] { return PyGILState_Ensure(); })) {}
    ~WithGil() { PyGILState_Release(state_); }
    WithGil(const WithGil&) = delete;
    WithGil& operator=(const WithGil&) = delete;

  private:
    const PyGILState_STATE state_;
};

/// Gives up the GIL while it lives, if this thread has it. A thread that may not take it back stays
/// here until the process has ended: the interpreter it would return to is gone.
class WithoutGil {
  public:
    WithoutGil() : state_(PyGILState_Check() != 0 ? PyEval_SaveThread() : nullptr) {}
    ~WithoutGil();
    WithoutGil(const WithoutGil&) = delete;
    WithoutGil& operator=(const WithoutGil&) = delete;

  private:
    PyThreadState* const state_;
};

/// While it lives, this thread runs a function for the loop of a client or service, which must not
/// wait for that loop.
class InsideCall {
  public:
    InsideCall() : wasInside_(std::exchange(inside, true)) {}
    ~InsideCall() { inside = wasInside_; }
    InsideCall(const InsideCall&) = delete;
    InsideCall& operator=(const InsideCall&) = delete;

    static bool isInside() { return inside; }

  private:
    inline static thread_local bool inside = false;
    const bool wasInside_;
};

/// A Python function that any thread may keep, call and drop, with the GIL or without.
class Function {
  public:
    Function() = default;
    /// GIL held. None makes an empty one.
    explicit Function(const py::object& function);

    explicit operator bool() const { return function_ != nullptr; }
    /// GIL held.
    [[nodiscard]] py::object get() const {
        return py::reinterpret_borrow<py::object>(function_.get());
    }

    /// Calls it on a thread of a client or service with what `arguments()` gives, a tuple. What it
    /// raises goes to `sys.unraisablehook`. Nothing when the interpreter is about to end.
    template <class Arguments>
    void call(const Arguments& arguments) const {
        if (!mayTakeGil()) return;
        stayingAtTheEnd([&] {
            const WithGil gil;
            const InsideCall inside;
            try {
                callPython(get(), arguments());
            } catch (py::error_already_set& error) {
                report(error);
            } catch (const std::exception& error) {
                report(error);
            }
        });
    }
    void call() const {
        call([] { return py::tuple(); });
    }

    /// Hands `error` to `sys.unraisablehook`. GIL held.
    void report(py::error_already_set& error) const;
    void report(const std::exception& error) const;

  private:
    std::shared_ptr<PyObject> function_;
};

}  // namespace kvx::python
