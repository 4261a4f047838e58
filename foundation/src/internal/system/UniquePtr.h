#pragma once

// The one owner of C handles in the foundation: UniquePtr<T> frees with the deleter registered
// for T. Each area registers its library's types in its own private header, at namespace Basalt
// scope:
//   BASALT_DELETER(xmlDoc, xmlFreeDoc);
// Memory a library allocates with its own allocator, and handles whose C type is plain void,
// get a tag type of their own, so that UniquePtr<Tag> holds a Pointer and frees it right:
//   BASALT_TAGGED_DELETER(OpenSslBytes, unsigned char*, OPENSSL_free);

#include <cstdlib>
#include <memory>

namespace Basalt {

template <class T>
struct Deleter;

template <class T>
using UniquePtr = std::unique_ptr<T, Deleter<T>>;

#define BASALT_DELETER(Type, freeFn)                  \
    template <>                                       \
    struct Deleter<Type> {                            \
        void operator()(Type* p) const { freeFn(p); } \
    }

#define BASALT_TAGGED_DELETER(Tag, Pointer, freeFn)     \
    struct Tag;                                         \
    template <>                                         \
    struct Deleter<Tag> {                               \
        using pointer = Pointer;                        \
        void operator()(Pointer p) const { freeFn(p); } \
    }

// Text the C runtime allocated with malloc.
BASALT_TAGGED_DELETER(MallocChars, char*, std::free);

}  // namespace Basalt
