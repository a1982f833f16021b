// library.h - libqel.so as qelctl uses it: loaded on demand, its exported functions by name.
#pragma once

#include <string>

namespace qelctl {

class Library {
public:
    // Loads `path`, or the installed library when it is empty. Its start-up chain runs now: that
    // opens devices and, under the name of an application, joins the channels to the other chips.
    // Stays loaded to the end of the process. Throws Failure(kNoLibrary).
    explicit Library(const std::string &path);

    // Throws Failure(kNoLibrary) when this library lacks it.
    void *symbol(const char *name) const;

    // The file it was loaded from, links resolved.
    std::string file() const;

private:
    void *handle_ = nullptr;
};

}  // namespace qelctl

// CALL(library, QEL_productGetCfgNum)(): the function with the type its header gives it.
#define CALL(library, name) (reinterpret_cast<decltype(&(name))>((library).symbol(#name)))
