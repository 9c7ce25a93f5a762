#include <kvx/kvx.h>

#include <iostream>

int main(int argc, char** argv) {
    auto client = kvx::Client::open();
    auto rows = client ? client->query("Links", argc > 1 ? argv[1] : "*")
                       : tl::unexpected(kvx::QueryError{client.error(), {}});
    if (!rows) std::cerr << rows.error().message() << '\n';
    for (const auto& row : rows.value_or(kvx::Rows())) std::cout << row << '\n';
    return rows ? 0 : 1;
}
