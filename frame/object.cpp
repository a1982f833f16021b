#include "frame/object.h"

#include <atomic>

#include "frame/log.h"

uint32_t g_obj_created_libdvr[QEL_OBJECT_KINDS];

namespace qel::frame {

namespace {

constexpr uint32_t kCreated = 1;

// Records of all kinds begin with this field.
void *&private_of(void *record) { return *static_cast<void **>(record); }

ObjectPrivate *header_of(void *record) { return static_cast<ObjectPrivate *>(private_of(record)); }

}  // namespace

bool object_may_be_created(const ObjectKind &kind, const void *out) {
    if ((g_obj_created_libdvr[kind.created_word] & kCreated) != 0) {
        QEL_ERROR_AS(kind.create_name, "Error:OBJ is created\n");
        return false;
    }
    if (out == nullptr) {
        QEL_ERROR_AS(kind.create_name, "Obiect is NULL\n");
        return false;
    }
    return true;
}

void *object_allocate(const ObjectKind &kind, size_t record_bytes, size_t private_bytes) {
    void *record = OSA_memCalloc(record_bytes);
    if (record == nullptr) {
        kind.no_record_memory();
        return nullptr;
    }
    auto *priv = static_cast<ObjectPrivate *>(OSA_memCalloc(private_bytes));
    if (priv == nullptr) {
        kind.no_private_memory();
        OSA_memFree(record);
        return nullptr;
    }
    *priv = {.references = kind.first_references, .kind_word = 0, .fd = -1};
    private_of(record) = priv;
    return record;
}

void object_free(void *record) {
    OSA_memFree(private_of(record));
    OSA_memFree(record);
}

int object_add_ref(void *thiz, const ObjectKind &kind) {
    if (verify_para_comm(thiz, kCheckPrivate, kind.add_ref_name) != 0) return OSA_EFAIL;
    std::atomic_ref references(header_of(thiz)->references);
    int32_t count = references.load();
    do {
        if (count < 0) return OSA_EFAIL;
    } while (!references.compare_exchange_weak(count, count + 1));
    return 0;
}

int object_release(void *thiz, const ObjectKind &kind) {
    if (verify_para_comm(thiz, kCheckPrivate, kind.release_name) != 0) return OSA_EFAIL;
    ObjectPrivate *priv = header_of(thiz);
    std::atomic_ref references(priv->references);
    int32_t count = references.load();
    do {
        if (count < 1) return 0;
    } while (!references.compare_exchange_weak(count, count - 1));
    if (count > 1) return 0;
    kind.close(priv);
    object_free(thiz);
    g_obj_created_libdvr[kind.created_word] &= ~kCreated;
    return 0;
}

}  // namespace qel::frame

extern "C" int verify_para_comm(void *thiz, int depth, const char *caller) {
    using qel::frame::ObjectPrivate;
    if (depth < 1) return 0;
    if (thiz == nullptr) {
        QEL_ERROR("%s: thiz", caller);
        return OSA_EFAIL;
    }
    if (depth == 1) return 0;
    const auto *priv = static_cast<const ObjectPrivate *>(*static_cast<void **>(thiz));
    if (priv == nullptr) {
        QEL_ERROR("%s: thiz->priv", caller);
        return QEL_ENOPRIV;
    }
    if (depth == 2) return 0;
    if (priv->fd < 0) {
        QEL_ERROR("%s: priv->common.fd", caller);
        return QEL_ECLOSED;
    }
    return 0;
}
