// A service that fails in the ways that a question names, and gives as many rows as it is asked
// for.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "kvx/kvx.h"

int main(int argc, char** argv) {
    // Arguments: threads, and seconds of patience.
    const int threads = argc > 1 ? std::atoi(argv[1]) : 2;
    const std::chrono::seconds patience(argc > 2 ? std::atoi(argv[2]) : 60);
    auto service = kvx::Service::open("Odd", {.threads = threads, .patience = patience});
    if (!service) return 2;
    service->onQuery([&](const kvx::Question& question, kvx::Reply& reply) {
        for (int left = std::atoi(question.text.c_str()); left > 1; --left) {
            if (reply.row({{"left", left}})) continue;
            std::puts(("unwanted: " + question.text).c_str());
            std::fflush(stdout);
            return;
        }
        reply.row({{"size", question.text.size()}});
        if (question.text == "throw") throw std::runtime_error("no such thing");
        if (question.text == "throw 7") throw 7;
        if (question.text == "huge") reply.row({{"text", std::string(70U << 20U, 'x')}});
        if (question.text == "refuse") reply.refuse("not here", 3);
        if (question.text != "block") return;
        std::puts("blocked");
        std::fflush(stdout);
        while (service->post([] {})) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::puts("ended");
    });
    service->onRole([](bool active) {
        std::puts(active ? "active" : "standing by");
        std::fflush(stdout);
    });
    return service->run();
}
