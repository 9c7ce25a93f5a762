// What a user's first program touches in each of the three libraries.

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
    const bool good = answer == 42 && std::strcmp(atom.RAString(), "text") == 0 &&
                      std::strcmp(subject, "ZEMBRALIX.3.0.MODEL.QUERY") == 0;
    std::puts(good ? "the installed copy works" : "the installed copy does not work");
    return good ? 0 : 1;
}
