// watchdog.cpp - the watchdog device and the object over it.
#include <fcntl.h>
#include <atomic>
#include <cerrno>

#include "frame/log.h"
#include "frame/object.h"
#include "os/os.h"
#include "qel/system.h"

namespace qel::watchdog {

namespace {

constexpr const char *kDevice = "/dev/qecWdt";
constexpr uint32_t kFeed = 0xC0105700;  // FeedRecord in
constexpr int kClosed = -1;
constexpr int kAbsent = -2;  // the board has none: told once, then silent, as every forwarded call feeds
constexpr uint32_t kDefaultPeriod_s = 100;

struct FeedRecord {
    uint32_t unused;
    uint32_t type;  // QEL_WDT_FEED_...
    uint32_t unused2[2];
};
static_assert(sizeof(FeedRecord) == 16);

// The device is the process's, whoever feeds first opens it.
std::atomic<int> device{kClosed};

int open_device(const char *function) {
    int expected = device.load();
    if (expected != kClosed) return expected;
    const int fd = os::open(kDevice, O_RDWR);
    if (fd < 0) QEL_ERROR_AS(function, "wdt open error\n");
    const int opened = fd >= 0 ? fd : fd == -ENOENT ? kAbsent : kClosed;
    if (opened == kClosed || device.compare_exchange_strong(expected, opened)) return opened;
    if (fd >= 0) os::close(fd);  // another thread was first
    return expected;
}

// ---- the object ----

struct WatchdogPrivate {
    frame::ObjectPrivate common;
    uint32_t period_s;
};

const frame::ObjectKind kKind = {
    .create_name = "createWatchdog",
    .add_ref_name = "watchdog_addref",
    .release_name = "watchdog_release",
    .created_word = QEL_OBJECT_WATCHDOG,
    .first_references = 0,
    .no_record_memory =
        [] { QEL_ERROR_AS("createWatchdog", "err: %s malloc(Watchdog) failed \n", "createWatchdog"); },
    .no_private_memory =
        [] { QEL_ERROR_AS("createWatchdog", "err: %s malloc(WDT_Priv) failed \n", "createWatchdog"); },
    .close = [](frame::ObjectPrivate *) { QEL_wdtClose(); },
};

int not_available(Watchdog *thiz, const char *operation) {
    if (verify_para_comm(thiz, frame::kCheckPrivate, operation) != 0) return OSA_EFAIL;
    QEL_ERROR_AS(operation, "not available yet\n");
    return OSA_EFAIL;
}

int add_ref(Watchdog *thiz) { return frame::object_add_ref(thiz, kKind); }
int release(Watchdog *thiz) { return frame::object_release(thiz, kKind); }
int third(Watchdog *thiz) { return not_available(thiz, "watchdog_third"); }
int set_time(Watchdog *thiz, unsigned) { return not_available(thiz, "watchdog_set_time"); }
int start(Watchdog *thiz) { return not_available(thiz, "watchdog_start"); }
int stop(Watchdog *thiz) { return not_available(thiz, "watchdog_stop"); }
int seventh(Watchdog *thiz) { return not_available(thiz, "watchdog_seventh"); }
int feed(Watchdog *thiz) { return not_available(thiz, "watchdog_feed"); }

}  // namespace

}  // namespace qel::watchdog

using namespace qel;
using namespace qel::watchdog;

extern "C" {

int QEL_wdtFeed(int type) {
    if (type < QEL_WDT_FEED_SOFTWARE || type > QEL_WDT_FEED_BOTH) {
        QEL_ERROR("The Wdt type is invalid\n");
        return OSA_EFAIL;
    }
    const int fd = open_device(__func__);
    if (fd < 0) return OSA_EFAIL;
    FeedRecord record{};
    record.type = static_cast<uint32_t>(type);
    if (os::ioctl(fd, kFeed, &record) != 0) {
        QEL_ERROR("Fail to ioctl wdt\n");
        return OSA_EFAIL;
    }
    return 0;
}

int QEL_wdtClose(void) {
    const int fd = device.exchange(kClosed);
    if (fd >= 0) os::close(fd);
    return 0;
}

int createWatchdog(Watchdog **out) {
    auto *object = frame::object_create<WatchdogPrivate>(kKind, out);
    if (object == nullptr) return OSA_EFAIL;
    object->addRef = add_ref;
    object->release = release;
    object->third = third;
    object->set_time = set_time;
    object->start = start;
    object->stop = stop;
    object->seventh = seventh;
    object->feed = feed;
    static_cast<WatchdogPrivate *>(object->priv)->period_s = kDefaultPeriod_s;
    g_obj_created_libdvr[QEL_OBJECT_WATCHDOG] |= 1u;
    return 0;
}

}  // extern "C"
