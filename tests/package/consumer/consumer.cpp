// The public headers from C++: a device object made, used and given back.
#include <qel/qel.h>

#include <cstdio>

int main() {
    sysStaticInit();
    std::printf("board type %d\n", QEL_productGetHwidInfo(QEL_PROPERTY_BOARD_TYPE));
    return QEL_productGetHwidInfo(QEL_PROPERTY_BOARD_TYPE) >= 0 ? 0 : 1;
}
