// Code that the library's own warnings would refuse.
int Shadow(int value);
int Shadow(int value) {
    for (int i = 0; i < value; ++i) {
        long value = i;
        i = value;
    }
    return value;
}
