// Holds the precompiled header that the tests share.
int main() {
    return 0;
}
