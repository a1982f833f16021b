/*
 * minimal.c - which board is this? The least a program needs: the library is there when main starts.
 *
 *     qelboard run dome -- qel-minimal
 */
#include <qel/product.h>
#include <stdio.h>

int main(void) {
    const char *name = NULL;
    /* Where the product module did not start there is no record, and look-ups would never return. */
    if (QEL_productGetCfgNum() < 1 || QEL_productGetName(&name) != 0) {
        fprintf(stderr, "qel-minimal: the library does not know this board; OSA_LOG=info shows why\n");
        return 1;
    }
    printf("%s, board type %d\n", name, QEL_productGetHwidInfo(QEL_PROPERTY_BOARD_TYPE));
    return 0;
}
