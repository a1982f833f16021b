// unload.h - what a module gives back as the library goes, where the shut-down chain has no step for it.
#pragma once

// Behind the chain, which still serves other chips: what they ask for needs the module whole.
#define QEL_AT_UNLOAD __attribute__((destructor(101)))
