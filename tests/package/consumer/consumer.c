/* consumer CHIPS - what a user of the package writes first: which board is this, and does a call to
 * every other chip come back? */
#include <qel/qel.h>
#include <stdio.h>
#include <stdlib.h>

static int ask(unsigned chip) {
    AdapterMsg *message = calloc(1, sizeof(*message) + QEL_HWID_BYTES);
    int status = -1;
    if (message != NULL) {
        message->chip = chip;
        message->timeout = 10000;
        message->needReply = 1;
        message->module = QEL_MODULE_PRODUCT;
        message->length = QEL_HWID_BYTES;
        status = QEL_adapterMasterProc(message);
        if (status == 0 && message->replied != 1) status = -1;
        free(message);
    }
    printf("chip %u: %s\n", chip, status == 0 ? "answers" : "no answer");
    return status;
}

int main(int argc, char **argv) {
    const int expected = argc > 1 ? atoi(argv[1]) : 1;
    const int chips = QEL_productGetCfgNum();
    const char *name = NULL;
    int failed = QEL_productGetName(&name) != 0 || name == NULL || name[0] == '\0' || chips != expected;
    int chip;
    printf("%s, %d chips\n", name != NULL ? name : "no name", chips);
    for (chip = 1; chip < chips; ++chip) failed |= ask((unsigned)chip) != 0;
    return failed;
}
