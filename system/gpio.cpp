// gpio.cpp - general-purpose lines: the object over "/dev/gpio".
#include <fcntl.h>
#include <poll.h>
#include <cerrno>

#include "frame/log.h"
#include "frame/object.h"
#include "os/os.h"
#include "qel/system.h"

namespace qel::gpio {

namespace {

constexpr const char *kSource = "gpio";  // the name in lines on standard error

struct GpioPrivate {
    frame::ObjectPrivate common;
};

const frame::ObjectKind kKind = {
    .create_name = "createGPIO",
    .add_ref_name = "gpio_addref",
    .release_name = "gpio_release",
    .created_word = QEL_OBJECT_GPIO,
    .first_references = 1,
    .no_record_memory = [] { QEL_STDERR(kSource, "malloc(sizeof(GPIO))"); },
    .no_private_memory = [] { QEL_STDERR(kSource, "malloc(sizeof(GPIO_Priv))"); },
    .close = [](frame::ObjectPrivate *priv) { os::close(priv->fd); },
};

frame::ObjectPrivate &common_of(GPIO *thiz) { return static_cast<GpioPrivate *>(thiz->priv)->common; }

// Non-blocking: waiting is done with poll, so that it ends when its time is over even where another
// thread took the event.
int open_device(GPIO *thiz) {
    constexpr const char *kFunction = "gpio_open";
    if (verify_para_comm(thiz, frame::kCheckPrivate, kFunction) != 0) return OSA_EFAIL;
    frame::ObjectPrivate &common = common_of(thiz);
    if (common.fd >= 1) {
        QEL_WARN_SHORT("warn: %s  GPIO has opend already \n", kFunction);
        return 0;
    }
    const int fd = os::open(QEL_GPIO_DEVICE, O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        QEL_STDERR(kSource, "open %s ", QEL_GPIO_DEVICE);
        return OSA_EFAIL;
    }
    common.fd = fd;
    return 0;
}

int request(GPIO *thiz, const char *function, uint32_t code, qel_gpio_line *record) {
    if (verify_para_comm(thiz, frame::kCheckOpen, function) != 0) return OSA_EFAIL;
    const int status = os::ioctl(common_of(thiz).fd, code, record);
    if (status == 0) return 0;
    QEL_ERROR_AS(function, "line %u: request %x failed, errno=%d\n", record->line, code, -status);
    return OSA_EFAIL;
}

int set_value(GPIO *thiz, const char *function, uint32_t code, unsigned line, int value) {
    qel_gpio_line record{line, static_cast<uint32_t>(value)};
    return request(thiz, function, code, &record);
}

int get_value(GPIO *thiz, const char *function, uint32_t code, unsigned line, int *value) {
    if (value == nullptr) {
        QEL_ERROR_AS(function, "value is NULL\n");
        return OSA_EFAIL;
    }
    qel_gpio_line record{line, 0};
    if (request(thiz, function, code, &record) != 0) return OSA_EFAIL;
    *value = static_cast<int>(record.value);
    return 0;
}

// ---- the operations ----

int add_ref(GPIO *thiz) { return frame::object_add_ref(thiz, kKind); }

int release(GPIO *thiz) { return frame::object_release(thiz, kKind); }

int set_direction(GPIO *thiz, unsigned line, int direction) {
    return set_value(thiz, "gpio_set_direction", QEL_GPIO_SET_DIRECTION, line, direction);
}

int get_direction(GPIO *thiz, unsigned line, int *direction) {
    return get_value(thiz, "gpio_get_direction", QEL_GPIO_GET_DIRECTION, line, direction);
}

int write_level(GPIO *thiz, unsigned line, int level) {
    return set_value(thiz, "gpio_write", QEL_GPIO_WRITE, line, level);
}

int read_level(GPIO *thiz, unsigned line, int *level) {
    return get_value(thiz, "gpio_read", QEL_GPIO_READ, line, level);
}

int set_edge(GPIO *thiz, unsigned line, int edge) {
    return set_value(thiz, "gpio_set_edge", QEL_GPIO_SET_EDGE, line, edge);
}

// One event that is there already: its size, 0 when there is none, or -errno.
ssize_t take_event(int fd, GpioEvent *event) {
    qel_gpio_edge edge{};
    const ssize_t got = os::read(fd, &edge, sizeof(edge));
    if (got == -EAGAIN) return 0;
    if (got < 0) return got;
    if (got != static_cast<ssize_t>(sizeof(edge))) return -EIO;
    *event = {edge.line, edge.edge, edge.lost, 0, edge.timestamp_us};
    return got;
}

int wait_edge(GPIO *thiz, GpioEvent *event, int timeout_ms) {
    constexpr const char *kFunction = "gpio_wait_edge";
    if (verify_para_comm(thiz, frame::kCheckOpen, kFunction) != 0) return OSA_EFAIL;
    if (event == nullptr) {
        QEL_ERROR_AS(kFunction, "event is NULL\n");
        return OSA_EFAIL;
    }
    const int fd = common_of(thiz).fd;
    const uint64_t deadline_ms = OSA_timeMs() + static_cast<uint64_t>(timeout_ms > 0 ? timeout_ms : 0);
    int left_ms = timeout_ms;
    for (;;) {
        const int ready = os::wait(fd, POLLIN, left_ms);
        if (ready == 0) return QEL_ETIMEOUT;
        const ssize_t got = ready < 0 ? ready : take_event(fd, event);
        if (got > 0) return 0;
        if (got < 0) {
            QEL_ERROR_AS(kFunction, "wait failed, errno=%d\n", static_cast<int>(-got));
            return OSA_EFAIL;
        }
        // Another thread took it.
        if (timeout_ms < 0) continue;
        const uint64_t now_ms = OSA_timeMs();
        left_ms = now_ms < deadline_ms ? static_cast<int>(deadline_ms - now_ms) : 0;
    }
}

}  // namespace

}  // namespace qel::gpio

using namespace qel;
using namespace qel::gpio;

extern "C" int createGPIO(GPIO **out) {
    GPIO *object = frame::object_create<GpioPrivate>(kKind, out);
    if (object == nullptr) return OSA_EFAIL;
    object->addRef = add_ref;
    object->release = release;
    object->set_direction = set_direction;
    object->get_direction = get_direction;
    object->write = write_level;
    object->read = read_level;
    object->set_edge = set_edge;
    object->wait_edge = wait_edge;
    if (open_device(object) != 0) {
        *out = nullptr;
        frame::object_free(object);
        return OSA_EFAIL;
    }
    return 0;
}
