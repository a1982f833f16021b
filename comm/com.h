// com.h - the tty layer: its ten objects, taken up and down with the library.
#pragma once

namespace qel::comm {

void prepare_com_objects();
void destroy_com_objects();

}  // namespace qel::comm
