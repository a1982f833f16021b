// serial_verbs.h - the verbs of qelctl serial that go on for a while.
#pragma once

#include "tools/qelctl/verb.h"

namespace qelctl {

void add_serial_monitor(CLI::App &serial, Session &session);
void add_serial_bridge(CLI::App &serial, Session &session);
void add_serial_loopback_test(CLI::App &serial, Session &session);

}  // namespace qelctl
