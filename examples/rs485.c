/*
 * rs485.c - asks who is at the other end of a serial port and prints the answer. The same calls serve every
 * kind of port; on RS-485 the library turns the line round.
 *
 *     qelboard run dome --as vesta -- qel-rs485 2 'are you there?'
 */
#include <qel/serial.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int exchange(CommPort *port, const char *question) {
    const ComAttribute line = {.baud = 9600,
                               .dataBits = 8,
                               .parity = QEL_COM_PARITY_NONE,
                               .stopBits = QEL_COM_ONE_STOP_BIT,
                               .flowControl = 0};
    const size_t length = strlen(question);
    char answer[256];
    int got = 0;
    /* A line has no usable settings before the first setAttribute. */
    if (port->setAttribute(port, &line) != 0) return -1;
    if (port->write(port, question, (uint32_t)length) != (int)length) return -1;
    /* A read waits half a second for the first byte and returns what is there: 0 = the line is silent. */
    while ((got = port->read(port, answer, sizeof answer)) > 0) fwrite(answer, 1, (size_t)got, stdout);
    puts("");
    return got;
}

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: qel-rs485 PORT QUESTION\n");
        return 2;
    }
    const CommPortDesc wanted = {(uint32_t)strtoul(argv[1], NULL, 10)};
    CommPort *port = NULL;
    if (createCommPort(&wanted, &port) != 0) {
        fprintf(stderr, "qel-rs485: there is no port %s; OSA_LOG=info shows why\n", argv[1]);
        return 1;
    }
    int status = port->open(port);
    if (status == 0) {
        status = exchange(port, argv[2]);
        port->close(port);
    }
    port->release(port);
    if (status != 0) fprintf(stderr, "qel-rs485: port %s says no; OSA_LOG=info shows why\n", argv[1]);
    return status == 0 ? 0 : 1;
}
