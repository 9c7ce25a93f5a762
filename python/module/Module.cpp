// `_kvxmom`: what the package `kvxmom` stands on. Its classes are for that package only, which
// checks arguments and gives names.

#include <chrono>
#include <utility>

#include "python/module/Client.h"
#include "python/module/Failure.h"
#include "python/module/Handles.h"
#include "python/module/Service.h"
#include "python/module/Values.h"
#include "python/module/Waiting.h"

namespace kvx::python {

namespace {

// What is still open ends while the interpreter is whole.
void leave() {
    constexpr std::chrono::seconds kMost{2};
    if (isForkedWhileOpen()) return leaveInterpreter();
    const auto open = OpenThing::all();
    for (OpenThing* const thing : open) thing->beginEnd();
    leaveInterpreter();
    waitForThreads(kMost);
}

void define(py::module_& module) {
    module.doc() = "What the package kvxmom stands on; for that package only.";
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) std::rethrow_exception(std::move(thrown));
        } catch (const Failure& failure) {
            setException(failure);
        }
    });
    defineMessage(module);
    defineWaiting(module);
    defineClient(module);
    defineService(module);
    module.def("leave", &leave);
    module.def("after_fork", &afterFork);
}

}  // namespace

}  // namespace kvx::python

PYBIND11_MODULE(_kvxmom, module) {
    kvx::python::define(module);
}
