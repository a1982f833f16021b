// object.h - the device-object pattern: what every kind of object does the same way.
//
// A kind states itself once as an ObjectKind and writes its operations; creation, reference counting
// and the created marks are here. Records begin with `void *priv`, private states with ObjectPrivate.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qel/frame.h"

namespace qel::frame {

struct ObjectPrivate {
    int32_t references;
    uint32_t kind_word;
    int32_t fd;  // -1 while closed
};

struct ObjectKind {
    const char *create_name;  // the names under which the life-cycle operations log
    const char *add_ref_name;
    const char *release_name;
    unsigned created_word;  // index into g_obj_created_libdvr
    int32_t first_references;
    void (*no_record_memory)();
    void (*no_private_memory)();
    void (*close)(ObjectPrivate *priv);
};

// How deep an operation checks its record; see verify_para_comm.
constexpr int kCheckPrivate = 2;
constexpr int kCheckOpen = 3;

// The untyped halves of object_create.
bool object_may_be_created(const ObjectKind &kind, const void *out);
void *object_allocate(const ObjectKind &kind, size_t record_bytes, size_t private_bytes);
void object_free(void *record);

int object_add_ref(void *thiz, const ObjectKind &kind);
int object_release(void *thiz, const ObjectKind &kind);

// A record with its private header filled, also stored in *out; nullptr after a failure, logged in
// the kind's way. The caller fills the operations.
template <typename Private, typename Record>
Record *object_create(const ObjectKind &kind, Record **out) {
    if (!object_may_be_created(kind, out)) return nullptr;
    *out = static_cast<Record *>(object_allocate(kind, sizeof(Record), sizeof(Private)));
    return *out;
}

}  // namespace qel::frame
