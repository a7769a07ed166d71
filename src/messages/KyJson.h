#ifndef MESSAGES_KYJSON_H
#define MESSAGES_KYJSON_H

#include <jansson.h>

#include <memory>
#include <new>
#include <string>
#include <utility>

/// Owners of jansson values, and functions that throw where jansson fails. Internal to the library.
namespace ky_json {

struct Release {
    void operator()(json_t* value) const { json_decref(value); }
};

/// Holds one reference to a JSON value.
using Ref = std::unique_ptr<json_t, Release>;

// The functions below throw std::bad_alloc if memory runs out: an incomplete document must not be returned.

/// Returns the document as text. Throws for a null document, which jansson returns if memory runs out.
///
/// Not json_dumps(): it drops a key for which memory runs out, and continues.
inline std::string Dump(const Ref& document, size_t flags) {
    struct Sink {
        std::string text;
        bool complete = true;
    } sink;
    const auto append = [](const char* bytes, size_t count, void* to) {
        auto* const into = static_cast<Sink*>(to);
        try {
            into->text.append(bytes, count);
        } catch (...) {
            into->complete = false;
        }
        return into->complete ? 0 : -1;
    };
    if (json_dump_callback(document.get(), append, &sink, flags) != 0 || !sink.complete)
        throw std::bad_alloc();
    return std::move(sink.text);
}

/// Sets a member of an object. Takes over the reference to the value, also if it throws.
inline void Set(const Ref& object, const char* key, json_t* value) {
    if (json_object_set_new(object.get(), key, value) != 0) throw std::bad_alloc();
}

/// Sets a member to a text. Does nothing if the text is not valid UTF-8.
inline void SetText(const Ref& object, const char* key, const char* text) {
    json_t* value = json_string(text);
    if (value == nullptr) {
        // Invalid UTF-8 or out of memory?
        const Ref any(json_string_nocheck(text));
        if (!any) throw std::bad_alloc();
        value = json_string(text);
        if (value == nullptr) return;
    }
    Set(object, key, value);
}

/// Appends a value to an array. Takes over the reference to the value, also if it throws.
inline void Append(const Ref& array, json_t* value) {
    if (json_array_append_new(array.get(), value) != 0) throw std::bad_alloc();
}

/// Throws if the text is empty. For operations that return an empty text only if memory has run out.
inline const std::string& NotEmpty(const std::string& text) {
    if (text.empty()) throw std::bad_alloc();
    return text;
}

}  // namespace ky_json

#endif
