// Rooms look down only: every #include of the tree is held against one table of floors.

#include <regex>

namespace fs = std::filesystem;

namespace {

using Rooms = std::set<std::string>;

const Rooms kBus = {"platform", "rv/message", "rv/error",   "rv/event",
                    "rv/wire",  "rv/link",    "rv/session", "rv/recording"};

Rooms with(Rooms rooms, std::initializer_list<std::string> more) {
    rooms.insert(more);
    return rooms;
}

// Which rooms a room may include, itself aside.
const std::map<std::string, Rooms>& allowedRooms() {
    static const Rooms wholeBus = with(kBus, {"rv", "rv/object", "rv/ft"});
    static const Rooms belowMom = with(wholeBus, {"foundation"});
    static const Rooms mom = {"mom/base",   "mom/config", "mom/transport", "mom/net",
                              "mom/engine", "mom/timed",  "mom/signal"};
    static const Rooms belowMomAndMom = [] {
        Rooms all = belowMom;
        all.insert(mom.begin(), mom.end());
        return all;
    }();
    static const Rooms libraries = with(belowMomAndMom, {"mom"});
    static const Rooms withKvx = with(libraries, {"kvx"});
    static const std::map<std::string, Rooms> table = {
        {"platform", {}},
        {"foundation", {"platform"}},
        {"rv/message", {"platform", "rv/error"}},
        {"rv/error", {"platform"}},
        {"rv/event", {"platform", "rv/error"}},
        {"rv/wire", {"platform", "rv/message", "rv/error"}},
        {"rv/recording", {"platform", "rv/message"}},
        {"rv/link", {"platform", "rv/message", "rv/error", "rv/event", "rv/wire"}},
        {"rv/session", {"platform", "rv/message", "rv/error", "rv/event", "rv/wire", "rv/link"}},
        {"rv/object", kBus},
        {"rv/ft", kBus},
        {"rv", wholeBus},
        {"mom/base", {"foundation", "platform", "rv/message"}},
        {"mom/config", {"foundation", "platform", "mom/base"}},
        {"mom/transport", with(belowMom, {"mom/base"})},
        {"mom/net", with(belowMom, {"mom/base", "mom/config"})},
        {"mom/signal", with(belowMom, {"mom/base", "mom/net"})},
        {"mom/engine", with(belowMom, {"mom/base", "mom/config", "mom/net", "mom/transport"})},
        {"mom/timed", with(belowMom, {"mom/base", "mom/engine"})},
        {"mom", belowMomAndMom},
        {"commandline", {"platform"}},
        {"rvd", {"commandline", "platform", "rv/message", "rv/error", "rv/wire", "rv/recording"}},
        {"rvbridge", with(belowMom, {"commandline", "mom/config"})},
        {"kvx", libraries},
        {"tools", with(withKvx, {"commandline"})},
        {"rva", with(withKvx, {"commandline", "tools"})},
        {"examples", with(withKvx, {"commandline"})},
        {"python", withKvx},
    };
    return table;
}

// The room of a path relative to an include root; nothing for files that belong to no room.
std::optional<std::string> roomOf(const std::string& path) {
    const auto slash = path.find('/');
    if (slash == std::string::npos) return std::nullopt;
    const std::string top = path.substr(0, slash);
    if (top == "lib") return roomOf(path.substr(slash + 1));
    if (top == "rv" || top == "mom") {
        const auto next = path.find('/', slash + 1);
        return next == std::string::npos ? top : path.substr(0, next);
    }
    return allowedRooms().count(top) != 0 ? std::optional(top) : std::nullopt;
}

bool isSource(const fs::path& file) {
    static const std::set<std::string> endings = {".h", ".cpp", ".y", ".l"};
    return endings.count(file.extension().string()) != 0;
}

// Calls `visit(path, included)` for each match of `pattern` in a line of the tree's sources.
void eachInclude(const std::regex& pattern,
                 const std::function<void(const std::string&, const std::string&)>& visit) {
    const fs::path root = KVX_SOURCE_DIR;
    for (const char* top : {"platform", "foundation", "rv", "lib", "commandline", "rvd", "rvbridge",
                            "tools", "rva", "examples", "python"}) {
        for (const auto& entry : fs::recursive_directory_iterator(root / top)) {
            if (!entry.is_regular_file() || !isSource(entry.path())) continue;
            std::ifstream in(entry.path());
            std::smatch match;
            for (std::string line; std::getline(in, line);) {
                if (!std::regex_search(line, match, pattern)) continue;
                visit(fs::relative(entry.path(), root).generic_string(), match[1]);
            }
        }
    }
}

}  // namespace

TEST(Includes, NeverClimb) {
    static const std::regex pattern(R"re(^\s*#\s*include\s+"([^"]+)")re");
    eachInclude(pattern, [](const std::string& path, const std::string& include) {
        const auto room = roomOf(path);
        const auto target = roomOf(include);
        if (!room || !target || *target == *room) return;
        EXPECT_EQ(allowedRooms().at(*room).count(*target), 1U) << path << " includes " << include;
    });
}

TEST(Includes, OperatingSystemHeadersStayInThePlatformRoom) {
    static const std::regex pattern(
        R"(^\s*#\s*include\s+<(sys/(socket|wait|epoll|select|signalfd|eventfd|un)\.h|netinet/\w+\.h|arpa/inet\.h|netdb\.h|poll\.h|unistd\.h|pwd\.h|spawn\.h|fcntl\.h|signal\.h|csignal)>)");
    eachInclude(pattern, [](const std::string& path, const std::string& include) {
        EXPECT_EQ(roomOf(path), "platform") << path << " includes " << include;
    });
}
