// What a user's first program touches in each of the four libraries.

#include <kvx/kvx.h>
#include <mom/mom.h>

#include <cstdio>
#include <cstring>

int main() {
    RvMsg message;
    message.append("answer", 42L);
    long answer = 0;
    message.get("answer", answer);

    CVekAtom atom("text");
    const char* subject = CVekServiceToSubjectMapper::ServiceStringToQuerySubject("Model");
    const bool good =
        answer == 42 && std::strcmp(atom.RAString(), "text") == 0 &&
        std::strcmp(subject, "ZEMBRALIX.3.0.MODEL.QUERY") == 0 &&
        kvx::ServiceName::of("Model")->querySubject() == subject &&
        kvx::Client::open({.daemon = {.daemon = "none"}}).error().code == kvx::Errc::NoDaemon &&
        CVekTransport(nullptr).RTSendAll(false) == kvx::kInvalidArgument;
    std::printf("home: %s\n", CVekEnv().REHome());
    return good ? 0 : 1;
}
