#ifndef MESSAGES_KYJSON_H
#define MESSAGES_KYJSON_H

#include <jansson.h>

#include <memory>
#include <new>
#include <string>
#include <utility>

/// Owners for what jansson hands out. Internal to the library.
namespace ky_json {

struct Release {
    void operator()(json_t* value) const { json_decref(value); }
};

/// Holds one reference to a JSON value.
using Ref = std::unique_ptr<json_t, Release>;

// What follows throws std::bad_alloc where jansson has run out of memory, so that no document is handed out
// with parts missing.

/// The document as text. A null document is one for which there was no memory.
///
/// jansson's own json_dumps() goes on without a key for which its text could not grow.
inline std::string Dump(const Ref& document, size_t flags) {
    struct Sink {
        std::string text;
        bool whole = true;
    } sink;
    const auto append = [](const char* bytes, size_t count, void* to) {
        auto* const into = static_cast<Sink*>(to);
        try {
            into->text.append(bytes, count);
        } catch (...) {
            into->whole = false;
        }
        return into->whole ? 0 : -1;
    };
    if (json_dump_callback(document.get(), append, &sink, flags) != 0 || !sink.whole) throw std::bad_alloc();
    return std::move(sink.text);
}

/// Sets a member of an object to a new value, of which it takes the reference.
inline void Set(const Ref& object, const char* key, json_t* value) {
    if (json_object_set_new(object.get(), key, value) != 0) throw std::bad_alloc();
}

/// Sets a member to a text. One that is not UTF-8 is left out.
inline void SetText(const Ref& object, const char* key, const char* text) {
    json_t* value = json_string(text);
    if (value == nullptr) {
        // For one reason or the other.
        const Ref any(json_string_nocheck(text));
        if (!any) throw std::bad_alloc();
        value = json_string(text);
        if (value == nullptr) return;
    }
    Set(object, key, value);
}

/// Adds a new value to an array, which takes the reference.
inline void Append(const Ref& array, json_t* value) {
    if (json_array_append_new(array.get(), value) != 0) throw std::bad_alloc();
}

/// A text of ours that is empty only if memory has run out for it.
inline const std::string& NotEmpty(const std::string& text) {
    if (text.empty()) throw std::bad_alloc();
    return text;
}

}  // namespace ky_json

#endif
