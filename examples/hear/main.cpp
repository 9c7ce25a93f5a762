#include <mom/mom.h>

struct Printer : RvDataCallback {
    void onData(const char* subject, RvSender*, const RvDatum& data, RvListener*) override {
        std::printf("%s ", subject);
        data.print(stdout);
        std::puts("");
        std::fflush(stdout);
    }
};

int main() {
    CVekClient client(8000, "DEFAULT");
    Printer printer;
    if (client.RRNAddService("NEWS", &printer) != kvx::kOk) return 1;
    client.RRNDoIt();
}
