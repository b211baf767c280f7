// The same with sdbus-c++.

#include <sdbus-c++/sdbus-c++.h>

int main() {
    return sdbus::createError(1, "text").isValid() ? 0 : 1;
}
