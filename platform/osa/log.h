#pragma once

namespace qel::osa {

// Takes the level and the colours from the environment and the standard error stream, once.
void read_log_settings();

}  // namespace qel::osa
