// log.h - every line the library logs is made here; the macros own the prefixes.
//
// The function named in a line is the one of the enclosing function; where a helper logs on behalf
// of an exported function, the _AS forms take that name. Messages carry their own line ends.
#pragma once

#include "os/os.h"
#include "platform/include/osa.h"

namespace qel::log {

enum Level { kError = 0, kWarning = 1, kInformation = 2, kVerbose = 5 };
enum Attribute { kPlain = 0, kErrorAttribute = 1, kInformationAttribute = 2, kWarningAttribute = 8 };

// Logs the assertion and keeps the calling thread here for ever.
[[noreturn]] void assertion_failed(const char *function, int line);

}  // namespace qel::log

#define QEL_ERROR_AT(function, line, format, ...)                                                     \
    OSA_logWrite(::qel::log::kError, ::qel::log::kErrorAttribute, "[libqel] ERROR  (%s|%d): " format, \
                 function, line, ##__VA_ARGS__)
#define QEL_ERROR_AS(function, format, ...) QEL_ERROR_AT(function, __LINE__, format, ##__VA_ARGS__)
#define QEL_ERROR(format, ...) QEL_ERROR_AT(__func__, __LINE__, format, ##__VA_ARGS__)

// The older form without function and line.
#define QEL_ERROR_SHORT(format, ...) \
    OSA_logWrite(::qel::log::kError, ::qel::log::kErrorAttribute, "[libqel] ERROR  : " format, ##__VA_ARGS__)

#define QEL_WARN_AS(function, format, ...)                                                               \
    OSA_logWrite(::qel::log::kWarning, ::qel::log::kWarningAttribute, "[libqel] WARN  (%s|%d): " format, \
                 function, __LINE__, ##__VA_ARGS__)
#define QEL_WARN(format, ...) QEL_WARN_AS(__func__, format, ##__VA_ARGS__)
#define QEL_WARN_SHORT(format, ...)                                                               \
    OSA_logWrite(::qel::log::kWarning, ::qel::log::kWarningAttribute, "[libqel] WARN  : " format, \
                 ##__VA_ARGS__)

#define QEL_INFO(format, ...)                                                                     \
    OSA_logWrite(::qel::log::kInformation, ::qel::log::kInformationAttribute, "[libqel] " format, \
                 ##__VA_ARGS__)
// Bare text, without the prefix.
#define QEL_VERBOSE(format, ...) OSA_logWrite(::qel::log::kVerbose, ::qel::log::kPlain, format, ##__VA_ARGS__)

// The older modules' form, straight to the standard error stream under the name of their source.
#define QEL_STDERR(source, format, ...) \
    ::qel::os::print_err("err: FILE -> %s, LINE -> %d: \n" format, source, __LINE__, ##__VA_ARGS__)

// Guards against programming errors, never against what a device or a peer may answer.
#define QEL_ASSERT_AS(function, condition)                                  \
    do {                                                                    \
        if (!(condition)) ::qel::log::assertion_failed(function, __LINE__); \
    } while (0)
#define QEL_ASSERT(condition) QEL_ASSERT_AS(__func__, condition)
