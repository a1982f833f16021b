// flash_data.h - the verbs of qelctl flash that read or change what is on the flash.
#pragma once

#include "tools/qelctl/verb.h"

namespace qelctl {

void add_flash_data(CLI::App &flash, Session &session);

}  // namespace qelctl
