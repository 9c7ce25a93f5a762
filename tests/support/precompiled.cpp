// The translation unit that carries the precompiled headers of the tests.
int main() {
    return 0;
}
