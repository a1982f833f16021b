// com.h - the tty layer: its ten objects, taken up and down with the library.
#pragma once

namespace qel::comm {

void prepare_com_objects();
void destroy_com_objects();

// For a port that is carried by something else than a tty: tells the console, as QEL_shellTty does, that
// descriptor `fd` uses its line, and that nobody does once all of them have left.
void add_console_user(int port, int fd);
void drop_console_user(int port);

}  // namespace qel::comm
